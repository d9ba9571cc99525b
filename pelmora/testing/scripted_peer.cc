#include "pelmora/testing/scripted_peer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace pelmora::testing {

struct ScriptedPeer::Step {
  enum Kind { kReceive, kSend, kReply, kReceiveUntilClosed, kStall, kClose } kind;
  size_t count = 0;
  Bytes bytes{};
  std::function<Bytes(const std::vector<Bytes>&)> reply{};
  bool reset = false;
};

ScriptedPeer::ScriptedPeer() {
  listen_fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(addr);
  if (listen_fd_ < 0 || ::bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
      ::listen(listen_fd_, 4) != 0 ||
      ::getsockname(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0 ||
      ::pipe2(stop_pipe_, O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("scripted peer: ") + std::strerror(errno));
  }
  port_ = ntohs(addr.sin_port);
}

ScriptedPeer::~ScriptedPeer() {
  if (stop_pipe_[1] >= 0) (void)!::write(stop_pipe_[1], "x", 1);
  if (thread_.joinable()) thread_.join();
  for (int fd : {conn_fd_, listen_fd_, stop_pipe_[0], stop_pipe_[1]}) {
    if (fd >= 0) ::close(fd);
  }
}

ScriptedPeer& ScriptedPeer::Receive(size_t n) {
  steps_.push_back({.kind = Step::kReceive, .count = n});
  return *this;
}

ScriptedPeer& ScriptedPeer::Send(Bytes bytes) {
  steps_.push_back({.kind = Step::kSend, .bytes = std::move(bytes)});
  return *this;
}

ScriptedPeer& ScriptedPeer::ReplyWith(std::function<Bytes(const std::vector<Bytes>&)> reply) {
  steps_.push_back({.kind = Step::kReply, .reply = std::move(reply)});
  return *this;
}

ScriptedPeer& ScriptedPeer::ReceiveUntilClosed() {
  steps_.push_back({.kind = Step::kReceiveUntilClosed});
  return *this;
}

ScriptedPeer& ScriptedPeer::Stall() {
  steps_.push_back({.kind = Step::kStall});
  return *this;
}

ScriptedPeer& ScriptedPeer::Close(bool reset) {
  steps_.push_back({.kind = Step::kClose, .reset = reset});
  return *this;
}

void ScriptedPeer::Start() { thread_ = std::thread([this] { Run(); }); }

bool ScriptedPeer::Finish() {
  std::unique_lock lock(mutex_);
  auto limit = step_timeout_ * (steps_.size() + 1);
  if (!done_cv_.wait_for(lock, limit, [this] { return done_; })) {
    ok_ = false;
    failure_ = "script did not finish in time";
  }
  return ok_;
}

std::string ScriptedPeer::Failure() const {
  std::lock_guard lock(mutex_);
  return failure_;
}

std::vector<Bytes> ScriptedPeer::ReceivedChunks() const {
  std::lock_guard lock(mutex_);
  return received_;
}

Bytes ScriptedPeer::Received(size_t index) const {
  std::lock_guard lock(mutex_);
  return index < received_.size() ? received_[index] : Bytes();
}

void ScriptedPeer::Fail(std::string why) {
  std::lock_guard lock(mutex_);
  if (ok_) failure_ = std::move(why);
  ok_ = false;
}

void ScriptedPeer::Run() {
  pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
  int ready = ::poll(fds, 2, static_cast<int>(step_timeout_.count()));
  if (ready > 0 && (fds[0].revents & POLLIN)) {
    conn_fd_ = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
  }
  if (conn_fd_ < 0) {
    Fail("no client connected");
  } else {
    for (size_t i = 0; i < steps_.size(); ++i) {
      if (!RunStep(steps_[i])) {
        Fail("step " + std::to_string(i) + " failed" + (failure_.empty() ? "" : ": " + failure_));
        break;
      }
    }
  }
  std::lock_guard lock(mutex_);
  done_ = true;
  done_cv_.notify_all();
}

// Waits until the connection is readable; false on the step time-out or when the peer is stopped.
bool ScriptedPeer::WaitReadable() {
  pollfd fds[2] = {{conn_fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
  int ready = ::poll(fds, 2, static_cast<int>(step_timeout_.count()));
  return ready > 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) != 0;
}

bool ScriptedPeer::ReadExactly(size_t n, Bytes& out) {
  out.resize(n);
  size_t got = 0;
  while (got < n) {
    if (!WaitReadable()) return false;
    ssize_t r = ::recv(conn_fd_, out.data() + got, n - got, 0);
    if (r <= 0) {
      out.resize(got);
      return false;
    }
    got += static_cast<size_t>(r);
  }
  return true;
}

bool ScriptedPeer::RunStep(const Step& step) {
  auto record = [this](Bytes chunk) {
    std::lock_guard lock(mutex_);
    received_.push_back(std::move(chunk));
  };
  auto send_all = [this](const Bytes& bytes) {
    for (size_t sent = 0; sent < bytes.size();) {
      ssize_t r = ::send(conn_fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (r < 0) return false;
      sent += static_cast<size_t>(r);
    }
    return true;
  };
  switch (step.kind) {
    case Step::kReceive: {
      Bytes chunk;
      bool ok = ReadExactly(step.count, chunk);
      record(std::move(chunk));
      return ok;
    }
    case Step::kSend: return send_all(step.bytes);
    case Step::kReply: return send_all(step.reply(ReceivedChunks()));
    case Step::kReceiveUntilClosed: {
      Bytes all;
      uint8_t buffer[65536];
      while (WaitReadable()) {
        ssize_t r = ::recv(conn_fd_, buffer, sizeof(buffer), 0);
        if (r <= 0) break;
        all.insert(all.end(), buffer, buffer + r);
      }
      record(std::move(all));
      return true;
    }
    case Step::kStall: {
      pollfd fds[2] = {{conn_fd_, POLLRDHUP, 0}, {stop_pipe_[0], POLLIN, 0}};
      ::poll(fds, 2, -1);  // ends when the client closes or the peer is destroyed
      return true;
    }
    case Step::kClose:
      if (step.reset) {
        linger hard{1, 0};
        ::setsockopt(conn_fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
      }
      ::close(conn_fd_);
      conn_fd_ = -1;
      return true;
  }
  return false;
}

}  // namespace pelmora::testing
