// `pelmora http`: HTTP and HTTPS requests through the WinINet object.
//
//   pelmora http get URL [-o FILE] [-H "Name: value"]... [-X VERB] [-d DATA | -d @FILE]
//   pelmora http head URL [-o FILE] [-H ...]              the response headers
//   pelmora http post|put URL [-d DATA | -d @FILE] [-o FILE] [-H ...] [-X VERB]
//
// The response body goes to standard output unless -o names a file; a progress bar (size, rate,
// time left) runs on a terminal's standard error unless the body goes there. -d @FILE sends the
// file's bytes, -d TEXT the text (ANSI code page); -X sends another verb (DELETE, OPTIONS, ...)
// in the subcommand's place, with the body when -d gives one.
// -i writes the status line and headers first; --fail turns a status of 400 or more into a
// failure; --max-time bounds each wait for data and the whole transfer. Any port 1-65535 works
// for every verb (the object's 16-bit port property does not limit the tool). The body is
// written as it arrives, straight from the receive buffer. --cacert FILE trusts that PEM file's
// certificates instead of the system's store; -k accepts any certificate, as curl's.
// Exit status: 0 when a response arrived (with --fail: below 400), 1 when the request fails
// (the WinInet number and its text are printed on standard error), 2 for usage and file errors.
#include <unistd.h>

#include <cstdint>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/variant.h"
#include "pelmora/net/wininet.h"
#include "pelmora/platform/file_io.h"
#include "tools/pelmora/commands.h"
#include "tools/pelmora/crypto_io.h"
#include "tools/pelmora/progress.h"

namespace pelmora_tool {
namespace {

using pelmora::Variant;
using pelmora::WinINet;
using Clock = std::chrono::steady_clock;

std::string UpperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

struct HttpOptions {
  std::string verb;
  std::string method;  // -X: sent instead of the subcommand's verb
  std::string url;
  std::string output = "-";
  std::vector<std::string> headers;
  std::string data;
  bool fail = false;
  bool include = false;
  double max_time = 0;    // seconds, 0: none
  std::string ca_file;    // HTTPS: trusted certificates instead of the system's
  bool insecure = false;  // HTTPS: no certificate check at all
};

constexpr int32_t kTimeout = 12002;

// Writes the response body to `out` as it arrives, with admin's progress bar (size, rate, time
// left) on standard error when it is a terminal and the body does not go to that terminal too;
// returns false when writing fails. Raises 12002 when `deadline` passes first. Each piece goes
// to the file in one system call (the stream's buffer would cut it into blocks of its size).
bool CopyBody(WinINet& inet, std::FILE* out, std::optional<Clock::time_point> deadline) {
  bool to_terminal = out == stdout && ::isatty(STDOUT_FILENO) == 1;
  Console console(!to_terminal && Console::StatusWanted(false));
  uint64_t total = std::strtoull(inet.GetHeader("Content-Length").c_str(), nullptr, 10);
  TransferProgress progress(console, total);
  if (std::fflush(out) != 0) return false;
  int fd = ::fileno(out);
  uint64_t done = 0;
  bool late = false;
  bool ended = inet.ReadResponseTo([&](const uint8_t* data, size_t size) {
    if (pelmora::platform::WriteFully(fd, std::span(data, size)) != 0) return false;
    done += size;
    progress.Update(done);
    late = deadline && Clock::now() > *deadline;
    return !late;
  });
  if (late) throw pelmora::Error(kTimeout, pelmora::DescribeError(kTimeout));
  return ended;
}

// Sends the request and waits for the response headers.
void StartRequest(WinINet& inet, const HttpOptions& o) {
  std::string headers;
  for (const std::string& line : o.headers) headers += (headers.empty() ? "" : "\r\n") + line;
  Variant body;
  if (o.data.rfind("@", 0) == 0) {
    body = Variant(ReadSource(o.data.substr(1)));
  } else if (!o.data.empty()) {
    body = Variant(o.data);
  }
  inet.SetFullPortRange(true);
  inet.Execute(o.url, o.verb, body, headers);
}

// Writes what the options ask for of the response (headers, body) to `out`.
void WriteResponse(WinINet& inet, const HttpOptions& o, const std::string& head, std::FILE* out,
                   std::optional<Clock::time_point> deadline) {
  bool written = true;
  if (o.verb == "HEAD" || o.include) {
    written = std::fwrite(head.data(), 1, head.size(), out) == head.size();
  }
  if (written && o.verb != "HEAD") written = CopyBody(inet, out, deadline);
  if (!written) throw CommandError("cannot write " + o.output);
}

int Run(HttpOptions o) {
  if (!o.method.empty()) o.verb = UpperCase(o.method);
  try {
    WinINet inet;
    if (!o.ca_file.empty()) {
      if (!std::ifstream(o.ca_file)) throw CommandError("cannot read the CA file " + o.ca_file);
      inet.SetCaFile(o.ca_file);
    }
    inet.SetNoCertCheck(o.insecure);
    std::optional<Clock::time_point> deadline;
    if (o.max_time > 0) {
      inet.SetReceiveTimeout(static_cast<int32_t>(o.max_time * 1000));
      deadline = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(o.max_time * 1000));
    }
    StartRequest(inet, o);
    std::string head = inet.GetHeader();
    std::string status = head.substr(0, head.find("\r\n"));
    int code = status.size() > 12 ? std::atoi(status.c_str() + status.find(' ') + 1) : 0;
    if (o.fail && code >= 400) {
      inet.Cancel();
      std::fprintf(stderr, "pelmora: http: %s: %s\n", o.url.c_str(), status.c_str());
      return 1;
    }
    std::FILE* out = o.output == "-" ? stdout : std::fopen(o.output.c_str(), "wb");
    if (out == nullptr) throw CommandError("cannot write " + o.output);
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> closer(out == stdout ? nullptr : out,
                                                           &std::fclose);
    WriteResponse(inet, o, head, out, deadline);
    return std::fflush(out) == 0 ? 0 : 2;
  } catch (const pelmora::Error& e) {
    std::fprintf(stderr, "pelmora: http: error %d: %s\n", e.Number(), e.Description().c_str());
    return 1;
  } catch (const CommandError& e) {
    std::fprintf(stderr, "pelmora: http: %s\n", e.what());
    return 2;
  }
}

void AddVerb(CLI::App& http, CommandAction& action, const std::string& name,
             const std::string& help) {
  auto o = std::make_shared<HttpOptions>();
  o->verb = UpperCase(name);
  CLI::App* sub = http.add_subcommand(name, help);
  sub->add_option("URL", o->url, "http:// or https:// address")->required();
  sub->add_option("-o,--output", o->output, "write the response here instead of standard output");
  sub->add_option("-H,--header", o->headers, "a request header line \"Name: value\"");
  sub->add_flag("-f,--fail", o->fail, "a status of 400 or more fails (exit 1), printing no body");
  sub->add_flag("-i,--include", o->include, "write the status line and the headers first");
  sub->add_option("-m,--max-time", o->max_time,
                  "seconds for each wait for data and for the whole transfer")
      ->check(CLI::PositiveNumber);
  sub->add_option("--cacert", o->ca_file,
                  "HTTPS: trust the certificates in this PEM file instead of the system's");
  sub->add_flag("-k,--insecure", o->insecure,
                "HTTPS: accept any certificate (the server is not authenticated)");
  if (name != "head") {
    sub->add_option("-d,--data", o->data, "the request body: TEXT, or @FILE for a file's bytes");
    sub->add_option("-X,--request", o->method,
                    "send this verb (DELETE, OPTIONS, ...) instead of the command's");
  }
  sub->callback([&action, o] { action = [o] { return Run(*o); }; });
}

}  // namespace

void AddHttpCommand(CLI::App& app, CommandAction& action) {
  CLI::App* http = app.add_subcommand("http", "HTTP and HTTPS requests");
  http->require_subcommand(1);
  AddVerb(*http, action, "get", "fetch a document");
  AddVerb(*http, action, "head", "print the response headers");
  AddVerb(*http, action, "post", "post a body");
  AddVerb(*http, action, "put", "put a body");
}

}  // namespace pelmora_tool
