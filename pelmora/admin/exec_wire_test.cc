// The extended command exchange's wire units: exact bytes of what each end builds, the frames a
// reader refuses, reassembly from any split, and the run request's two forms.
#include "pelmora/admin/exec_wire.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pelmora::admin {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(ExecWire, BuildsTheDocumentedBytes) {
  EXPECT_EQ(BuildExecGrant(ExecFrameKind::kGrant, 1 << 20),
            (Bytes{0x03, 0, 0, 0, 4, 0, 0, 0, 0x00, 0x00, 0x10, 0x00}));
  EXPECT_EQ(BuildExecExit({ExecOutcome::kSignalled, 15}),
            (Bytes{0x14, 0, 0, 0, 12, 0, 0, 0, 1, 0, 0, 0, 15, 0, 0, 0, 0, 0, 0, 0}));
  Bytes block = BuildRequestBlock(kExecRunCode, ExecRequestArguments({.arguments = {"cat"}}));
  EXPECT_EQ(Bytes(block.begin(), block.begin() + 26),
            (Bytes{41, 3, 4, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 'c', 'a', 't',
                   0}));
  EXPECT_EQ(RequestBlockTotal(ExecRequestArguments({.arguments = {"cat"}})), 26);
}

TEST(ExecWire, ShellStatusFollowsTheShell) {
  EXPECT_EQ((ExecExit{ExecOutcome::kExited, 3}).ShellStatus(), 3);
  EXPECT_EQ((ExecExit{ExecOutcome::kSignalled, 9}).ShellStatus(), 137);
  EXPECT_EQ((ExecExit{ExecOutcome::kTimedOut, 9}).ShellStatus(), 137);
}

TEST(ExecWire, ReaderReassemblesFramesFromAnySplit) {
  Bytes stream = BuildExecFrame(ExecFrameKind::kOutput, Bytes{'a', 'b', 'c'});
  Bytes exit = BuildExecExit({ExecOutcome::kExited, 0});
  stream.insert(stream.end(), exit.begin(), exit.end());
  for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
    ExecFrameReader reader(ExecPeer::kService);
    std::vector<ExecFrame> frames;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      std::size_t size = std::min(piece, stream.size() - at);
      reader.Append(std::span(stream).subspan(at, size));
      while (auto frame = reader.Next()) frames.push_back(*frame);
    }
    ASSERT_EQ(frames.size(), 2u) << piece;
    EXPECT_EQ(frames[0].payload, (Bytes{'a', 'b', 'c'}));
    EXPECT_EQ(ParseExecExit(frames[1].payload), (ExecExit{ExecOutcome::kExited, 0}));
    EXPECT_EQ(reader.Pending(), 0u);
  }
}

TEST(ExecWire, ReaderRefusesMalformedFrames) {
  struct Case {
    const char* what;
    ExecPeer sender;
    Bytes bytes;
  };
  const Case cases[] = {
      {"reserved byte", ExecPeer::kClient, {0x01, 0, 1, 0, 1, 0, 0, 0, 'x'}},
      {"service kind from the client", ExecPeer::kClient, {0x11, 0, 0, 0, 1, 0, 0, 0, 'x'}},
      {"client kind from the service", ExecPeer::kService, {0x01, 0, 0, 0, 1, 0, 0, 0, 'x'}},
      {"empty data", ExecPeer::kService, {0x11, 0, 0, 0, 0, 0, 0, 0}},
      {"data too long", ExecPeer::kService, {0x11, 0, 0, 0, 0x01, 0x00, 0x01, 0x00}},
      {"negative length", ExecPeer::kClient, {0x01, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF}},
      {"grant of 2 bytes", ExecPeer::kClient, {0x03, 0, 0, 0, 2, 0, 0, 0, 1, 0}},
      {"done with a payload", ExecPeer::kClient, {0x04, 0, 0, 0, 1, 0, 0, 0, 0}},
      {"short exit", ExecPeer::kService, {0x14, 0, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const Case& c : cases) {
    ExecFrameReader reader(c.sender);
    reader.Append(c.bytes);
    EXPECT_FALSE(reader.Next().has_value()) << c.what;
    EXPECT_TRUE(reader.Broken()) << c.what;
  }
}

TEST(ExecWire, RunRequestRoundTripsAndRefusesWhatCannotRun) {
  for (const ExecRequest& request :
       {ExecRequest{.command_line = "printf '%s' 'Привет'", .timeout = 5000},
        ExecRequest{.arguments = {"printf", "%s|", "", "a b"}, .timeout = -1}}) {
    auto block = ParseRequestBlock(BuildRequestBlock(kExecRunCode, ExecRequestArguments(request)));
    ASSERT_TRUE(block);
    EXPECT_EQ(ParseExecRequest(*block), request);
  }
  auto refused = [](std::int32_t flags, Bytes command) {
    RequestBlock block{kExecRunCode, {{static_cast<std::uint8_t>(flags), 0, 0, 0}, {0, 0, 0, 0},
                                      std::move(command)}};
    return !ParseExecRequest(block).has_value();
  };
  EXPECT_TRUE(refused(0, {}));                  // no command
  EXPECT_TRUE(refused(0, {'a', 0, 'b'}));       // a 0 byte in a line
  EXPECT_TRUE(refused(2, {'a'}));               // an unknown flag
  EXPECT_TRUE(refused(1, {'a'}));               // a vector without its terminator
  EXPECT_TRUE(refused(1, {0, 'a', 0}));         // an empty program name
  EXPECT_FALSE(refused(1, {'a', 0, 0}));        // an empty later argument is fine
  EXPECT_EQ(ParseExecHello({kExecHelloCode, {{1, 0, 0, 0}}}), 1);
  EXPECT_FALSE(ParseExecHello({kExecHelloCode, {{1, 0}}}).has_value());
}

}  // namespace
}  // namespace pelmora::admin
