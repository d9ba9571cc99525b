// Fuzzes URL canonicalisation and cracking: the canonical form fits its buffer and is stable
// (canonicalising it again changes nothing), and every cracked component is a piece of the input.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/net/internal/url_cracker.h"

using namespace pelmora::net_internal;

namespace {

bool Within(std::string_view whole, const std::string& part) {
  return part.empty() || whole.find(part) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  CanonicalResult canonical = CanonicalizeUrl(input);
  if (canonical.ok) {
    PELMORA_FUZZ_CHECK(canonical.url.size() <= kMaxCanonicalUrl);
    CanonicalResult again = CanonicalizeUrl(canonical.url);
    PELMORA_FUZZ_CHECK(again.ok && again.url == canonical.url);
  } else {
    PELMORA_FUZZ_CHECK(canonical.error == kErrorInsufficientBuffer);
  }
  CrackedUrl cracked = CrackUrl(input);
  if (!cracked.ok) {
    PELMORA_FUZZ_CHECK(cracked.error == kErrorUnrecognizedScheme);
    return 0;
  }
  PELMORA_FUZZ_CHECK(cracked.port >= 0 && cracked.port <= 65535);
  for (const std::string* part : {&cracked.scheme_text, &cracked.host, &cracked.user,
                                  &cracked.password, &cracked.extra}) {
    PELMORA_FUZZ_CHECK(Within(input, *part));
  }
  PELMORA_FUZZ_CHECK(cracked.scheme == kSchemeFile || Within(input, cracked.path));
  std::string document = WireDocument(cracked.path + cracked.extra);
  PELMORA_FUZZ_CHECK(!document.empty() && document[0] == '/');
  for (char c : document) PELMORA_FUZZ_CHECK(c > 0x20 && c < 0x7F);
  return 0;
}
