// A file layer that fails chosen calls, for testing what a disk-full or a failing disk does to
// the code that writes files.
//
// While a FaultFileApi exists it is installed for the whole process (pelmora::platform::
// SetFileFaults) and counts the open, read, write, fsync and rename calls that go through
// pelmora/platform/file_io.h. An armed fault makes the Nth call of a kind fail with a chosen errno
// without reaching the system, or every call of a kind from the Nth on (a disk that stays full):
//
//   pelmora::testing::FaultFileApi faults;
//   faults.FailFrom(FileCall::kWrite, faults.Calls(FileCall::kWrite) + 1, ENOSPC);
//   EXPECT_FALSE(store.Write(...));
//
// Restrict(folder) limits counting and failing to the files under one folder (the disk that is
// full), so that other files the process writes meanwhile (its log, say) go on as usual.
// Only one may exist at a time.
#ifndef PELMORA_TESTING_FAULT_FILE_API_H_
#define PELMORA_TESTING_FAULT_FILE_API_H_

#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/platform/file_io.h"

namespace pelmora::testing {

using platform::FileCall;

class FaultFileApi final : public platform::FileFaults {
 public:
  FaultFileApi();
  ~FaultFileApi() override;
  FaultFileApi(const FaultFileApi&) = delete;
  FaultFileApi& operator=(const FaultFileApi&) = delete;

  // The `nth` call of `kind` (1-based, counted since creation) fails with `error`.
  void FailCall(FileCall kind, int nth, int error);
  // The next call of `kind` fails with `error`.
  void FailNext(FileCall kind, int error) { FailCall(kind, Calls(kind) + 1, error); }
  // Every call of `kind` from the `nth` on fails with `error`.
  void FailFrom(FileCall kind, int nth, int error);
  // Every call of `kind` from the next on fails with `error`.
  void FailFromNext(FileCall kind, int error) { FailFrom(kind, Calls(kind) + 1, error); }
  // Lets every call through again (the counts go on).
  void Clear();
  // From now on only calls on files under `folder` (an absolute path, links resolved) are
  // counted and may fail; the others pass untouched.
  void Restrict(std::string folder);

  // How many calls of `kind` were made so far (failed ones included).
  int Calls(FileCall kind) const;

  int Check(FileCall call, int fd, const char* path) override;

 private:
  // Whether the file a call acts on lies under the folder given to Restrict.
  bool InScope(FileCall call, int fd, const char* path) const;

  mutable std::mutex mutex_;
  std::map<FileCall, int> calls_;
  std::map<std::pair<FileCall, int>, int> faults_;
  std::map<FileCall, std::pair<int, int>> from_;  // kind -> first failing call, errno
  std::string folder_;                            // "" for every file
};

// "write_ENOSPC" and the like: a test name for a failing call.
std::string FaultName(FileCall call, int error);

// The names directly inside `folder`, sorted (empty when it cannot be read): what a failed write
// left behind.
std::vector<std::string> NamesIn(const std::string& folder);

}  // namespace pelmora::testing

#endif  // PELMORA_TESTING_FAULT_FILE_API_H_
