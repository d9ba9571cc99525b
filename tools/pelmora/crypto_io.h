// Input and output of the crypto commands: files or the standard streams, and passwords from a
// file or the terminal (never from the command line).
#ifndef TOOLS_PELMORA_CRYPTO_IO_H_
#define TOOLS_PELMORA_CRYPTO_IO_H_

#include <sys/types.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace pelmora_tool {

using Bytes = std::vector<uint8_t>;

// A failure that ends a command with exit status 2 and the message on standard error.
class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// All bytes of `path`, or of standard input when `path` is "-" or empty. Throws CommandError
// when the file cannot be read. Blocks until end of input.
Bytes ReadSource(const std::string& path);

// Writes `data` to `path` (standard output for "-" or empty), as raw bytes, or as upper-case
// hexadecimal with a line end when `hex` is set. Throws CommandError when it cannot write.
void WriteSink(const std::string& path, const Bytes& data, bool hex);

// Creates `path` with `mode` (never replacing a file there) and writes `data` to it. Throws
// CommandError naming the path when it exists or cannot be written (a part written is removed).
void WriteNewFile(const std::string& path, const Bytes& data, mode_t mode);

// A password: the contents of `password_file` without its trailing line end, else the value of
// PELMORA_PASSWORD, else a line typed at the terminal with echo off after `prompt`. Throws CommandError for
// an unreadable file, an empty password, or no file and no terminal. Blocks while prompting.
Bytes ReadPassword(const std::string& password_file, const std::string& prompt);

// Overwrites the bytes of a secret with zeros (not optimised away), then empties it.
void Wipe(Bytes& secret);

}  // namespace pelmora_tool

#endif  // TOOLS_PELMORA_CRYPTO_IO_H_
