#include "pelmora/testing/fault_file_api.h"

namespace pelmora::testing {

FaultFileApi::FaultFileApi() { platform::SetFileFaults(this); }

FaultFileApi::~FaultFileApi() { platform::SetFileFaults(nullptr); }

void FaultFileApi::FailCall(FileCall kind, int nth, int error) {
  std::lock_guard lock(mutex_);
  faults_[{kind, nth}] = error;
}

void FaultFileApi::FailFrom(FileCall kind, int nth, int error) {
  std::lock_guard lock(mutex_);
  from_[kind] = {nth, error};
}

void FaultFileApi::Clear() {
  std::lock_guard lock(mutex_);
  faults_.clear();
  from_.clear();
}

int FaultFileApi::Calls(FileCall kind) const {
  std::lock_guard lock(mutex_);
  auto it = calls_.find(kind);
  return it == calls_.end() ? 0 : it->second;
}

int FaultFileApi::Check(FileCall call) {
  std::lock_guard lock(mutex_);
  int nth = ++calls_[call];
  if (auto it = faults_.find({call, nth}); it != faults_.end()) return it->second;
  if (auto it = from_.find(call); it != from_.end() && nth >= it->second.first) {
    return it->second.second;
  }
  return 0;
}

}  // namespace pelmora::testing
