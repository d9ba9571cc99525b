// One internet session over libcurl: the share handle that keeps cookies, connections, name
// look-ups and TLS sessions for every transfer of one internet object, with the way it reaches
// the network (direct, a named proxy, or the environment's proxy settings).
#ifndef PELMORA_NET_INTERNAL_CURL_SESSION_H_
#define PELMORA_NET_INTERNAL_CURL_SESSION_H_

#include <curl/curl.h>

#include <cstdint>
#include <string>

namespace pelmora::net_internal {

// How a session reaches the network (the published access type numbers).
enum SessionAccess : int32_t {
  kAccessPreconfig = 0,  // the environment's http_proxy / https_proxy / no_proxy
  kAccessDirect = 1,     // no proxy, whatever the environment says
  kAccessNamedProxy = 2, // the session's proxy list
};

class CurlSession {
 public:
  // Opens the share handle. `agent` goes out as the User-Agent of every request. Raises 12004
  // when libcurl cannot be set up or is not built with OpenSSL (certificate checks need it).
  CurlSession(std::string agent, int32_t access, std::string proxy_list);
  ~CurlSession();
  CurlSession(const CurlSession&) = delete;
  CurlSession& operator=(const CurlSession&) = delete;

  // A nonzero number standing for the session in the object's handle property.
  uint32_t Handle() const { return handle_; }

  // Applies the session's settings (share, agent, proxy) to `easy`. Cookies are shared and
  // stored only when `cookies` is true.
  void Apply(CURL* easy, bool cookies, const std::string& scheme) const;

 private:
  CURLSH* share_ = nullptr;
  std::string agent_;
  int32_t access_;
  std::string proxy_list_;
  uint32_t handle_ = 0;
};

// The proxy a named proxy list gives for `scheme`: "host:port" lists serve every scheme;
// "http=a:1 https=b:2" lists serve the named scheme (falling back to an entry without a name).
// Empty when the list has no entry for the scheme.
std::string ProxyFor(const std::string& proxy_list, const std::string& scheme);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_CURL_SESSION_H_
