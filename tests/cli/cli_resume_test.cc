// get -C against the real service: a download cut off on the way leaves its part beside the
// target and nothing under the target's name, and the next get -C asks for the rest only and
// gives the source's bytes; a part of a file that changed since is downloaded whole.
#include <filesystem>
#include <string>

#include "tests/cli/cli_service_fixture.h"
#include "tests/service/cut_relay.h"

namespace pelmora_cli_test {
namespace {

namespace fs = std::filesystem;
using pelmorad::testing::ReadFile;
using pelmorad::testing::WriteFile;

class CliResumeTest : public CliServiceTest {
 protected:
  static constexpr std::size_t kSize = 300000;

  void SetUp() override {
    CliServiceTest::SetUp();
    for (std::size_t i = 0; i < kSize; ++i) source_ += static_cast<char>((i * 13 + i / 1500) & 0xFF);
    WriteFile(service_.Drive('C') + "/big.bin", source_);
    fs::create_directory(Local("down"));
  }
  // get -C through a relay that loses the connection after `limit` bytes of the service's.
  ChildProcess::Result CutGet(std::size_t limit) {
    pelmorad::testing::CutRelay relay(service_.port(), limit);
    return ChildProcess({"admin", "--host", "127.0.0.1", "--port", std::to_string(relay.port()),
                         "get", "-C", "C:\\big.bin", Local("down/big.bin")},
                        env_)
        .Finish(kLimit);
  }
  std::string Part() const { return Local("down/.big.bin.pelmora-part"); }

  std::string source_;
};

TEST_F(CliResumeTest, AnInterruptedGetIsCompletedWithTheRestOnly) {
  ChildProcess::Result cut = CutGet(120000);
  EXPECT_NE(cut.status, 0);
  EXPECT_FALSE(fs::exists(Local("down/big.bin"))) << "no part under the target's name";
  std::string kept = ReadFile(Part());
  ASSERT_GT(kept.size(), 0u) << cut.err;
  ASSERT_LT(kept.size(), kSize);
  ChildProcess::Result resumed = Admin({"-v", "get", "-C", "C:\\big.bin", Local("down/big.bin")});
  ASSERT_EQ(resumed.status, 0) << resumed.err;
  EXPECT_EQ(ReadFile(Local("down/big.bin")), source_);
  EXPECT_FALSE(fs::exists(Part())) << "the part became the target";
  EXPECT_NE(resumed.err.find("resuming C:\\big.bin from byte " + std::to_string(kept.size())),
            std::string::npos)
      << resumed.err;
  EXPECT_NE(service_.ErrorOutput().find("code=44 path=\"C:\\\\big.bin from " +
                                        std::to_string(kept.size()) + "\" result=0"),
            std::string::npos);
}

TEST_F(CliResumeTest, APartOfAChangedFileIsDownloadedWhole) {
  // A part as a killed get -C leaves it, then the file is written again after it.
  WriteFile(Part(), std::string(5000, 'p'));
  fs::last_write_time(Part(), fs::file_time_type::clock::now() - std::chrono::hours(2));
  ChildProcess::Result whole = Admin({"-v", "get", "-C", "C:\\big.bin", Local("down/big.bin")});
  ASSERT_EQ(whole.status, 0) << whole.err;
  EXPECT_EQ(ReadFile(Local("down/big.bin")), source_);
  EXPECT_EQ(whole.err.find("resuming"), std::string::npos) << whole.err;
  EXPECT_FALSE(fs::exists(Part()));
}

TEST_F(CliResumeTest, AGetWithoutResumeLeavesNoPartBehind) {
  pelmorad::testing::CutRelay relay(service_.port(), 120000);
  ChildProcess::Result cut =
      ChildProcess({"admin", "--host", "127.0.0.1", "--port", std::to_string(relay.port()), "get",
                    "C:\\big.bin", Local("down/big.bin")},
                   env_)
          .Finish(kLimit);
  EXPECT_NE(cut.status, 0);
  EXPECT_TRUE(Names(Local("down")).empty()) << "nothing kept without -C";
}

}  // namespace
}  // namespace pelmora_cli_test
