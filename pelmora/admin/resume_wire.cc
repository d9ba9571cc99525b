#include "pelmora/admin/resume_wire.h"

#include "pelmora/admin/internal/byte_order.h"
#include "pelmora/admin/mode_wire.h"

namespace pelmora::admin {

using internal::AppendInt32;
using internal::GetInt32;

std::vector<std::vector<std::uint8_t>> ResumeArguments(std::string_view path,
                                                       std::int32_t offset) {
  std::vector<std::uint8_t> value;
  AppendInt32(value, offset);
  return {EncodeUnicodeArgument(path), std::move(value)};
}

std::optional<ResumeRequest> ParseResumeRequest(const RequestBlock& block) {
  if (block.code != kResumeCode || block.args.size() != 2 || block.args[1].size() != 4) {
    return std::nullopt;
  }
  std::optional<std::string> path = ParsePathArgument(block.args[0]);
  if (!path) return std::nullopt;
  ResumeRequest request{std::move(*path), GetInt32(block.args[1], 0)};
  if (request.offset < 0) return std::nullopt;
  return request;
}

}  // namespace pelmora::admin
