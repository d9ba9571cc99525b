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

std::optional<ModeRequest> ParseModeRequest(const RequestBlock& block) {
  ModeRequest request;
  request.set = block.code == kModeSetCode;
  std::size_t count = request.set ? 2 : 1;
  if ((block.code != kModeGetCode && !request.set) || block.args.size() != count) {
    return std::nullopt;
  }
  // A Unicode argument: UTF-16LE code units ending in one 0 unit.
  const std::vector<std::uint8_t>& path = block.args[0];
  if (path.size() < 4 || path.size() % 2 != 0 || path[path.size() - 1] != 0 ||
      path[path.size() - 2] != 0) {
    return std::nullopt;
  }
  request.path = DecodeUnicodeArgument(path);
  if (request.path.empty()) return std::nullopt;  // a 0 unit first
  if (request.set) {
    if (block.args[1].size() != 4) return std::nullopt;
    request.mode = GetInt32(block.args[1], 0);
    if ((request.mode & ~kModePermissionBits) != 0) return std::nullopt;
  }
  return request;
}

}  // namespace pelmora::admin
