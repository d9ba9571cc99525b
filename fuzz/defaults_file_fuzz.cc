// Fuzzes the tool's defaults file reader: any text either gives settings or is refused with the
// tool's usage error naming the file, never another exception or a crash; what it gives names
// only sections it read, and its relative file paths are taken from the file's folder.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "fuzz/fuzz_check.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/defaults_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto getenv = [](const char* name) -> const char* {
    return std::string_view(name) == "HOME" ? "/home/fuzz" : nullptr;
  };
  pelmora_tool::DefaultsFile file;
  try {
    file = pelmora_tool::ParseDefaultsFile(text, "/home/fuzz/.config/pelmora/config.toml", getenv);
  } catch (const pelmora_tool::CommandError& error) {
    PELMORA_FUZZ_CHECK(std::string_view(error.what()).starts_with("/home/fuzz/.config/pelmora/"));
    return 0;
  }
  for (const auto& [alias, section] : file.hosts) {
    PELMORA_FUZZ_CHECK(file.Section(alias) == &section);
    if (section.password_file) PELMORA_FUZZ_CHECK(section.password_file->starts_with("/"));
  }
  return 0;
}
