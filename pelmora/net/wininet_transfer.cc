// The WinINet object's transfers: Execute, UploadFile, OpenURL and the reading of responses.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <optional>

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/net/internal/curl_transfer.h"
#include "pelmora/net/internal/url_cracker.h"
#include "pelmora/net/wininet.h"

namespace pelmora {
namespace {

[[noreturn]] void RaiseCode(int32_t code) { throw Error(code, DescribeError(code)); }

[[noreturn]] void RaiseBadArgument() { throw Error(5, "Invalid procedure call or argument"); }

std::string Trimmed(const std::string& text) {
  size_t first = text.find_first_not_of(' ');
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

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

// The Win32 number of a failed open of a file for reading.
int32_t FileErrorNumber(int error) {
  switch (error) {
    case ENOENT: return 2;
    case ENOTDIR:
    case ENAMETOOLONG: return 3;
    case EMFILE:
    case ENFILE: return 4;
    default: return 5;
  }
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

}  // namespace

void WinINet::Execute(const std::string& URL, const std::string& Operation) {
  Variant nothing;
  Execute(URL, Operation, nothing);
}

void WinINet::Execute(const std::string& URL, const std::string& Operation, Variant& InputData,
                      const std::string& InputHdrs) {
  if (!URL.empty()) SetURL(Trimmed(URL));
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
  request.headers = InputHdrs;
  StartRequest(std::move(request));
}

int32_t WinINet::UploadFile(const std::string& FileName, int32_t Start, int32_t Length,
                            const std::string& URL, const std::string& InputHdrs) {
  if (!URL.empty()) SetURL(Trimmed(URL));
  Cancel();
  RequireHost();
  if (Start < 0 || Length < 0) RaiseBadArgument();
  OpenSession();
  RequireHttp();
  CheckPort16();
  int fd = ::open(FileName.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) RaiseCode(FileErrorNumber(errno));
  struct stat info {};
  int64_t size = ::fstat(fd, &info) == 0 ? static_cast<int64_t>(info.st_size & 0xFFFFFFFF) : 0;
  if (Start > size) {
    ::close(fd);
    RaiseBadArgument();
  }
  int64_t length = Length == 0 ? size : Length;
  length = std::min(length, size - Start);
  net_internal::TransferRequest request = RequestFromParts();
  request.verb = "POST";
  request.headers = InputHdrs;
  request.upload = {.fd = fd, .offset = Start, .length = length};
  StartRequest(std::move(request));  // the transfer closes the file
  return static_cast<int32_t>(ChunkedTotal(size, Start, length, chunk_size_));
}

Variant WinINet::OpenURL(const std::string& URL, int32_t DataType) {
  if (!URL.empty()) SetURL(Trimmed(URL));
  Cancel();
  RequireHost();
  OpenSession();
  net_internal::CrackedUrl url = net_internal::CrackUrl(this->URL());
  bool transfer_scheme = url.scheme >= InternetSchemeFtp && url.scheme <= InternetSchemeHttps;
  if (!url.ok || !transfer_scheme) RaiseCode(net_internal::kErrorUnrecognizedScheme);
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

// Reads into `data` from its current size until `size` bytes are there or the response ends.
void WinINet::ReadInto(std::vector<uint8_t>& data, size_t size) {
  size_t used = data.size();
  data.resize(size);
  while (used < size && transfer_) {
    size_t got = 0;
    if (int32_t error = transfer_->Read(data.data() + used, size - used, got); error != 0) {
      data.resize(used);
      RaiseCode(error);
    }
    if (got == 0) break;
    used += got;
  }
  data.resize(used);
}

Variant WinINet::GetResponse(int32_t DataType) {
  std::vector<uint8_t> data;
  if (!transfer_) return ResultOf(std::move(data), DataType);
  auto chunk = static_cast<size_t>(chunk_size_);
  if (auto length = transfer_->Headers().Find("Content-Length")) {
    // A declared length is reserved at once (bounded), instead of growing chunk by chunk.
    data.reserve(static_cast<size_t>(std::min(std::strtoull(length->c_str(), nullptr, 10),
                                              static_cast<unsigned long long>(1) << 31)));
  }
  while (transfer_) {
    size_t before = data.size();
    if (data.capacity() < before + chunk) {
      data.reserve(before + std::max(chunk, before / 4));  // bounded copying for long bodies
    }
    ReadInto(data, before + chunk);
    if (data.size() == before) break;
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

std::string WinINet::GetHeader(const std::string& HdrName) {
  if (!transfer_) return {};
  if (!transfer_->IsHttp()) RaiseCode(net_internal::kIncorrectHandleType);
  const net_internal::ResponseHeaders& headers = transfer_->Headers();
  if (HdrName.empty()) return AnsiToUtf8(headers.Raw());
  std::optional<std::string> value = headers.Find(Utf8ToAnsi(HdrName));
  return value ? AnsiToUtf8(*value) : std::string();
}

}  // namespace pelmora
