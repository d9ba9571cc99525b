// For the tool's tests: a HostOutput that keeps what a command writes and its failure lines
// (with the host "srv").
#ifndef TOOLS_PELMORA_RECORDING_OUTPUT_H_
#define TOOLS_PELMORA_RECORDING_OUTPUT_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/pelmora/admin_session.h"

namespace pelmora_tool {

class RecordingOutput : public HostOutput {
 public:
  void Write(std::string_view text) override { pieces.emplace_back(text); }
  void WriteError(std::string_view text) override { error_text.append(text); }
  void RemoteStatus(std::optional<int> status) override { remote_statuses.push_back(status); }
  void Fail(const HostFailure& failure) override { errors.push_back(ErrorLine("srv", failure)); }
  // Everything written, in order.
  std::string Text() const {
    std::string all;
    for (const std::string& piece : pieces) all += piece;
    return all;
  }
  std::vector<std::string> pieces;
  std::vector<std::string> errors;
  std::string error_text;                       // standard error of a remote command
  std::vector<std::optional<int>> remote_statuses;
};

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_RECORDING_OUTPUT_H_
