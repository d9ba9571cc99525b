// `pelmora http` run in-process against the loopback web server.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/pelmora/commands.h"
#include "pelmora/testing/web_server.h"

namespace pelmora_tool {
namespace {

// Parses `args` as the tool would and runs the selected command; returns its status.
int RunTool(std::vector<std::string> args) {
  CLI::App app;
  CommandAction action;
  AddHttpCommand(app, action);
  std::vector<const char*> argv{"pelmora"};
  for (const std::string& a : args) argv.push_back(a.c_str());
  app.parse(static_cast<int>(argv.size()), argv.data());
  return action();
}

std::string Slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(HttpCommand, GetHeadAndPutGoThroughTheWebServer) {
  pelmora::testing::WebServer web;
  std::string out = web.DocumentRoot() + "/../out.bin";
  EXPECT_EQ(RunTool({"http", "get", web.HttpUrl("/small.txt"), "-o", out}), 0);
  EXPECT_EQ(Slurp(out), "small file\n");
  EXPECT_EQ(RunTool({"http", "head", web.HttpUrl("/small.txt"), "-o", out}), 0);
  EXPECT_EQ(Slurp(out).rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
  std::string source = web.WriteDocument("source.txt", "put body");
  EXPECT_EQ(RunTool({"http", "put", web.HttpUrl("/copy.txt"), "-d", "@" + source, "-o", out}), 0);
  EXPECT_EQ(Slurp(web.DocumentRoot() + "/copy.txt"), "put body");
  EXPECT_EQ(RunTool({"http", "post", web.HttpUrl("/post"), "-d", "a=1", "-H", "X-A: 1", "-o",
                     out}),
            0);
  EXPECT_EQ(Slurp(out), "posted");
}

TEST(HttpCommand, FailureExitsWithOneAndNamesTheWinInetNumber) {
  ::testing::internal::CaptureStderr();
  int status = RunTool({"http", "get", "http://127.0.0.1:1/"});
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(status, 1);
  EXPECT_EQ(err,
            "pelmora: http: error 12029: A connection with the server could not be established\n");
  EXPECT_EQ(RunTool({"http", "post", "http://127.0.0.1:1/", "-d", "@/nonexistent/file"}), 2);
}

}  // namespace
}  // namespace pelmora_tool
