// The spool file and its libzip source.
#include "pelmora/archive/internal/spool_source.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "pelmora/platform/file_io.h"

namespace pelmora::archive::internal {
namespace {

UniqueFd OpenUnlinked(const std::string& folder) {
  int fd = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (fd >= 0) return UniqueFd(fd);
  // A missing temporary folder is a failed spool, not an exception.
  std::error_code error;
  std::filesystem::path temp = std::filesystem::temp_directory_path(error);
  if (error) return UniqueFd(-1);
  std::string pattern = (temp / "pzspoolXXXXXX").string();
  fd = mkostemp(pattern.data(), O_CLOEXEC);
  if (fd >= 0) unlink(pattern.c_str());
  return UniqueFd(fd);
}

// The state of one spool source.
struct SourceState {
  std::shared_ptr<Spool> spool;
  SpooledData data;
  uint64_t position = 0;
  zip_error_t error{};
};

zip_int64_t Read(SourceState& state, void* out, zip_uint64_t length) {
  uint64_t n = std::min<uint64_t>(length, state.data.length - state.position);
  ssize_t got = pread(state.spool->Fd(), out, n,
                      static_cast<off_t>(state.data.offset + state.position));
  if (got < 0 || static_cast<uint64_t>(got) != n) {
    zip_error_set(&state.error, ZIP_ER_READ, errno);
    return -1;
  }
  state.position += n;
  return static_cast<zip_int64_t>(n);
}

zip_int64_t Stat(const SourceState& state, void* out, zip_uint64_t length) {
  if (length < sizeof(zip_stat_t)) return -1;
  auto* st = static_cast<zip_stat_t*>(out);
  zip_stat_init(st);
  st->valid = ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE | ZIP_STAT_COMP_METHOD | ZIP_STAT_CRC |
              ZIP_STAT_MTIME | ZIP_STAT_ENCRYPTION_METHOD;
  st->size = state.data.size;
  st->comp_size = state.data.length;
  st->comp_method = state.data.stored ? ZIP_CM_STORE : ZIP_CM_DEFLATE;
  st->crc = state.data.crc;
  st->mtime = static_cast<time_t>(state.data.mtime);
  st->encryption_method = ZIP_EM_NONE;
  return sizeof(zip_stat_t);
}

zip_int64_t Callback(void* user, void* data, zip_uint64_t length, zip_source_cmd_t command) {
  auto* state = static_cast<SourceState*>(user);
  switch (command) {
    case ZIP_SOURCE_OPEN:
      state->position = 0;
      return 0;
    case ZIP_SOURCE_READ:
      return Read(*state, data, length);
    case ZIP_SOURCE_CLOSE:
      return 0;
    case ZIP_SOURCE_STAT:
      return Stat(*state, data, length);
    case ZIP_SOURCE_ERROR:
      return zip_error_to_data(&state->error, data, length);
    case ZIP_SOURCE_FREE:
      zip_error_fini(&state->error);
      delete state;
      return 0;
    case ZIP_SOURCE_SUPPORTS:
      return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE,
                                            ZIP_SOURCE_STAT, ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE,
                                            -1);
    default:
      zip_error_set(&state->error, ZIP_ER_OPNOTSUPP, 0);
      return -1;
  }
}

}  // namespace

std::shared_ptr<Spool> Spool::Create(const std::string& folder) {
  UniqueFd fd = OpenUnlinked(folder);
  if (!fd) return nullptr;
  return std::shared_ptr<Spool>(new Spool(std::move(fd)));
}

bool Spool::Append(std::span<const uint8_t> data) {
  int error = platform::PwriteFully(fd_.get(), data, end_);
  if (error != 0) {
    errno = error;
    return false;
  }
  end_ += data.size();
  return true;
}

bool Spool::Truncate(uint64_t end) {
  end_ = end;
  return ftruncate(fd_.get(), static_cast<off_t>(end)) == 0;
}

zip_source_t* MakeSpoolSource(zip_t* archive, std::shared_ptr<Spool> spool,
                              const SpooledData& data) {
  auto* state = new SourceState{std::move(spool), data, 0, {}};
  zip_error_init(&state->error);
  zip_source_t* source = zip_source_function(archive, &Callback, state);
  if (source == nullptr) {
    zip_error_fini(&state->error);
    delete state;
  }
  return source;
}

}  // namespace pelmora::archive::internal
