#include "pelmorad/pe_version.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace pelmorad {
namespace {

using Image = std::vector<uint8_t>;

// Offsets in the images BuildImage makes.
constexpr size_t kPeHeader = 0x80;
constexpr size_t kOptionalHeader = kPeHeader + 24;
constexpr size_t kResourceFile = 0x200;  // file offset of the resource section
constexpr uint32_t kResourceRva = 0x1000;
constexpr size_t kNamesDir = 0x18, kLanguagesDir = 0x30, kDataEntry = 0x48, kVersionBlock = 0x58;
constexpr size_t kBlockSize = 92;  // header, key, padding, fixed file information

void Put16(Image& image, size_t at, uint32_t value) {
  image[at] = static_cast<uint8_t>(value);
  image[at + 1] = static_cast<uint8_t>(value >> 8);
}

void Put32(Image& image, size_t at, uint32_t value) {
  Put16(image, at, value & 0xFFFF);
  Put16(image, at + 2, value >> 16);
}

struct ImageOptions {
  bool pe32_plus = false;
  uint32_t version_ms = 0x000A0000;  // 10.0
  uint32_t version_ls = 0x4A610001;  // 19041.1
  uint32_t name_id = 1;
};

size_t OptionalSize(bool pe32_plus) { return pe32_plus ? 240 : 224; }
size_t SectionTable(bool pe32_plus) { return kOptionalHeader + OptionalSize(pe32_plus); }

// A one-directory resource level at `at` with one id entry.
void PutDirectory(Image& image, size_t at, uint32_t id, uint32_t offset) {
  Put16(image, at + 14, 1);
  Put32(image, at + 16, id);
  Put32(image, at + 20, offset);
}

void PutVersionBlock(Image& image, const ImageOptions& options) {
  size_t at = kResourceFile + kVersionBlock;
  Put16(image, at, kBlockSize);
  Put16(image, at + 2, 52);
  std::u16string key = u"VS_VERSION_INFO";
  for (size_t i = 0; i < key.size(); ++i) Put16(image, at + 6 + 2 * i, key[i]);
  Put32(image, at + 40, 0xFEEF04BD);
  Put32(image, at + 44, 0x00010000);
  Put32(image, at + 48, options.version_ms);
  Put32(image, at + 52, options.version_ls);
}

// A minimal PE image with one section holding a resource tree whose only resource is the version
// resource, which ends the file.
Image BuildImage(const ImageOptions& options = {}) {
  Image image(kResourceFile + kVersionBlock + kBlockSize);
  image[0] = 'M', image[1] = 'Z';
  Put32(image, 0x3C, kPeHeader);
  image[kPeHeader] = 'P', image[kPeHeader + 1] = 'E';
  Put16(image, kPeHeader + 4, options.pe32_plus ? 0x8664 : 0x14C);
  Put16(image, kPeHeader + 6, 1);
  Put16(image, kPeHeader + 20, OptionalSize(options.pe32_plus));
  Put16(image, kOptionalHeader, options.pe32_plus ? 0x20B : 0x10B);
  size_t directories = kOptionalHeader + (options.pe32_plus ? 112 : 96);
  Put32(image, directories - 4, 16);
  Put32(image, directories + 16, kResourceRva);
  Put32(image, directories + 20, kVersionBlock + kBlockSize);
  size_t section = SectionTable(options.pe32_plus);
  std::copy_n(".rsrc", 5, image.begin() + section);
  Put32(image, section + 8, kVersionBlock + kBlockSize);
  Put32(image, section + 12, kResourceRva);
  Put32(image, section + 16, kVersionBlock + kBlockSize);
  Put32(image, section + 20, kResourceFile);
  PutDirectory(image, kResourceFile, 16, 0x80000000 | kNamesDir);
  PutDirectory(image, kResourceFile + kNamesDir, options.name_id, 0x80000000 | kLanguagesDir);
  PutDirectory(image, kResourceFile + kLanguagesDir, 0x409, kDataEntry);
  Put32(image, kResourceFile + kDataEntry, kResourceRva + kVersionBlock);
  Put32(image, kResourceFile + kDataEntry + 4, kBlockSize);
  PutVersionBlock(image, options);
  return image;
}

TEST(ParseFileVersion, GivesTheFixedFileVersionOfPe32AndPe32PlusImages) {
  struct Case {
    ImageOptions options;
    std::string version;
  };
  const Case kCases[] = {
      {{false, 0x000A0000, 0x4A610001, 1}, "10.0.19041.1"},
      {{true, 0x000A0000, 0x4A610001, 1}, "10.0.19041.1"},
      {{false, 0, 0, 1}, "0.0.0.0"},
      {{true, 0xFFFFFFFF, 0xFFFFFFFF, 1}, "65535.65535.65535.65535"},
      {{false, 0x00010002, 0x00030004, 7}, "1.2.3.4"},  // a version resource not named 1
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.version);
    EXPECT_EQ(ParseFileVersion(BuildImage(c.options)), c.version);
  }
}

TEST(ParseFileVersion, GivesEmptyForEveryTruncation) {
  Image image = BuildImage();
  for (size_t size = 0; size < image.size(); ++size) {
    ASSERT_EQ(ParseFileVersion(std::span(image.data(), size)), "") << size;
  }
}

TEST(ParseFileVersion, GivesEmptyForDamagedOrHostileImages) {
  const size_t section = SectionTable(false);
  const size_t block = kResourceFile + kVersionBlock;
  struct Case {
    const char* what;
    size_t at;
    uint32_t value;
    bool wide;  // 32 bits, else 16
  };
  const Case kCases[] = {
      {"no MZ", 0, 'M' | 'X' << 8, false},
      {"PE header far beyond the end", 0x3C, 0xFFFFFFF0, true},
      {"no PE signature", kPeHeader, 'P' | 'F' << 8, false},
      {"too many sections", kPeHeader + 6, 97, false},
      {"no sections", kPeHeader + 6, 0, false},
      {"optional header too short", kPeHeader + 20, 100, false},
      {"optional header beyond the end", kPeHeader + 20, 0xFFFF, false},
      {"unknown optional header", kOptionalHeader, 0x107, false},
      {"no resource directory entry", kOptionalHeader + 92, 2, true},
      {"no resources", kOptionalHeader + 112, 0, true},
      {"resources at the top of the address space", kOptionalHeader + 112, 0xFFFFFFF0, true},
      {"section shorter than the resource", section + 16, kVersionBlock + kBlockSize - 1, true},
      {"section beyond the end", section + 20, 0xFFFFFF00, true},
      {"no version type", kResourceFile + 16, 3, true},
      {"version type is no directory", kResourceFile + 20, kNamesDir, true},
      {"absurd entry count", kResourceFile + 14, 0xFFFF, false},
      {"named entries only", kResourceFile + 12, 1, false},
      {"names level is no directory", kResourceFile + kNamesDir + 20, kLanguagesDir, true},
      {"leaf is a directory", kResourceFile + kLanguagesDir + 20, 0x80000000, true},
      {"leaf beyond the section", kResourceFile + kLanguagesDir + 20, 0x7FFFFFF0, true},
      {"data outside every section", kResourceFile + kDataEntry, 0x5000, true},
      {"data too short", kResourceFile + kDataEntry + 4, kBlockSize - 1, true},
      {"block length too short", block, kBlockSize - 1, false},
      {"value too short", block + 2, 51, false},
      {"wrong key", block + 6 + 28, 'P', false},
      {"key without terminator", block + 6 + 30, 'X', false},
      {"wrong signature", block + 40, 0xFEEF04BE, true},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.what);
    Image image = BuildImage();
    (c.wide ? Put32 : Put16)(image, c.at, c.value);
    EXPECT_EQ(ParseFileVersion(image), "");
  }
}

TEST(ParseFileVersion, ACyclicResourceTreeEndsTheWalk) {
  Image image = BuildImage();
  Put32(image, kResourceFile + kNamesDir + 20, 0x80000000);  // names level points at the root
  EXPECT_EQ(ParseFileVersion(image), "");
}

// A temporary file removed when it goes out of scope.
class TempFile {
 public:
  TempFile() : fd_(fileno(file_)) {}
  ~TempFile() { std::fclose(file_); }
  int fd() const { return fd_; }
  void WriteAt(const Image& bytes, off_t offset) {
    ASSERT_EQ(pwrite(fd_, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
  }

 private:
  std::FILE* file_ = std::tmpfile();
  int fd_;
};

TEST(ReadFileVersion, ReadsTheVersionOfAnImageFile) {
  TempFile file;
  file.WriteAt(BuildImage({true, 0x00050006, 0x00070008, 1}), 0);
  EXPECT_EQ(ReadFileVersion(file.fd()), "5.6.7.8");
}

TEST(ReadFileVersion, ReadsOnlyTheBytesItNeedsOfAHugeSparseImage) {
  Image image = BuildImage();
  const size_t section = SectionTable(false);
  const uint32_t far = 0xC0000000;  // the resource section 3 GiB into the file
  Put32(image, section + 20, far);
  TempFile file;
  file.WriteAt(Image(image.begin(), image.begin() + kResourceFile), 0);
  file.WriteAt(Image(image.begin() + kResourceFile, image.end()), far);
  EXPECT_EQ(ReadFileVersion(file.fd()), "10.0.19041.1");
}

TEST(ReadFileVersion, GivesEmptyForOtherFilesAndBadDescriptors) {
  TempFile text;
  text.WriteAt(Image{'M', 'Z', ' ', 'i', 's', ' ', 'n', 'o', 't', '\n'}, 0);
  EXPECT_EQ(ReadFileVersion(text.fd()), "");
  TempFile empty;
  EXPECT_EQ(ReadFileVersion(empty.fd()), "");
  EXPECT_EQ(ReadFileVersion(-1), "");
  int folder = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_EQ(ReadFileVersion(folder), "");
  close(folder);
}

}  // namespace
}  // namespace pelmorad
