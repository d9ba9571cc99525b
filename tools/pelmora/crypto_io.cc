#include "tools/pelmora/crypto_io.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "pelmora/crypto/hex.h"
#include "pelmora/platform/file_io.h"

namespace pelmora_tool {
namespace {

bool IsStandardStream(const std::string& path) { return path.empty() || path == "-"; }

// Removes one trailing "\n" or "\r\n".
void DropLineEnd(Bytes& line) {
  if (!line.empty() && line.back() == '\n') line.pop_back();
  if (!line.empty() && line.back() == '\r') line.pop_back();
}

// Reads one line from the terminal `fd` with echo off, restoring the terminal afterwards.
Bytes ReadHiddenLine(int fd, const std::string& prompt) {
  termios saved{};
  bool restore = tcgetattr(fd, &saved) == 0;
  if (restore) {
    termios quiet = saved;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    tcsetattr(fd, TCSAFLUSH, &quiet);
  }
  (void)!write(fd, prompt.data(), prompt.size());
  Bytes line;
  char c = 0;
  while (line.size() < 4096 && read(fd, &c, 1) == 1 && c != '\n') line.push_back(c);
  if (restore) tcsetattr(fd, TCSAFLUSH, &saved);
  (void)!write(fd, "\n", 1);
  return line;
}

}  // namespace

Bytes ReadSource(const std::string& path) {
  if (IsStandardStream(path)) {
    std::cin.unsetf(std::ios::skipws);
    return Bytes(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) throw CommandError("cannot read " + path + ": " + std::strerror(errno));
  return Bytes(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

void WriteSink(const std::string& path, const Bytes& data, bool hex) {
  std::string text = hex ? pelmora::BytesToHex(data) + "\n"
                         : std::string(data.begin(), data.end());
  if (IsStandardStream(path)) {
    std::cout.write(text.data(), static_cast<std::streamsize>(text.size()));
    std::cout.flush();
    if (!std::cout) throw CommandError("cannot write to standard output");
    return;
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(text.data(), static_cast<std::streamsize>(text.size()));
  file.close();
  if (!file) throw CommandError("cannot write " + path);
}

void WriteNewFile(const std::string& path, const Bytes& data, mode_t mode) {
  pelmora::platform::UniqueFd fd(
      pelmora::platform::Open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
  if (!fd && errno == EEXIST) {
    throw CommandError(path + " exists: remove it first (keys are never overwritten)");
  }
  if (!fd) throw CommandError("cannot create " + path + ": " + std::strerror(errno));
  int error = pelmora::platform::WriteFully(fd.get(), std::span(data.data(), data.size()));
  if (fd.reset() != 0 && error == 0) error = errno;
  if (error != 0) {
    unlink(path.c_str());
    throw CommandError("cannot write " + path + ": " + std::strerror(error));
  }
}

Bytes ReadPassword(const std::string& password_file, const std::string& prompt) {
  Bytes password;
  const char* from_environment = std::getenv("PELMORA_PASSWORD");
  if (!password_file.empty()) {
    password = ReadSource(password_file);
    DropLineEnd(password);
  } else if (from_environment != nullptr) {
    password.assign(from_environment, from_environment + std::strlen(from_environment));
  } else {
    int fd = open("/dev/tty", O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) {
      throw CommandError(
          "no password: give --password-file FILE or PELMORA_PASSWORD, or run on a terminal to "
          "type it");
    }
    password = ReadHiddenLine(fd, prompt);
    close(fd);
  }
  if (password.empty()) throw CommandError("the password is empty");
  return password;
}

void Wipe(Bytes& secret) {
  explicit_bzero(secret.data(), secret.size());
  secret.clear();
}

}  // namespace pelmora_tool
