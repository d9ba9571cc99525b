// Fuzzes the unzip engine's reading of entry data (whole-entry inflation, its fallback to the
// streaming decoder, CRC and size checks, the expansion limits) over the input taken as an
// archive, tested and extracted into a scratch folder of this process.
#include <stdlib.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

#include "fuzz/fuzz_check.h"
#include "pelmora/archive/unzip_engine.h"

namespace archive = pelmora::archive;

namespace {

// A scratch folder for the whole process, removed at exit.
class Scratch {
 public:
  Scratch() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "pelmora-fuzz-entries-XXXXXX").string();
    if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
  }
  ~Scratch() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

bool KnownCode(int code) {
  switch (code) {
    case archive::kUnzipOk:
    case archive::kUnzipWarn:
    case archive::kUnzipErr:
    case archive::kUnzipBadErr:
    case archive::kUnzipMem2:
    case archive::kUnzipNoZip:
    case archive::kUnzipFind:
    case archive::kUnzipDisk:
    case archive::kUnzipUnsupported:
    case archive::kUnzipBadPassword:
      return true;
    default:
      return false;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Scratch scratch;
  if (scratch.Path().empty()) return 0;
  std::string zip = scratch.Path() + "/input.zip";
  std::string out = scratch.Path() + "/out";
  std::ofstream(zip, std::ios::binary).write(reinterpret_cast<const char*>(data),
                                             static_cast<std::streamsize>(size));
  archive::UnzipCallbacks callbacks;
  callbacks.print = [](std::string_view) { return 0; };
  callbacks.replace = [](std::string&) { return archive::kReplaceYes; };
  callbacks.password = [](std::string&, std::string_view, std::string_view) {
    return archive::kPasswordCancel;
  };
  archive::ExtractLimits limits;
  limits.max_total_bytes = 64 << 20;  // a fuzzed archive may claim anything
  for (int test : {1, 0}) {
    archive::DecompressionControl dcl;
    dcl.zip_file_name = zip;
    dcl.test = test;
    dcl.extract_dir = out;
    dcl.honor_directories = 1;
    dcl.overwrite = 1;
    int code = archive::RunUnzip(dcl, callbacks, {}, limits);
    PELMORA_FUZZ_CHECK(KnownCode(code));
  }
  std::error_code ignored;
  std::filesystem::remove_all(out, ignored);
  return 0;
}
