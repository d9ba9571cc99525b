// LibraryFolder in a program linked with libpelmora.so: the folder of the loaded library. (The
// unit tests link the library's objects statically, where no such file is loaded.)
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "pelmora/common/system.h"
#include "pelmora/testing/scoped_env.h"

namespace pelmora {
namespace {

namespace fs = std::filesystem;

TEST(LibraryFolder, IsTheFolderOfTheLoadedLibrary) {
  testing::ScopedEnv home("PELMORA_HOME", std::nullopt);
  std::string folder = LibraryFolder();
  ASSERT_FALSE(folder.empty());
  EXPECT_NE(folder.back(), '/');
  bool found = false;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    found |= entry.path().filename().string().starts_with("libpelmora.so");
  }
  EXPECT_TRUE(found) << folder;
}

}  // namespace
}  // namespace pelmora
