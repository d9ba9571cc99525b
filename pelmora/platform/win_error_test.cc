#include "pelmora/platform/win_error.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "pelmora/common/error_texts.h"

namespace pelmora::platform {
namespace {

struct Row {
  int error;
  int32_t code;
};

// Every row of the table, each number one with a system message of its own.
constexpr Row kRows[] = {
    {ENOTDIR, 3},        {EMFILE, 4},  {ENFILE, 4},     {EACCES, 5},   {EPERM, 5},
    {EROFS, 5},          {EISDIR, 5},  {EXDEV, 5},      {ELOOP, 5},    {ENXIO, 5},
    {ENODEV, 5},         {ENOMEM, 8},  {EAGAIN, 8},     {EBUSY, 32},   {ETXTBSY, 32},
    {EEXIST, 80},        {EINVAL, 87}, {ENOSPC, 112},   {EDQUOT, 112}, {ENOTEMPTY, 145},
    {ENAMETOOLONG, 206}, {EPROTO, 1},  {ECONNRESET, 1}, {0, 0},
};

TEST(Win32FromErrno, EveryRowGivesANumberWithASystemMessage) {
  for (const Row& row : kRows) {
    for (Missing missing : {Missing::kFile, Missing::kPath}) {
      EXPECT_EQ(Win32FromErrno(row.error, missing), row.code) << row.error;
    }
    EXPECT_EQ(DescribeError(row.code).find("no description"), std::string::npos) << row.code;
  }
  EXPECT_EQ(Win32FromErrno(ENOENT, Missing::kFile), 2);
  EXPECT_EQ(Win32FromErrno(ENOENT, Missing::kPath), 3);
  EXPECT_EQ(Win32FromErrno(ENOENT), 2);
}

TEST(HresultFromErrno, IsTheWin32NumberUnderFacility7) {
  EXPECT_EQ(HresultFromErrno(0), 0u);
  EXPECT_EQ(HresultFromErrno(ENOENT), 0x80070002u);
  EXPECT_EQ(HresultFromErrno(ENOENT, Missing::kPath), 0x80070003u);
  EXPECT_EQ(HresultFromErrno(EACCES), 0x80070005u);
  EXPECT_EQ(HresultFromErrno(EEXIST), 0x80070050u);
  EXPECT_EQ(HresultFromErrno(ENOSPC), 0x80070070u);
  EXPECT_EQ(HresultFromErrno(EPROTO), 0x80070001u);
  EXPECT_EQ(HresultFromWin32(1326), 0x8007052Eu);
}

}  // namespace
}  // namespace pelmora::platform
