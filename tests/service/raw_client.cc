#include "tests/service/raw_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "pelmora/admin/credentials.h"

namespace pelmorad::testing {

using pelmora::admin::RequestCode;

RawClient::~RawClient() { Close(); }

bool RawClient::Connect(int port, const std::string& host) {
  Close();
  fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  ::inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  return ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
}

void RawClient::Close(bool reset) {
  if (fd_ < 0) return;
  if (reset) {
    linger option{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &option, sizeof(option));
  }
  ::close(fd_);
  fd_ = -1;
}

bool RawClient::Send(std::span<const uint8_t> bytes) {
  while (!bytes.empty()) {
    ssize_t sent = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent <= 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(sent));
  }
  return true;
}

std::optional<Bytes> RawClient::Read(std::size_t count, int milliseconds) {
  Bytes out(count);
  std::size_t done = 0;
  while (done < count) {
    pollfd entry{fd_, POLLIN, 0};
    if (::poll(&entry, 1, milliseconds) != 1) return std::nullopt;
    ssize_t got = ::recv(fd_, out.data() + done, count - done, 0);
    if (got <= 0) return std::nullopt;
    done += static_cast<size_t>(got);
  }
  return out;
}

bool RawClient::WaitForClose(int milliseconds) {
  char buffer[4096];
  for (int round = 0; round < 100000; ++round) {
    pollfd entry{fd_, POLLIN, 0};
    if (::poll(&entry, 1, milliseconds) != 1) return false;
    ssize_t got = ::recv(fd_, buffer, sizeof(buffer), 0);
    if (got <= 0) return true;
  }
  return false;
}

bool RawClient::SendFramed(std::span<const uint8_t> data) {
  sequence_ = pelmora::admin::NextSequenceNumber(sequence_);
  return Send(pelmora::admin::BuildFramedPacket(sequence_, data));
}

std::optional<Bytes> RawClient::ReadFramed(int milliseconds) {
  std::optional<Bytes> packet = Read(pelmora::admin::kPacketSize, milliseconds);
  if (!packet) return std::nullopt;
  pelmora::admin::FramedMessage message = pelmora::admin::ParseFramedPacket(*packet, sequence_);
  if (message.fault != pelmora::admin::PacketFault::kNone) return std::nullopt;
  return Bytes(message.data.begin(), message.data.end());
}

std::optional<pelmora::admin::ResultReply> RawClient::ReadResult() {
  std::optional<Bytes> data = ReadFramed();
  if (!data) return std::nullopt;
  return pelmora::admin::ParseResultReply(*data);
}

std::optional<pelmora::admin::ResultReply> RawClient::Login(std::string_view user,
                                                            std::string_view password) {
  if (!SendFramed(pelmora::admin::BuildLoginMessage(pelmora::admin::EncodeCredential(user),
                                                    pelmora::admin::EncodeCredential(password)))) {
    return std::nullopt;
  }
  return ReadResult();
}

bool RawClient::Request(RequestCode code, const std::vector<Bytes>& args) {
  return SendFramed(pelmora::admin::BuildSizeMessage(pelmora::admin::RequestBlockTotal(args))) &&
         Send(pelmora::admin::BuildRequestBlock(code, args));
}

bool RawClient::RequestPath(RequestCode code, std::string_view path) {
  return Request(code, {pelmora::admin::EncodeUnicodeArgument(path)});
}

std::optional<pelmora::admin::ResultReply> RawClient::Upload(
    std::string_view remote, std::string_view content, const pelmora::admin::TransferHeader& times,
    bool* refused) {
  if (refused != nullptr) *refused = false;
  pelmora::admin::TransferHeader header = times;
  header.size = static_cast<int32_t>(content.size());
  if (!RequestPath(RequestCode::kUpload, remote) ||
      !SendFramed(pelmora::admin::BuildTransferHeader(header))) {
    return std::nullopt;
  }
  std::optional<Bytes> go = ReadFramed();
  if (!go) return std::nullopt;
  if (!pelmora::admin::IsGoReply(*go)) {
    if (refused != nullptr) *refused = true;
    return std::nullopt;
  }
  for (std::size_t offset = 0; offset < content.size(); offset += 1500) {
    Bytes piece(1500, 0);
    std::size_t length = std::min<std::size_t>(1500, content.size() - offset);
    std::memcpy(piece.data(), content.data() + offset, length);
    if (!Send(piece)) return std::nullopt;
  }
  return ReadResult();
}

std::optional<std::pair<pelmora::admin::TransferHeader, std::string>> RawClient::Download(
    std::string_view remote) {
  if (!RequestPath(RequestCode::kDownload, remote)) return std::nullopt;
  std::optional<Bytes> data = ReadFramed();
  if (!data) return std::nullopt;
  std::optional<pelmora::admin::TransferHeader> header = pelmora::admin::ParseTransferHeader(*data);
  if (!header) return std::nullopt;
  if (header->size < 0) return std::make_pair(*header, std::string());
  if (!SendFramed(pelmora::admin::BuildGoReply(true))) return std::nullopt;
  std::optional<Bytes> content = Read(static_cast<std::size_t>(header->size));
  if (!content) return std::nullopt;
  return std::make_pair(*header, std::string(content->begin(), content->end()));
}

}  // namespace pelmorad::testing
