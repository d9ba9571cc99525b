#include "tools/pelmora/fleet_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "tools/pelmora/crypto_io.h"

namespace pelmora_tool {
namespace {

std::string WithLineEnd(std::string text) {
  if (!text.empty() && text.back() != '\n') text += '\n';
  return text;
}

void WriteFile(const std::filesystem::path& path, std::string_view text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  file.close();
  if (!file) throw CommandError("cannot write " + path.string());
}

// A host name as a file name: '/' cannot appear in one.
std::string FileNameOf(const HostTarget& target) {
  std::string name = target.Display();
  std::replace(name.begin(), name.end(), '/', '_');
  return name;
}

}  // namespace

std::string HostRecord::Result() const {
  if (!finished) return "timed out";
  return status == kExitOk ? "ok" : "failed";
}

std::string LinePrefixer::Feed(std::string_view text) {
  std::string out;
  for (size_t end; (end = text.find('\n')) != std::string_view::npos;) {
    out += prefix_ + partial_;
    out.append(text.substr(0, end + 1));
    partial_.clear();
    text.remove_prefix(end + 1);
  }
  partial_.append(text);
  return out;
}

std::string LinePrefixer::Flush() {
  if (partial_.empty()) return "";
  std::string out = prefix_ + partial_ + "\n";
  partial_.clear();
  return out;
}

std::string GroupBlock(const HostRecord& record) {
  return "=== " + record.target.Display() + " ===\n" + WithLineEnd(record.output);
}

std::string GatherBlocks(const std::vector<HostRecord>& records) {
  std::vector<std::string> order;
  std::map<std::string, std::vector<std::string>> hosts_by_text;
  for (const HostRecord& record : records) {
    std::string text = WithLineEnd(record.output);
    if (record.failure) text += "pelmora: " + record.failure->Text() + "\n";
    if (!record.finished) text += "(no result within the overall time-out)\n";
    auto [it, added] = hosts_by_text.try_emplace(text);
    if (added) order.push_back(text);
    it->second.push_back(record.target.Display());
  }
  std::string out;
  for (const std::string& text : order) {
    const std::vector<std::string>& hosts = hosts_by_text[text];
    out += fmt::format("=== {} ({} host{}) ===\n", FoldHostNames(hosts), hosts.size(),
                       hosts.size() == 1 ? "" : "s");
    out += text;
  }
  return out;
}

std::string JsonLine(const HostRecord& record) {
  nlohmann::ordered_json line;
  line["host"] = record.target.name;
  line["port"] = record.port;
  if (!record.fingerprint.empty()) line["fingerprint"] = record.fingerprint;
  line["status"] = record.status;
  line["remote_status"] = nullptr;
  if (record.remote_status) line["remote_status"] = *record.remote_status;
  if (record.remote_status_unknown) line["remote_status"] = "unknown";
  line["result"] = record.Result();
  line["seconds"] = std::round(record.seconds * 1000) / 1000;
  line["output"] = record.output;
  line["error"] = nullptr;
  if (record.failure) {
    line["error"] = {{"number", record.failure->number},
                     {"description", record.failure->description}};
    if (!record.failure->detail.empty()) line["error"]["detail"] = record.failure->detail;
  }
  return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

std::string SummaryTable(const std::vector<HostRecord>& records,
                         std::chrono::duration<double> elapsed) {
  size_t width = 4;
  for (const HostRecord& r : records) width = std::max(width, r.target.Display().size());
  std::string out = fmt::format("{:<{}}  {:<9}  {:>4}  {:>8}  {}\n", "HOST", width, "RESULT",
                                "EXIT", "TIME", "ERROR");
  size_t ok = 0;
  for (const HostRecord& r : records) {
    ok += r.Ok() ? 1 : 0;
    std::string error = r.failure ? r.failure->Text() : "";
    std::string exit = r.remote_status_unknown ? "?" : std::to_string(r.status);
    std::string line = fmt::format("{:<{}}  {:<9}  {:>4}  {:>7.3f}s  {}", r.target.Display(),
                                   width, r.Result(), exit, r.seconds, error);
    out += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
  }
  out += fmt::format("{} host{}: {} ok, {} failed, {:.3f} s\n", records.size(),
                     records.size() == 1 ? "" : "s", ok, records.size() - ok, elapsed.count());
  return out;
}

void WriteOutputFiles(const std::string& dir, const HostRecord& record) {
  std::filesystem::path folder(dir);
  std::string name = FileNameOf(record.target);
  WriteFile(folder / name, record.output);
  if (record.failure) {
    WriteFile(folder / (name + ".err"), ErrorLine(record.target.Display(), *record.failure) + "\n");
  }
}

void WriteFailedFile(const std::string& path, const std::vector<HostRecord>& records) {
  std::string text;
  for (const HostRecord& record : records) {
    if (!record.Ok()) text += record.target.Display() + "\n";
  }
  WriteFile(path, text);
}

}  // namespace pelmora_tool
