// Helpers for the output of programs the service runs: splitting a byte stream into whole UTF-8
// characters (so a character cut by a read is sent whole with the next piece), and running a short
// command to collect its bounded output (the print queue).
//
//   std::size_t whole = WholeUtf8Prefix(pending);   // send pending.substr(0, whole)
#ifndef PELMORAD_COMMAND_OUTPUT_H_
#define PELMORAD_COMMAND_OUTPUT_H_

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/common/child_process.h"

namespace pelmorad {

// The length of the longest prefix of `bytes` that does not end inside a UTF-8 sequence: a lead
// byte at the end whose continuation bytes have not all arrived is left for later. Bytes that are
// not UTF-8 at all are not held back (at most 3 bytes ever are).
std::size_t WholeUtf8Prefix(std::string_view bytes);

// Runs `launch` and returns its merged output, at most `max_bytes` of it; the process group is
// killed once `limit` has passed or the output is full. nullopt when the command cannot start.
// Blocks for at most `limit` (plus the kill).
std::optional<std::string> RunForOutput(const pelmora::ChildSpec& launch, std::size_t max_bytes,
                                        std::chrono::milliseconds limit);

}  // namespace pelmorad

#endif  // PELMORAD_COMMAND_OUTPUT_H_
