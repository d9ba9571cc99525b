// The WinINet object's transfers: Execute, UploadFile, OpenURL and the reading of responses.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <system_error>
#include <thread>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/net/internal/curl_errors.h"
#include "pelmora/net/internal/curl_transfer.h"
#include "pelmora/net/internal/url_cracker.h"
#include "pelmora/net/wininet.h"
#include "pelmora/platform/win_error.h"

namespace pelmora {
namespace {

[[noreturn]] void RaiseBadArgument() { throw Error(5, "Invalid procedure call or argument"); }

std::string UpperCase(std::string text) {
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

// The request body a caller's value gives: nothing, ANSI text, or the bytes themselves.
std::vector<uint8_t> BodyOf(const Variant& data) {
  if (data.IsEmpty()) return {};
  if (const auto* text = data.Get<std::string>()) {
    std::string ansi = Utf8ToAnsi(*text);
    return std::vector<uint8_t>(ansi.begin(), ansi.end());
  }
  if (const auto* bytes = data.Get<std::vector<uint8_t>>()) return *bytes;
  throw Error(35760, "Cannot coerce type");
}

// The result form of response bytes: a Byte(), or ANSI text (Empty when there is none).
Variant ResultOf(std::vector<uint8_t> data, int32_t data_type) {
  if (data_type == icByteArray) return Variant(std::move(data));
  if (data.empty()) return Variant();
  return Variant(AnsiToUtf8(std::string_view(reinterpret_cast<const char*>(data.data()),
                                             data.size())));
}

// The count the chunked file loop reports: whole ChunkSize reads from `start` until `length`
// is reached or the file ends.
int64_t ChunkedTotal(int64_t size, int64_t start, int64_t length, int64_t chunk) {
  int64_t total = 0;
  int64_t position = start;
  do {
    int64_t count = std::min(chunk, size - position);
    if (count <= 0) break;
    total += count;
    position += count;
  } while (total < length);
  return total;
}

// Makes the pages of a large reserved result resident ahead of the bytes being copied into it.
// Fresh anonymous memory costs a page fault and a zeroing per page on first touch, which on the
// receiving thread costs more than the transfer itself; a helper thread faults the pages in
// (as huge pages where the kernel has them) up to kWindow bytes ahead of what has arrived, so the
// two overlap and a server announcing more than it sends cannot make much memory resident.
// Where the kernel lacks MADV_POPULATE_WRITE the helper stops and pages fault in as usual.
class ResultPrefaulter {
 public:
  static constexpr uintptr_t kHuge = uintptr_t{2} << 20;  // huge page size: the helper aligns to it
  static constexpr size_t kMinimum = size_t{16} << 20;
  static constexpr size_t kStep = size_t{32} << 20;
  static constexpr size_t kWindow = size_t{64} << 20;

  // `data` must not reallocate while the prefaulter lives.
  explicit ResultPrefaulter(std::vector<uint8_t>& data) {
    if (data.capacity() < kMinimum) return;
    auto start = reinterpret_cast<uintptr_t>(data.data());
    begin_ = (start + kHuge - 1) & ~(kHuge - 1);
    end_ = (start + data.capacity()) & ~(kHuge - 1);
    offset_ = begin_ - start;
    ::madvise(reinterpret_cast<void*>(begin_), end_ - begin_, MADV_HUGEPAGE);  // only a hint
    try {
      helper_ = std::jthread([this](std::stop_token stop) { Run(stop); });
    } catch (const std::system_error&) {
      // No thread to spare: the pages fault in as they are filled.
    }
  }
  ~ResultPrefaulter() { Stop(); }
  ResultPrefaulter(const ResultPrefaulter&) = delete;
  ResultPrefaulter& operator=(const ResultPrefaulter&) = delete;

  // Tells the helper how many bytes of the result are filled.
  void Filled(size_t size) {
    if (!helper_.joinable() || size < notified_ + kStep) return;
    notified_ = size;
    filled_.store(size);
    filled_.notify_one();
  }

  // Ends the helper; the result may reallocate afterwards.
  void Stop() {
    if (!helper_.joinable()) return;
    helper_.request_stop();
    filled_.store(SIZE_MAX);
    filled_.notify_one();
    helper_.join();
  }

 private:
  void Run(const std::stop_token& stop) {
    uintptr_t next = begin_;
    while (next < end_ && !stop.stop_requested()) {
      size_t filled = filled_.load();
      uintptr_t start = begin_ - offset_;
      uintptr_t limit = filled >= end_ - start - std::min(kWindow, end_ - start)
                            ? end_
                            : (start + filled + kWindow) & ~(kHuge - 1);
      if (next >= limit) {
        filled_.wait(filled);
        continue;
      }
      size_t length = std::min<uintptr_t>(kStep, limit - next);
      if (::madvise(reinterpret_cast<void*>(next), length, MADV_POPULATE_WRITE) != 0) return;
      next += length;
    }
  }

  uintptr_t begin_ = 0;
  uintptr_t end_ = 0;
  size_t offset_ = 0;
  size_t notified_ = 0;
  std::atomic<size_t> filled_{0};
  std::jthread helper_;
};

}  // namespace

void WinINet::Execute(const std::string& URL, const std::string& Operation) {
  Variant nothing;
  Execute(URL, Operation, nothing);
}

void WinINet::Execute(const std::string& URL, const std::string& Operation, Variant& InputData,
                      const std::string& InputHdrs) {
  if (!URL.empty()) SetURL(URL);
  Cancel();
  RequireHost();
  std::vector<uint8_t> body = BodyOf(InputData);
  OpenSession();
  RequireHttp();
  CheckPort16();
  std::string verb = UpperCase(Operation);
  if (verb != "PUT" && verb != "POST") InputData = Variant(std::string());
  net_internal::TransferRequest request = RequestFromParts();
  request.verb = verb;
  request.body = std::move(body);
  request.headers = Utf8ToAnsi(InputHdrs);
  StartRequest(std::move(request));
}

int32_t WinINet::UploadFile(const std::string& FileName, int32_t Start, int32_t Length,
                            const std::string& URL, const std::string& InputHdrs) {
  if (!URL.empty()) SetURL(URL);
  Cancel();
  RequireHost();
  if (Start < 0 || Length < 0) RaiseBadArgument();
  OpenSession();
  RequireHttp();
  CheckPort16();
  int fd = ::open(FileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) net_internal::RaiseWithText(platform::Win32FromErrno(errno));
  struct stat info {};
  bool is_file = ::fstat(fd, &info) == 0 && !S_ISDIR(info.st_mode);
  if (!is_file) {
    ::close(fd);  // a folder cannot be opened as a file: access denied
    net_internal::RaiseWithText(platform::Win32FromErrno(EISDIR));
  }
  int64_t size = static_cast<int64_t>(info.st_size & 0xFFFFFFFF);
  if (Start > size) {
    ::close(fd);
    RaiseBadArgument();
  }
  int64_t length = Length == 0 ? size : Length;
  length = std::min(length, size - Start);
  net_internal::TransferRequest request = RequestFromParts();
  request.verb = "POST";
  request.headers = Utf8ToAnsi(InputHdrs);
  request.upload = {.fd = fd, .offset = Start, .length = length};
  StartRequest(std::move(request));  // the transfer closes the file
  return static_cast<int32_t>(ChunkedTotal(size, Start, length, chunk_size_));
}

Variant WinINet::OpenURL(const std::string& URL, int32_t DataType) {
  if (!URL.empty()) SetURL(URL);
  Cancel();
  RequireHost();
  OpenSession();
  net_internal::CrackedUrl url = net_internal::CrackUrl(Utf8ToAnsi(this->URL()));
  bool transfer_scheme = url.scheme >= InternetSchemeFtp && url.scheme <= InternetSchemeHttps;
  if (!url.ok || !transfer_scheme) {
    net_internal::RaiseWithText(net_internal::kErrorUnrecognizedScheme);
  }
  net_internal::TransferRequest request;
  request.scheme = url.scheme;
  request.host = std::move(url.host);
  request.port = url.port;
  request.user = std::move(url.user);
  request.password = std::move(url.password);
  request.document = url.path + url.extra;
  Apply(request);
  StartRequest(std::move(request));
  return GetResponse(DataType);
}

// Appends to `data` until it holds `size` bytes or the response ends.
void WinINet::ReadInto(std::vector<uint8_t>& data, size_t size) {
  while (data.size() < size && transfer_) {
    size_t got = 0;
    if (int32_t error = transfer_->Read(data, size - data.size(), got); error != 0) {
      net_internal::RaiseWithText(error);
    }
    if (got == 0) break;
  }
}

Variant WinINet::GetResponse(int32_t DataType) {
  std::vector<uint8_t> data;
  if (!transfer_) return ResultOf(std::move(data), DataType);
  auto chunk = static_cast<size_t>(chunk_size_);
  if (auto length = transfer_->Headers().Find("Content-Length")) {
    // A declared length is reserved at once (bounded), instead of growing chunk by chunk.
    // (one chunk more: the last, empty read needs room too).
    auto declared = std::min(std::strtoull(length->c_str(), nullptr, 10), 1ULL << 30);
    data.reserve(static_cast<size_t>(declared) + chunk);
  }
  ResultPrefaulter prefaulter(data);
  while (transfer_) {
    size_t before = data.size();
    if (data.capacity() < before + chunk) {
      prefaulter.Stop();
      data.reserve(before + std::max(chunk, before / 4));  // bounded copying for long bodies
    }
    ReadInto(data, before + chunk);
    if (data.size() == before) break;
    prefaulter.Filled(data.size());
    if (events_ != nullptr) events_->Receiving(static_cast<int32_t>(data.size()));
  }
  return ResultOf(std::move(data), DataType);
}

Variant WinINet::GetChunk(int32_t Size, int32_t DataType) {
  if (Size < 1) throw Error(35763, "Invalid operation argument");
  std::vector<uint8_t> data;
  if (transfer_) {
    data.reserve(static_cast<size_t>(Size));
    ReadInto(data, static_cast<size_t>(Size));
  }
  return ResultOf(std::move(data), DataType);
}

bool WinINet::ReadResponseTo(const PieceSink& sink) {
  if (!transfer_) return true;
  bool stopped = false;
  int32_t error = transfer_->Stream(sink, stopped);
  if (stopped) {
    Cancel();
    return false;
  }
  if (error != 0) net_internal::RaiseWithText(error);
  return true;
}

std::string WinINet::GetHeader(const std::string& HdrName) {
  if (!transfer_) return {};
  if (!transfer_->IsHttp()) net_internal::RaiseWithText(net_internal::kIncorrectHandleType);
  const net_internal::ResponseHeaders& headers = transfer_->Headers();
  if (HdrName.empty()) return AnsiToUtf8(headers.Raw());
  std::optional<std::string> value = headers.Find(Utf8ToAnsi(HdrName));
  return value ? AnsiToUtf8(*value) : std::string();
}

}  // namespace pelmora
