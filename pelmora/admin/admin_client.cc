#include "pelmora/admin/admin_client.h"

#include <limits>

#include "pelmora/admin/credentials.h"
#include "pelmora/admin/internal/built_in_secrets.h"
#include "pelmora/admin/internal/server_text.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"

namespace pelmora::admin {
namespace {

// The session time-out a new AdminClient sets, in milliseconds.
constexpr int32_t kSessionTimeout = 10000;
// The margin added to a command's own time-out for the session's receive time-out.
constexpr int32_t kCommandMargin = 1000;
// The library's message for error 9000 (an unknown product code).
constexpr std::string_view kUnknownProductText = "Invalid product code";

std::string ToLowerAscii(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

// Restores the session time-out when a command call ends, whichever way it ends.
class TimeoutRestorer {
 public:
  TimeoutRestorer(RCFSO& fso, int32_t kept) : fso_(fso), kept_(kept) {}
  ~TimeoutRestorer() { fso_.set_timeout(kept_); }
  TimeoutRestorer(const TimeoutRestorer&) = delete;
  TimeoutRestorer& operator=(const TimeoutRestorer&) = delete;

 private:
  RCFSO& fso_;
  int32_t kept_;
};

}  // namespace

AdminClient::AdminClient() {
  LogLevel() = 1;
  fso_.SetLogPath(LibraryFolder() + "/../Log/");
  fso_.set_timeout(kSessionTimeout);
  fso_.AddEventSink(&collector_);
}

AdminClient::~AdminClient() {
  fso_.RemoveEventSink(&collector_);
  fso_.Disconnect();
}

void AdminClient::ClearError() {
  err_number_ = 0;
  err_description_.clear();
}

void AdminClient::SetError(int32_t number, std::string_view description, std::string_view source) {
  err_number_ = number;
  err_description_ = "[" + std::string(source) + "] ";
  if (!product_.empty()) err_description_ += product_ + " - ";
  err_description_ += description;
}

void AdminClient::RecordClientError(std::string_view source) {
  SetError(fso_.ErrCode(), fso_.ErrDescription(), source);
}

bool AdminClient::Connect(std::string_view Host) {
  ClearError();
  // The account is held in its encoded form and sent as it is.
  if (fso_.Connect(Host, service_port_, EncodeCredential(internal::BuiltInAccount()),
                   EncodeCredential(internal::BuiltInPassword()), true)) {
    return true;
  }
  RecordClientError("Connect");
  return false;
}

Date AdminClient::RemoteSystemTime() {
  ClearError();
  const Date now = fso_.GetSystemTime();
  if (now.IsEmpty() && fso_.ErrCode() != 0) RecordClientError("RemoteSystemTime");
  return now;
}

bool AdminClient::RemoteCommandCall(std::string_view sCommandLine, int32_t lTimeout,
                                    std::string_view sPassword, std::string& sStdout,
                                    int32_t& lExitCode) {
  // A wrong access code is not an error of this object: nothing is recorded or sent.
  if (sPassword != internal::BuiltInAccessCode()) return false;
  ClearError();
  command_output_.clear();
  const TimeoutRestorer restorer(fso_, fso_.timeout());
  if (lTimeout > std::numeric_limits<int32_t>::max() - kCommandMargin) {
    SetError(6, RuntimeErrorText(6).value_or("Overflow"), "RemoteCommandCall");
    return false;
  }
  try {
    fso_.set_timeout(lTimeout + kCommandMargin);
  } catch (const Error& e) {
    SetError(e.Number(), e.Description(), "RemoteCommandCall");
    return false;
  }
  if (!fso_.SyncCreateProcess(sCommandLine, lTimeout)) {
    RecordClientError("RemoteCommandCall");
    return false;
  }
  sStdout = command_output_;
  return true;
}

std::string AdminClient::RemoteAppRootPath() {
  ClearError();
  const std::string product = ToLowerAscii(product_);
  if (product != "qel" && product != "vorin") {
    throw Error(errors::kInvalidProductCode, std::string(kUnknownProductText) + ":" + product_,
                "RemoteAppRootPath");
  }
  const std::string path = fso_.GetPathWithKey(product == "qel" ? "QelProgram" : "VorProgram");
  if (path.find_first_not_of(' ') == std::string::npos) {
    throw RuntimeError(76, "RemoteAppRootPath");
  }
  return internal::NormaliseServerPath(path + "\\..\\..");
}

}  // namespace pelmora::admin
