// The header block of an HTTP response as the transfer receives it, line by line.
//
// Lines arrive as the server sent them (with CR LF, bare LF or no line end). A status line
// ("HTTP/...") starts a new block, so after redirects and interim (1xx) responses only the final
// block is kept. Folded continuation lines are dropped. The block reads back in the raw form
// (status line first, every header in arrival order with duplicates, each line ended by CR LF and
// one empty line at the end) or by name (the value of the n-th occurrence, blanks trimmed).
//
//   ResponseHeaders h;
//   h.AddLine("HTTP/1.1 200 OK\r\n");
//   h.AddLine("X-Dup: first\r\n");
//   h.AddLine("\r\n");
//   h.Raw();           // "HTTP/1.1 200 OK\r\nX-Dup: first\r\n\r\n"
//   h.Find("x-dup");   // "first"
#ifndef PELMORA_NET_INTERNAL_HTTP_HEADERS_H_
#define PELMORA_NET_INTERNAL_HTTP_HEADERS_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora::net_internal {

class ResponseHeaders {
 public:
  // Adds one received line. Returns true when the line ends a header block (the empty line).
  bool AddLine(std::string_view line);

  // Forgets every line.
  void Clear();

  // The status code of the current block's status line (0 without one or when it is not a
  // three-digit number).
  int32_t Status() const { return status_; }

  // Whether the current block has ended with its empty line.
  bool Ended() const { return ended_; }

  // The raw block: each line ended by CR LF, then one empty line. Empty when nothing arrived.
  std::string Raw() const;

  // The value of the `index`-th header named `name` (any case), blanks trimmed; nullopt when
  // there is no such occurrence.
  std::optional<std::string> Find(std::string_view name, size_t index = 0) const;

 private:
  std::vector<std::string> lines_;
  int32_t status_ = 0;
  bool ended_ = false;
};

// Adds a caller's request header lines (separated by CR LF or LF) to `lines` ("Name: value"
// entries) with the add-or-replace rule: a line whose name (any case) is already present takes
// that entry's place, any other line is added at the end, so each name goes out once with the
// last value given. A line with an empty value becomes "Name:", which sends no such header at all.
// Lines without a colon are ignored.
void AddOrReplaceHeaders(std::vector<std::string>& lines, std::string_view caller_lines);

// The status code of a status line ("HTTP/1.1 404 Not Found" gives 404), 0 when malformed.
int32_t ParseStatusCode(std::string_view status_line);

}  // namespace pelmora::net_internal

#endif  // PELMORA_NET_INTERNAL_HTTP_HEADERS_H_
