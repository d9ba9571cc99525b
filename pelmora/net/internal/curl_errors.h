// The WinInet number of a failed transfer: one table from libcurl's result (with the details that
// tell its cases apart) to the numbers the internet object raises.
//
//   TransferFailure f{.code = CURLE_PEER_FAILED_VERIFICATION, .x509_error = 10};
//   WinInetErrorFor(f);  // 12037: the date in the certificate is invalid or has expired
#ifndef PELMORA_NET_INTERNAL_CURL_ERRORS_H_
#define PELMORA_NET_INTERNAL_CURL_ERRORS_H_

#include <curl/curl.h>

#include <cstdint>

namespace pelmora::net_internal {

// WinInet numbers the transfer code names directly.
inline constexpr int32_t kInternetTimeout = 12002;
inline constexpr int32_t kInternetInternalError = 12004;
inline constexpr int32_t kInternetConnectionAborted = 12030;
inline constexpr int32_t kIncorrectHandleType = 12018;
inline constexpr int32_t kHeaderNotFound = 12150;

// What is known about a failed transfer.
struct TransferFailure {
  CURLcode code = CURLE_OK;
  long os_errno = 0;          // CURLINFO_OS_ERRNO
  int x509_error = 0;         // the first certificate error the verify callback kept (0: none)
  bool headers_done = false;  // the response headers had been received
  bool ftp = false;           // an FTP transfer
};

// The WinInet number for `failure` (12004 for results with no closer meaning).
int32_t WinInetErrorFor(const TransferFailure& failure);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_CURL_ERRORS_H_
