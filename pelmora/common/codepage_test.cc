#include "pelmora/common/codepage.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace pelmora {
namespace {

// Restores the code page a test changed.
class CodePageScope {
 public:
  CodePageScope() : saved_(AnsiCodePage()) {}
  ~CodePageScope() { SetAnsiCodePage(saved_); }

 private:
  std::string saved_;
};

// Conversions keep their converters open per thread: a conversion that met a character without
// an equivalent, or a change of code page, must not show in the next one.
TEST(CodePage, EachConversionStartsAfreshWhateverCameBefore) {
  CodePageScope scope;
  ASSERT_TRUE(SetAnsiCodePage("1252"));
  EXPECT_EQ(Utf8ToAnsi("Gr\xC3\xBC\xC3\x9F" "e \xE2\x82\xAC"), "Gr\xFC\xDF" "e \x80");
  EXPECT_EQ(Utf8ToAnsi("\xD0\x96 \xFF x"), "? ? x");  // Cyrillic Zhe, then an invalid byte
  EXPECT_EQ(Utf8ToAnsi("\xC3\xA9t\xC3\xA9"), "\xE9t\xE9");
  EXPECT_EQ(AnsiToUtf8("\x81\x80"), "?\xE2\x82\xAC");  // 0x81 is undefined in Windows-1252

  ASSERT_TRUE(SetAnsiCodePage("1251"));
  EXPECT_EQ(Utf8ToAnsi("\xD0\x96"), "\xC6");
  EXPECT_EQ(AnsiToUtf8("\xC6"), "\xD0\x96");
  ASSERT_TRUE(SetAnsiCodePage("1252"));
  EXPECT_EQ(AnsiToUtf8("\xC6"), "\xC3\x86");  // back to Windows-1252's AE
}

TEST(CodePage, ThreadsConvertAtTheSameTimeAlike) {
  CodePageScope scope;
  ASSERT_TRUE(SetAnsiCodePage("1252"));
  std::vector<std::thread> threads;
  std::vector<int> wrong(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([t, &wrong] {
      for (int i = 0; i < 500; ++i) {
        wrong[t] += Utf8ToAnsi("\xC3\xA9\xD0\x96") != "\xE9?";
        wrong[t] += AnsiToUtf8("\xE9") != "\xC3\xA9";
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

}  // namespace
}  // namespace pelmora
