// URL canonicalisation and cracking as the internet object's callers have always seen them.
//
// CanonicalizeUrl puts a URL into its browser-mode canonical form (tabs and line breaks deleted,
// trailing blanks stripped, backslashes made slashes, unsafe path characters escaped in upper-case
// %XX, dot segments resolved in HTTP paths, an empty path made "/"); the query and the fragment
// are never escaped. CrackUrl splits a URL into scheme number, host, port, user, password, path
// and extra information (query and fragment), filling in the default ports of HTTP, HTTPS and FTP.
//
//   CanonicalResult c = CanonicalizeUrl("http://h/a b/../c?q=a b");  // "http://h/c?q=a b"
//   CrackedUrl u = CrackUrl(c.url);  // u.scheme 3, u.host "h", u.port 80, u.path "/c"
//
// Neither function touches the network; both are pure and bounds-checked.
#ifndef PELMORA_NET_INTERNAL_URL_CRACKER_H_
#define PELMORA_NET_INTERNAL_URL_CRACKER_H_

#include <cstdint>
#include <string>
#include <string_view>

namespace pelmora::net_internal {

// Scheme numbers reported by CrackUrl (the published InetSchemes values and the rest of the
// platform's numbering).
enum UrlScheme : int32_t {
  kSchemeUnknown = -1,
  kSchemeFtp = 1,
  kSchemeGopher = 2,
  kSchemeHttp = 3,
  kSchemeHttps = 4,
  kSchemeFile = 5,
  kSchemeNews = 6,
  kSchemeMailto = 7,
  kSchemeSocks = 8,
  kSchemeJavascript = 9,
  kSchemeVbscript = 10,
  kSchemeRes = 11,
};

// Error numbers the two functions give.
inline constexpr int32_t kErrorInsufficientBuffer = 122;
inline constexpr int32_t kErrorUnrecognizedScheme = 12006;

// The longest canonical URL, in characters, that fits the 1024-character buffer with its NUL.
inline constexpr size_t kMaxCanonicalUrl = 1023;

struct CanonicalResult {
  bool ok = false;
  int32_t error = 0;  // 122 when the canonical form is longer than kMaxCanonicalUrl
  std::string url;
};

// The browser-mode canonical form of `url`. A text without "scheme://" (such as "h/a" or
// "mailto:x@y") comes back unchanged. Fails only with 122 for a result over 1023 characters.
CanonicalResult CanonicalizeUrl(std::string_view url);

struct CrackedUrl {
  bool ok = false;
  int32_t error = 0;  // 12006 when the text has no scheme
  int32_t scheme = kSchemeUnknown;
  std::string scheme_text;  // as written ("HtTp" keeps its case)
  std::string host;         // IPv6 literals keep their brackets
  int32_t port = 0;         // 16-bit, wrapped modulo 65536; 0 when absent and no default
  std::string user;
  std::string password;
  std::string path;   // escapes kept as they are
  std::string extra;  // from the first "?" (or the first "#" when there is none) to the end
};

// Splits `url`. Fails with 12006 when there is no "scheme:" prefix (also for an empty text).
// The backslash is not a separator here: canonicalise first.
CrackedUrl CrackUrl(std::string_view url);

// The scheme number of a scheme name, matched without regard to case (kSchemeUnknown if none).
int32_t SchemeNumber(std::string_view name);

// The request path of a document as it goes on the wire: spaces, control characters and bytes
// of 0x80 and above become upper-case %XX, the fragment ("#..." outside the query is kept by the
// caller's choice) is dropped, and an empty document becomes "/".
std::string WireDocument(std::string_view document);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_URL_CRACKER_H_
