// Texts of the zip return codes, as the zip library printed them.
#include "pelmora/archive/archive_codes.h"

#include <array>

namespace pelmora::archive {

std::string_view ZipErrorText(int code) {
  static constexpr std::array<std::string_view, 21> kTexts = {
      "",
      "",
      "Unexpected end of zip file",
      "Zip file structure invalid",
      "Out of memory",
      "Internal logic error",
      "Entry too big to split",
      "Invalid comment format",
      "Zip file invalid or could not spawn unzip",
      "Interrupted",
      "Temporary file failure",
      "Input file read failure",
      "Nothing to do!",
      "Missing or empty zip file",
      "Output file write failure",
      "Could not create output file",
      "Invalid command arguments",
      "",
      "File not found or no read permission",
      "Not supported",
      "Attempt to read unsupported Zip64 archive",
  };
  if (code < 0 || code >= static_cast<int>(kTexts.size())) return {};
  return kTexts[static_cast<size_t>(code)];
}

}  // namespace pelmora::archive
