#include "pelmora/net/internal/url_cracker.h"

#include <array>
#include <cctype>
#include <vector>

namespace pelmora::net_internal {
namespace {

bool IsSchemeChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '+' || c == '-' || c == '.';
}

// The position of "://" when everything before it is a scheme name, else npos.
size_t SchemeSeparator(std::string_view url) {
  size_t pos = url.find("://");
  if (pos == 0 || pos == std::string_view::npos) return std::string_view::npos;
  for (size_t i = 0; i < pos; ++i) {
    if (!IsSchemeChar(url[i])) return std::string_view::npos;
  }
  return pos;
}

void AppendEscaped(std::string& out, unsigned char c) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  out += '%';
  out += kHex[c >> 4];
  out += kHex[c & 0x0F];
}

// Characters a canonical path never carries as they are.
bool IsUnsafePathChar(unsigned char c) {
  if (c <= 0x20 || c >= 0x7F) return true;
  static constexpr std::string_view kUnsafe = "\"<>{}|^`";
  return kUnsafe.find(static_cast<char>(c)) != std::string_view::npos;
}

std::string EscapePath(std::string_view path) {
  std::string out;
  out.reserve(path.size());
  for (char ch : path) {
    auto c = static_cast<unsigned char>(ch);
    if (IsUnsafePathChar(c)) {
      AppendEscaped(out, c);
    } else {
      out += ch;
    }
  }
  return out;
}

// Resolves "." and ".." segments of an absolute path. A ".." with nothing left to pop stays,
// so the root is never climbed over ("/.." stays "/..").
std::string ResolveDots(std::string_view path) {
  std::vector<std::string_view> out;
  std::string_view rest = path.substr(1);
  while (true) {
    size_t slash = rest.find('/');
    std::string_view segment = rest.substr(0, slash);
    bool last = slash == std::string_view::npos;
    if (segment == "." || (segment == ".." && !out.empty() && out.back() != "..")) {
      if (segment == "..") out.pop_back();
      if (last) out.push_back("");
    } else {
      out.push_back(segment);
    }
    if (last) break;
    rest = rest.substr(slash + 1);
  }
  std::string result;
  for (std::string_view segment : out) {
    result += '/';
    result += segment;
  }
  return result.empty() ? "/" : result;
}

// The canonical form of everything after "scheme://".
std::string CanonicalRest(std::string_view scheme, std::string rest) {
  for (char& c : rest) {
    if (c == '\\') c = '/';
  }
  size_t authority_end = rest.find_first_of("/?#");
  if (authority_end == std::string::npos) authority_end = rest.size();
  std::string_view tail = std::string_view(rest).substr(authority_end);
  size_t path_end = tail.find_first_of("?#");
  if (path_end == std::string_view::npos) path_end = tail.size();
  std::string path(tail.substr(0, path_end));
  if (path.empty()) path = "/";
  int32_t number = SchemeNumber(scheme);
  if (number == kSchemeHttp || number == kSchemeHttps) path = ResolveDots(path);
  return rest.substr(0, authority_end) + EscapePath(path) + std::string(tail.substr(path_end));
}

std::string WithoutTabsAndBreaks(std::string_view url) {
  std::string out;
  out.reserve(url.size());
  for (char c : url) {
    if (c != '\t' && c != '\r' && c != '\n') out += c;
  }
  while (!out.empty() && (out.back() == ' ' || out.back() == '\f' || out.back() == '\v')) {
    out.pop_back();
  }
  return out;
}

// Parses the port text: leading decimal digits, wrapped to 16 bits; no digits give 0.
int32_t ParsePort(std::string_view text) {
  uint32_t value = 0;
  for (char c : text) {
    if (c < '0' || c > '9') break;
    value = (value * 10 + static_cast<uint32_t>(c - '0')) & 0xFFFFFFFFu;
  }
  return static_cast<int32_t>(value & 0xFFFF);
}

int32_t DefaultPort(int32_t scheme) {
  switch (scheme) {
    case kSchemeHttp: return 80;
    case kSchemeHttps: return 443;
    case kSchemeFtp: return 21;
    default: return 0;
  }
}

void CrackAuthority(std::string_view authority, CrackedUrl& out) {
  size_t at = authority.rfind('@');
  if (at != std::string_view::npos) {
    std::string_view userinfo = authority.substr(0, at);
    size_t colon = userinfo.rfind(':');
    out.user = userinfo.substr(0, colon);
    if (colon != std::string_view::npos) out.password = userinfo.substr(colon + 1);
    authority = authority.substr(at + 1);
  }
  size_t host_end = authority.size();
  size_t search_from = 0;
  if (!authority.empty() && authority[0] == '[') {
    size_t close = authority.find(']');
    search_from = close == std::string_view::npos ? authority.size() : close + 1;
  }
  size_t colon = authority.find(':', search_from);
  if (colon != std::string_view::npos) {
    host_end = colon;
    out.port = ParsePort(authority.substr(colon + 1));
  } else {
    out.port = DefaultPort(out.scheme);
  }
  out.host = authority.substr(0, host_end);
}

// A file URL's path in the platform's form: "file:///c:/x" gives "c:\x".
std::string FilePath(std::string_view rest) {
  while (!rest.empty() && rest[0] == '/') rest.remove_prefix(1);
  std::string path(rest);
  for (char& c : path) {
    if (c == '/') c = '\\';
  }
  return path;
}

}  // namespace

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

int32_t SchemeNumber(std::string_view name) {
  static constexpr std::array<std::pair<std::string_view, int32_t>, 11> kSchemes = {{
      {"ftp", kSchemeFtp},
      {"gopher", kSchemeGopher},
      {"http", kSchemeHttp},
      {"https", kSchemeHttps},
      {"file", kSchemeFile},
      {"news", kSchemeNews},
      {"mailto", kSchemeMailto},
      {"socks", kSchemeSocks},
      {"javascript", kSchemeJavascript},
      {"vbscript", kSchemeVbscript},
      {"res", kSchemeRes},
  }};
  for (const auto& [text, number] : kSchemes) {
    if (EqualsIgnoringCase(text, name)) return number;
  }
  return kSchemeUnknown;
}

CanonicalResult CanonicalizeUrl(std::string_view url) {
  std::string text = WithoutTabsAndBreaks(url);
  size_t separator = SchemeSeparator(text);
  CanonicalResult result;
  if (separator == std::string::npos) {
    result.url = std::move(text);
  } else {
    std::string scheme = text.substr(0, separator);
    std::string rest = text.substr(separator + 3);
    if (SchemeNumber(scheme) == kSchemeFile) {
      // "file:///c:/x" loses the slash before the drive letter (only before a letter and a
      // colon, so that canonicalising the result again changes nothing).
      bool drive = rest.size() >= 3 && rest[0] == '/' &&
                   std::isalpha(static_cast<unsigned char>(rest[1])) != 0 && rest[2] == ':';
      if (drive) rest.erase(0, 1);
      result.url = scheme + "://" + rest;
    } else {
      result.url = scheme + "://" + CanonicalRest(scheme, std::move(rest));
    }
  }
  if (result.url.size() > kMaxCanonicalUrl) {
    result.url.clear();
    result.error = kErrorInsufficientBuffer;
    return result;
  }
  result.ok = true;
  return result;
}

CrackedUrl CrackUrl(std::string_view url) {
  CrackedUrl out;
  size_t colon = url.find(':');
  bool named = colon != std::string_view::npos && colon > 0;
  for (size_t i = 0; named && i < colon; ++i) named = IsSchemeChar(url[i]);
  if (!named) {
    out.error = kErrorUnrecognizedScheme;
    return out;
  }
  out.ok = true;
  out.scheme_text = url.substr(0, colon);
  out.scheme = SchemeNumber(out.scheme_text);
  std::string_view rest = url.substr(colon + 1);
  if (out.scheme == kSchemeFile) {
    out.path = FilePath(rest);
    return out;
  }
  if (rest.substr(0, 2) == "//") {
    rest.remove_prefix(2);
    size_t end = rest.find_first_of("/?#");
    if (end == std::string_view::npos) end = rest.size();
    CrackAuthority(rest.substr(0, end), out);
    rest.remove_prefix(end);
  }
  size_t extra = rest.find('?');
  if (extra == std::string_view::npos) extra = rest.find('#');
  out.path = rest.substr(0, extra);
  if (extra != std::string_view::npos) out.extra = rest.substr(extra);
  return out;
}

std::string WireDocument(std::string_view document) {
  document = document.substr(0, document.find('#'));
  std::string out;
  out.reserve(document.size() + 1);
  if (document.empty() || document[0] != '/') out += '/';
  for (char ch : document) {
    auto c = static_cast<unsigned char>(ch);
    if (c <= 0x20 || c >= 0x7F) {
      AppendEscaped(out, c);
    } else {
      out += ch;
    }
  }
  return out;
}

}  // namespace pelmora::net_internal
