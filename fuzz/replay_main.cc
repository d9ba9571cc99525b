// Replays fuzz seeds without libFuzzer: every argument is a file or a folder of files, each fed
// once to LLVMFuzzerTestOneInput. Exits 1 when an argument cannot be read or holds no seed, so a
// missing corpus fails its test instead of passing silently; a crash in the target aborts.
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool Replay(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) return false;
  std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path path(argv[i]);
    std::vector<std::filesystem::path> files;
    std::error_code error;
    if (std::filesystem::is_directory(path, error)) {
      for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
        if (entry.is_regular_file()) files.push_back(entry.path());
      }
    } else {
      files.push_back(path);
    }
    for (const auto& file : files) {
      if (!Replay(file)) {
        std::cerr << "cannot read " << file << '\n';
        return 1;
      }
      ++replayed;
    }
  }
  std::cout << "replayed " << replayed << " seeds\n";
  return replayed > 0 ? 0 : 1;
}
