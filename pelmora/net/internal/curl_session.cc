#include "pelmora/net/internal/curl_session.h"

#include <atomic>
#include <sstream>
#include <string_view>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"

namespace pelmora::net_internal {
namespace {

// Initialises libcurl once per process; true when it is usable with OpenSSL.
bool CurlReady() {
  static bool ready = [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) return false;
    const curl_version_info_data* info = curl_version_info(CURLVERSION_NOW);
    return info != nullptr && info->ssl_version != nullptr &&
           std::string_view(info->ssl_version).find("OpenSSL") != std::string_view::npos;
  }();
  return ready;
}

uint32_t NextHandle() {
  static std::atomic<uint32_t> next{0x00CC0004};
  return next.fetch_add(4);
}

}  // namespace

CurlSession::CurlSession(std::string agent, int32_t access, std::string proxy_list)
    : agent_(std::move(agent)), access_(access), proxy_list_(std::move(proxy_list)) {
  if (!CurlReady() || (share_ = curl_share_init()) == nullptr) {
    throw Error(12004, DescribeError(12004));
  }
  for (curl_lock_data data : {CURL_LOCK_DATA_COOKIE, CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_DNS,
                              CURL_LOCK_DATA_SSL_SESSION}) {
    curl_share_setopt(share_, CURLSHOPT_SHARE, data);
  }
  handle_ = NextHandle();
}

CurlSession::~CurlSession() { curl_share_cleanup(share_); }

void CurlSession::Apply(CURL* easy, bool cookies, const std::string& scheme) const {
  curl_easy_setopt(easy, CURLOPT_USERAGENT, agent_.c_str());
  if (cookies) {
    curl_easy_setopt(easy, CURLOPT_SHARE, share_);
    curl_easy_setopt(easy, CURLOPT_COOKIEFILE, "");
  }
  if (access_ == kAccessDirect) {
    curl_easy_setopt(easy, CURLOPT_PROXY, "");
  } else if (access_ == kAccessNamedProxy) {
    curl_easy_setopt(easy, CURLOPT_PROXY, ProxyFor(proxy_list_, scheme).c_str());
  }
}

std::string ProxyFor(const std::string& proxy_list, const std::string& scheme) {
  std::istringstream entries(proxy_list);
  std::string entry;
  std::string unnamed;
  while (entries >> entry) {
    if (!entry.empty() && entry.back() == ';') entry.pop_back();
    size_t equals = entry.find('=');
    if (equals == std::string::npos) {
      if (unnamed.empty()) unnamed = entry;
    } else if (entry.compare(0, equals, scheme) == 0) {
      return entry.substr(equals + 1);
    }
  }
  return unnamed;
}

}  // namespace pelmora::net_internal
