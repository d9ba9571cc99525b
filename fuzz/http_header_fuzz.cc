// Fuzzes the response header block: the input is split into lines as the transfer receives them;
// the raw block is well formed and every value found by name is a piece of the input.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "pelmora/net/internal/http_headers.h"

using pelmora::net_internal::ResponseHeaders;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view input(reinterpret_cast<const char*>(data), size);
  ResponseHeaders headers;
  std::string_view rest = input;
  while (!rest.empty()) {
    size_t end = rest.find('\n');
    end = end == std::string_view::npos ? rest.size() : end + 1;
    headers.AddLine(rest.substr(0, end));
    rest.remove_prefix(end);
  }
  std::string raw = headers.Raw();
  if (!raw.empty()) {
    PELMORA_FUZZ_CHECK(raw.size() >= 4 && raw.compare(raw.size() - 4, 4, "\r\n\r\n") == 0);
  }
  PELMORA_FUZZ_CHECK(headers.Status() >= 0 && headers.Status() <= 999);
  size_t colon = input.find(':');
  if (colon != std::string_view::npos) {
    size_t start = input.rfind('\n', colon);
    start = start == std::string_view::npos ? 0 : start + 1;
    std::string_view name = input.substr(start, colon - start);
    for (size_t index = 0; index < 3; ++index) {
      std::optional<std::string> value = headers.Find(name, index);
      if (value) PELMORA_FUZZ_CHECK(input.find(*value) != std::string_view::npos);
    }
  }
  return 0;
}
