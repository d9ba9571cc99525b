#include "pelmora/net/internal/curl_errors.h"

#include <gtest/gtest.h>
#include <openssl/x509_vfy.h>

#include <cerrno>

#include "pelmora/common/error.h"
#include "pelmora/testing/raised_error.h"

namespace pelmora::net_internal {
namespace {

struct MappingCase {
  TransferFailure failure;
  int32_t number;
  const char* text;
};

const MappingCase kCases[] = {
    {{.code = CURLE_COULDNT_RESOLVE_HOST}, 12007, "The server name or address could not be resolved"},
    {{.code = CURLE_COULDNT_CONNECT}, 12029, "A connection with the server could not be established"},
    {{.code = CURLE_OPERATION_TIMEDOUT}, 12002, "The operation timed out"},
    {{.code = CURLE_URL_MALFORMAT}, 12005, "The URL is invalid"},
    {{.code = CURLE_UNSUPPORTED_PROTOCOL}, 12152,
     "The server returned an invalid or unrecognized response"},
    {{.code = CURLE_UNSUPPORTED_PROTOCOL, .ftp = true}, 12006,
     "The URL does not use a recognized protocol"},
    {{.code = CURLE_GOT_NOTHING}, 12152, "The server returned an invalid or unrecognized response"},
    {{.code = CURLE_RECV_ERROR, .os_errno = ECONNRESET}, 12031,
     "The connection with the server was reset"},
    {{.code = CURLE_RECV_ERROR, .headers_done = true}, 12030,
     "The connection with the server was terminated abnormally"},
    {{.code = CURLE_RECV_ERROR}, 12152, "The server returned an invalid or unrecognized response"},
    {{.code = CURLE_SEND_ERROR, .os_errno = EPIPE}, 12031, "The connection with the server was reset"},
    {{.code = CURLE_PARTIAL_FILE}, 12030, "The connection with the server was terminated abnormally"},
    {{.code = CURLE_SSL_CONNECT_ERROR}, 12157, "An error occurred in the secure channel support"},
    {{.code = CURLE_PEER_FAILED_VERIFICATION, .x509_error = X509_V_ERR_CERT_HAS_EXPIRED}, 12037,
     "The date in the certificate is invalid or has expired"},
    {{.code = CURLE_PEER_FAILED_VERIFICATION, .x509_error = X509_V_ERR_CERT_NOT_YET_VALID}, 12037,
     "The date in the certificate is invalid or has expired"},
    {{.code = CURLE_PEER_FAILED_VERIFICATION}, 12038,
     "The host name in the certificate is invalid or does not match"},
    {{.code = CURLE_PEER_FAILED_VERIFICATION,
      .x509_error = X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT},
     12045, "The certificate authority is invalid or incorrect"},
    {{.code = CURLE_PEER_FAILED_VERIFICATION, .x509_error = X509_V_ERR_CERT_REVOKED}, 12170,
     "The supplied certificate has been revoked"},
    {{.code = CURLE_LOGIN_DENIED}, 12015, "The login request was denied"},
    {{.code = CURLE_REMOTE_FILE_NOT_FOUND}, 12003, "The server returned extended information"},
    {{.code = CURLE_WEIRD_SERVER_REPLY, .ftp = true}, 12110,
     "There is already an FTP request in progress on this session"},
    {{.code = CURLE_FTP_WEIRD_PASV_REPLY}, 12112, "FTP Passive mode is not available"},
    {{.code = CURLE_TOO_MANY_REDIRECTS}, 12156, "The HTTP redirect request failed"},
    {{.code = CURLE_ABORTED_BY_CALLBACK}, 12017, "The operation has been canceled"},
    {{.code = CURLE_OUT_OF_MEMORY}, 8,
     "Not enough memory resources are available to process this command."},
    {{.code = CURLE_WRITE_ERROR}, 12004, nullptr},
};

TEST(CurlErrors, EveryTransferFailureHasItsNumberAndText) {
  for (const MappingCase& c : kCases) {
    int32_t number = WinInetErrorFor(c.failure);
    EXPECT_EQ(number, c.number) << "CURLcode " << c.failure.code;
    Error e = testing::RaisedError([&] { RaiseWithText(number); });
    if (c.text != nullptr) {
      EXPECT_EQ(e.Description(), c.text) << "CURLcode " << c.failure.code;
    }
  }
  EXPECT_EQ(WinInetErrorFor({}), 0);
}

TEST(CurlErrors, NumbersWithoutTextGetTheNoDescriptionText) {
  Error e = testing::RaisedError([] { RaiseWithText(12099); });
  EXPECT_EQ(e.Number(), 12099);
  EXPECT_EQ(e.Description(), "Error: 12099 (no description)");
}

}  // namespace
}  // namespace pelmora::net_internal
