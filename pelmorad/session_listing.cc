// Listings: a file's information (code 3) as one sized record, and a folder's listing (code 4)
// as a size message followed by its records, read and sent a piece at a time.
#include <climits>
#include <memory>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/file_info.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;

namespace {

constexpr std::size_t kListingPieceEntries = 256;

}  // namespace

asio::awaitable<bool> HandleFileInfo(RequestScope& request, const RequestBlock& block) {
  Target target = request.ResolveArgument(block, 0, false);
  InfoResult info;
  info.error = target.error;
  if (info.error == kSuccess) {
    auto drives = request.runtime.drives;
    info = co_await request.RunOnPool([&] { return ReadFileInfo(*drives, target.path); });
  }
  request.Audit(block.code, target.text, info.error);
  if (info.error != kSuccess)
    co_return co_await request.channel.SendMessage(pelmora::admin::BuildSizeMessage(-1));
  std::vector<uint8_t> record = pelmora::admin::BuildFileInfoRecord(info.record);
  auto size = static_cast<int32_t>(record.size());
  if (record.size() < pelmora::admin::kPacketSize) record.resize(pelmora::admin::kPacketSize);
  co_return co_await request.channel.SendMessage(pelmora::admin::BuildSizeMessage(size)) &&
      co_await request.channel.SendRaw(record);
}

asio::awaitable<bool> HandleListing(RequestScope& request, const RequestBlock& block) {
  Target target = request.ResolveArgument(block, 0, false);
  int32_t result = target.error;
  auto listing = std::make_unique<FolderListing>();
  std::size_t total = 0;
  auto drives = request.runtime.drives;
  if (result == kSuccess) {
    result = co_await request.RunOnPool([&] {
      int32_t error = listing->Open(*drives, target.path);
      if (error == kSuccess) total = listing->TotalBytes();
      return error;
    });
  }
  if (result == kSuccess && total > static_cast<std::size_t>(INT32_MAX)) result = kNotEnoughMemory;
  request.Audit(block.code, target.text, result);
  if (result != kSuccess)
    co_return co_await request.channel.SendMessage(pelmora::admin::BuildSizeMessage(-1));
  if (!co_await request.channel.SendMessage(
          pelmora::admin::BuildSizeMessage(static_cast<int32_t>(total)))) {
    co_return false;
  }
  // A piece at a time, so a client that does not read holds one piece of the reply, not all.
  std::size_t sent = 0;
  while (true) {
    std::vector<uint8_t> piece =
        co_await request.RunOnPool([&] { return listing->Piece(*drives, kListingPieceEntries); });
    if (piece.empty()) break;
    sent += piece.size();
    if (sent > total || !co_await request.channel.SendRaw(piece)) break;
  }
  // The announced size is what the client reads; any other count would leave it out of step.
  co_return sent == total;
}

}  // namespace pelmorad
