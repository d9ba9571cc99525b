// What every part of the administration client shares besides its connection: the last call's
// error (code and text, 0 and "" after a success), the event sinks, the two levels its log lines
// are written at, and the refusal of a blank text argument.
//
//   ErrorState error;
//   if (!CheckArgument(error, name, "Empty remote file name")) return false;  // 8116
//   Trace(prefix + "** FileExists True", "RSFSO", "FileExists");
#ifndef PELMORA_ADMIN_INTERNAL_CLIENT_STATE_H_
#define PELMORA_ADMIN_INTERNAL_CLIENT_STATE_H_

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelmora/admin/rcfso.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/log.h"

namespace pelmora::admin::internal {

// The outcome of the last call: set by whichever part fails, read through RCFSO's ErrCode and
// ErrDescription.
class ErrorState {
 public:
  void Clear() {
    code_ = 0;
    description_.clear();
  }
  void Set(int32_t code, std::string description) {
    code_ = code;
    description_ = std::move(description);
  }
  // A result reply sets its code always and its text only when it carries one.
  void SetCode(int32_t code) { code_ = code; }
  void SetDescription(std::string description) { description_ = std::move(description); }

  int32_t code() const { return code_; }
  const std::string& description() const { return description_; }

 private:
  int32_t code_ = 0;
  std::string description_;
};

// The sinks of a client's events (not owned), each added once.
class EventSinks {
 public:
  void Add(RCFSOEvents* sink) {
    if (sink != nullptr && std::find(sinks_.begin(), sinks_.end(), sink) == sinks_.end()) {
      sinks_.push_back(sink);
    }
  }
  void Remove(RCFSOEvents* sink) {
    sinks_.erase(std::remove(sinks_.begin(), sinks_.end(), sink), sinks_.end());
  }
  // Hands each sink its own copy of `text`. A sink may remove itself while handling the event,
  // so a copy of the list is walked.
  void Raise(void (RCFSOEvents::*event)(std::string&), const std::string& text) const {
    const std::vector<RCFSOEvents*> sinks = sinks_;
    for (RCFSOEvents* sink : sinks) {
      std::string argument = text;
      (sink->*event)(argument);
    }
  }

 private:
  std::vector<RCFSOEvents*> sinks_;
};

// Progress lines are written from log level 3, failure lines always.
inline void Trace(std::string_view text, std::string_view module, std::string_view routine,
                  int32_t entry_type = 4) {
  WriteLog(3, text, module, routine, entry_type);
}
inline void LogFailure(std::string_view text, std::string_view module, std::string_view routine,
                       int32_t entry_type = 4) {
  WriteLog(1, text, module, routine, entry_type);
}

// False with 8116 and `description` when `value` is empty or only blanks.
inline bool CheckArgument(ErrorState& error, std::string_view value, std::string_view description) {
  if (value.find_first_not_of(' ') != std::string_view::npos) return true;
  error.Set(errors::kEmptyArgument, std::string(description));
  return false;
}

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_CLIENT_STATE_H_
