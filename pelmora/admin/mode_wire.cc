#include "pelmora/admin/mode_wire.h"

#include "pelmora/admin/internal/byte_order.h"

namespace pelmora::admin {

using internal::AppendInt32;
using internal::GetInt32;

std::vector<std::vector<std::uint8_t>> ModeArguments(std::string_view path,
                                                     std::optional<std::int32_t> mode) {
  std::vector<std::vector<std::uint8_t>> args = {EncodeUnicodeArgument(path)};
  if (mode) {
    std::vector<std::uint8_t> value;
    AppendInt32(value, *mode);
    args.push_back(std::move(value));
  }
  return args;
}

std::optional<std::string> ParsePathArgument(const std::vector<std::uint8_t>& argument) {
  if (argument.size() < 4 || argument.size() % 2 != 0 || argument[argument.size() - 1] != 0 ||
      argument[argument.size() - 2] != 0) {
    return std::nullopt;
  }
  std::string path = DecodeUnicodeArgument(argument);
  if (path.empty()) return std::nullopt;  // a 0 unit first
  return path;
}

std::optional<ModeRequest> ParseModeRequest(const RequestBlock& block) {
  ModeRequest request;
  request.set = block.code == kModeSetCode;
  std::size_t count = request.set ? 2 : 1;
  if ((block.code != kModeGetCode && !request.set) || block.args.size() != count) {
    return std::nullopt;
  }
  std::optional<std::string> path = ParsePathArgument(block.args[0]);
  if (!path) return std::nullopt;
  request.path = std::move(*path);
  if (request.set) {
    if (block.args[1].size() != 4) return std::nullopt;
    request.mode = GetInt32(block.args[1], 0);
    if ((request.mode & ~kModePermissionBits) != 0) return std::nullopt;
  }
  return request;
}

}  // namespace pelmora::admin
