#include "pelmora/common/codepage.h"

#include <iconv.h>
#include <locale.h>
#include <wctype.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

#include "pelmora/platform/utf8.h"

namespace pelmora {
namespace {

// The bytes one step over UTF-8 takes from `lead`: its sequence, or 1 for a stray byte.
size_t Utf8Step(unsigned char lead) {
  return std::max<size_t>(platform::Utf8SequenceLength(lead), 1);
}

// Turns "1252" into "CP1252"; names pass through.
std::string IconvName(std::string_view code_page) {
  bool digits = !code_page.empty();
  for (char c : code_page) digits = digits && c >= '0' && c <= '9';
  if (!digits) return std::string(code_page);
  if (code_page == "65001") return "UTF-8";
  return "CP" + std::string(code_page);
}

bool Supported(const std::string& name) {
  iconv_t cd = iconv_open("UTF-8", name.c_str());
  if (cd == reinterpret_cast<iconv_t>(-1)) return false;
  iconv_close(cd);
  return true;
}

struct CodePageSetting {
  std::shared_mutex mutex;
  std::string name;
  CodePageSetting() {
    const char* env = std::getenv("PELMORA_ANSI_CODEPAGE");
    std::string from_env = env ? IconvName(env) : std::string();
    name = !from_env.empty() && Supported(from_env) ? from_env : "CP1252";
  }
};

CodePageSetting& Setting() {
  static CodePageSetting setting;
  return setting;
}

// The iconv descriptors of this thread, one per pair of encodings, kept open: opening one loads
// the code page's conversion module, which costs far more than converting a short text (the
// service converts every path argument). Each is reset to its initial state before it is lent.
class Converters {
 public:
  Converters() = default;
  Converters(const Converters&) = delete;
  Converters& operator=(const Converters&) = delete;
  ~Converters() {
    for (Open& open : open_) iconv_close(open.cd);
  }

  // The descriptor from `from` to `to`, or (iconv_t)-1 when iconv has no such conversion.
  iconv_t Get(const std::string& to, const std::string& from) {
    for (Open& open : open_) {
      if (open.to == to && open.from == from) {
        iconv(open.cd, nullptr, nullptr, nullptr, nullptr);
        return open.cd;
      }
    }
    iconv_t cd = iconv_open(to.c_str(), from.c_str());
    if (cd == kNone) return cd;
    if (open_.size() == kMostOpen) {  // a program that changes code pages often
      iconv_close(open_.front().cd);
      open_.erase(open_.begin());
    }
    open_.push_back({to, from, cd});
    return cd;
  }

  static inline const iconv_t kNone = reinterpret_cast<iconv_t>(-1);

 private:
  static constexpr std::size_t kMostOpen = 8;
  struct Open {
    std::string to;
    std::string from;
    iconv_t cd;
  };
  std::vector<Open> open_;
};

iconv_t ConverterFor(const std::string& to, const std::string& from) {
  thread_local Converters converters;
  return converters.Get(to, from);
}

// Converts with iconv, replacing each input unit it cannot convert by `replacement` and skipping
// `skip(input)` bytes of input for it.
template <typename Skip>
std::string Convert(const std::string& to, const std::string& from, std::string_view input,
                    std::string_view replacement, Skip skip) {
  iconv_t conv = ConverterFor(to, from);
  if (conv == Converters::kNone) return std::string(input);
  std::string out;
  out.reserve(input.size() * 2 + 8);
  char* in_ptr = const_cast<char*>(input.data());
  size_t in_left = input.size();
  char buffer[4096];
  while (in_left > 0) {
    char* out_ptr = buffer;
    size_t out_left = sizeof(buffer);
    size_t rc = iconv(conv, &in_ptr, &in_left, &out_ptr, &out_left);
    int err = errno;
    out.append(buffer, out_ptr - buffer);
    if (rc != static_cast<size_t>(-1)) break;
    if (err == E2BIG) continue;
    // EILSEQ or EINVAL: an input unit that has no equivalent or is cut short.
    out.append(replacement);
    size_t n = std::min(in_left, skip(std::string_view(in_ptr, in_left)));
    in_ptr += n;
    in_left -= n;
  }
  return out;
}

// Appends the UTF-8 form of `c`.
void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// Decodes the well-formed sequence of `n` bytes at `p`; false for a malformed one.
bool DecodeUtf8(const unsigned char* p, size_t n, char32_t& c) {
  if (n == 1) return false;
  c = p[0] & (0x7F >> n);
  for (size_t i = 1; i < n; ++i) {
    if ((p[i] & 0xC0) != 0x80) return false;
    c = (c << 6) | (p[i] & 0x3F);
  }
  static constexpr char32_t kMinimum[] = {0, 0, 0x80, 0x800, 0x10000};
  return c >= kMinimum[n] && c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

// The lower-case form of a character beyond ASCII: the Unicode tables of the C.UTF-8 locale, or
// Latin-1's own rule where that locale is missing.
char32_t LowerBeyondAscii(char32_t c) {
  static const locale_t utf8 = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
  if (utf8 != static_cast<locale_t>(nullptr)) {
    return static_cast<char32_t>(towlower_l(static_cast<wint_t>(c), utf8));
  }
  bool latin1_upper = c >= 0xC0 && c <= 0xDE && c != 0xD7;
  return latin1_upper ? c + 0x20 : c;
}

}  // namespace

std::string FoldCase(std::string_view utf8) {
  std::string out;
  out.reserve(utf8.size());
  const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
  for (size_t i = 0; i < utf8.size();) {
    unsigned char lead = bytes[i];
    if (lead < 0x80) {
      out += static_cast<char>(lead >= 'A' && lead <= 'Z' ? lead + ('a' - 'A') : lead);
      ++i;
      continue;
    }
    size_t n = std::min(Utf8Step(lead), utf8.size() - i);
    char32_t c = 0;
    if (!DecodeUtf8(bytes + i, n, c)) {
      out += static_cast<char>(lead);
      ++i;
      continue;
    }
    AppendUtf8(out, LowerBeyondAscii(c));
    i += n;
  }
  return out;
}

bool EqualsFolded(std::string_view a, std::string_view b) { return FoldCase(a) == FoldCase(b); }

bool SetAnsiCodePage(std::string_view code_page) {
  std::string name = IconvName(code_page);
  if (name.empty() || !Supported(name)) return false;
  std::unique_lock lock(Setting().mutex);
  Setting().name = name;
  return true;
}

std::string AnsiCodePage() {
  std::shared_lock lock(Setting().mutex);
  return Setting().name;
}

std::string AnsiToUtf8(std::string_view ansi) {
  return Convert("UTF-8", AnsiCodePage(), ansi, "?", [](std::string_view rest) {
    // A lead byte of a double-byte code page may be cut short; skip one byte either way.
    return size_t{1};
  });
}

std::string Utf8ToAnsi(std::string_view utf8) {
  return Convert(AnsiCodePage(), "UTF-8", utf8, "?", [](std::string_view rest) {
    return Utf8Step(static_cast<unsigned char>(rest[0]));
  });
}

std::string Utf8ToUtf16Le(std::string_view utf8) {
  return Convert("UTF-16LE", "UTF-8", utf8, std::string_view("\xFD\xFF", 2), [](std::string_view) {
    return size_t{1};
  });
}

std::string Utf16LeToUtf8(std::string_view utf16le) {
  return Convert("UTF-8", "UTF-16LE", utf16le, "\xEF\xBF\xBD", [](std::string_view) {
    return size_t{2};
  });
}

size_t Utf16Length(std::string_view utf8) {
  size_t units = 0;
  for (size_t i = 0; i < utf8.size();) {
    size_t n = Utf8Step(static_cast<unsigned char>(utf8[i]));
    units += n == 4 ? 2 : 1;
    i += n;
  }
  return units;
}

}  // namespace pelmora
