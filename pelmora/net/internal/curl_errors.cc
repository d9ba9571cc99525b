#include "pelmora/net/internal/curl_errors.h"

#include <openssl/x509_vfy.h>

#include <cerrno>

namespace pelmora::net_internal {
namespace {

// A certificate the chain check refused, by the first error the verify callback kept; no error
// kept means libcurl's own host-name check refused it.
int32_t CertificateError(int x509_error) {
  switch (x509_error) {
    case 0: return 12038;  // host name does not match
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED: return 12037;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE: return 12045;
    case X509_V_ERR_CERT_REVOKED: return 12170;
    default: return 12169;
  }
}

int32_t ReceiveError(const TransferFailure& f) {
  if (f.os_errno == ECONNRESET) return 12031;
  return f.headers_done ? kInternetConnectionAborted : 12152;
}

}  // namespace

int32_t WinInetErrorFor(const TransferFailure& f) {
  switch (f.code) {
    case CURLE_OK: return 0;
    case CURLE_UNSUPPORTED_PROTOCOL: return f.ftp ? 12006 : 12152;
    case CURLE_URL_MALFORMAT: return 12005;
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST: return 12007;
    case CURLE_COULDNT_CONNECT: return 12029;
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_FTP_ACCEPT_TIMEOUT: return kInternetTimeout;
    case CURLE_GOT_NOTHING:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
    case CURLE_HTTP3: return 12152;
    case CURLE_WEIRD_SERVER_REPLY: return f.ftp ? 12110 : 12152;
    case CURLE_RECV_ERROR: return ReceiveError(f);
    case CURLE_SEND_ERROR:
      return f.os_errno == ECONNRESET || f.os_errno == EPIPE ? 12031 : kInternetConnectionAborted;
    case CURLE_PARTIAL_FILE: return kInternetConnectionAborted;
    case CURLE_SSL_CONNECT_ERROR: return 12157;
    case CURLE_PEER_FAILED_VERIFICATION: return CertificateError(f.x509_error);
    case CURLE_SSL_ISSUER_ERROR: return 12045;
    case CURLE_SSL_PINNEDPUBKEYNOTMATCH: return 12169;
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CLIENTCERT: return 12044;
    case CURLE_SSL_INVALIDCERTSTATUS: return 12057;
    case CURLE_LOGIN_DENIED: return 12015;
    case CURLE_REMOTE_ACCESS_DENIED:
    case CURLE_REMOTE_FILE_NOT_FOUND:
    case CURLE_FTP_COULDNT_RETR_FILE:
    case CURLE_FTP_COULDNT_SET_TYPE:
    case CURLE_QUOTE_ERROR:
    case CURLE_UPLOAD_FAILED:
    case CURLE_FTP_PORT_FAILED:
    case CURLE_FTP_COULDNT_USE_REST:
    case CURLE_BAD_DOWNLOAD_RESUME: return 12003;
    case CURLE_FTP_WEIRD_PASV_REPLY:
    case CURLE_FTP_WEIRD_227_FORMAT: return 12112;
    case CURLE_TOO_MANY_REDIRECTS: return 12156;
    case CURLE_BAD_CONTENT_ENCODING: return 12175;
    case CURLE_ABORTED_BY_CALLBACK: return 12017;
    case CURLE_OUT_OF_MEMORY: return 8;
    case CURLE_PROXY: return 12165;
    default: return kInternetInternalError;
  }
}

}  // namespace pelmora::net_internal
