// One run of the zip engine: password, plan, open, parallel compression into the spool, entries
// with their attributes and extra fields, messages, close.
#ifndef PELMORA_ARCHIVE_INTERNAL_ZIP_RUN_H_
#define PELMORA_ARCHIVE_INTERNAL_ZIP_RUN_H_

#include <zip.h>

#include <memory>
#include <string>
#include <vector>

#include "pelmora/archive/internal/ordered_compressor.h"
#include "pelmora/archive/internal/spool_source.h"
#include "pelmora/archive/internal/zip_plan.h"
#include "pelmora/archive/zip_engine.h"

namespace pelmora::archive::internal {

// zip's percentage of `size` saved by `compressed`.
int ZipPercent(uint64_t size, uint64_t compressed);

class ZipRun {
 public:
  ZipRun(const ZipOptions& options, const ZipCallbacks& callbacks, const ZipTuning& tuning,
         std::string zip_file_name);
  ~ZipRun();

  // Runs the whole of it; the zip return code.
  int Run(const std::vector<std::string>& names);

 private:
  enum class Action { kSkip, kAdd, kReplace };
  // One plan item with what to do with it.
  struct Step {
    PlanItem item;
    Action action = Action::kSkip;
  };

  void Print(const std::string& text) const;
  void Warn(const std::string& text) const;
  int Fail(int code, const std::string& context);
  int AskPassword();
  int OpenArchive();
  Action Decide(const PlanItem& item) const;
  int AddAll(std::vector<PlanItem> plan);
  bool Consume(const Step& step, Compressed&& result);
  bool SpoolLarge(const PlanItem& item, Compressed& meta, SpooledData& spooled);
  bool AddData(const Step& step, const SpooledData& spooled);
  bool AddFolder(const Step& step);
  void SetUnixFields(zip_uint64_t index, const PlanItem& item);
  void Announce(const Step& step, const std::string& tail) const;
  int Close();

  const ZipOptions& options_;
  const ZipCallbacks& callbacks_;
  ZipTuning tuning_;
  std::string shown_name_;
  std::string path_;
  int level_ = 6;
  std::string password_;
  zip_t* archive_ = nullptr;
  std::shared_ptr<Spool> spool_;
  bool unreadable_ = false;
  bool aborted_ = false;
  int failure_ = 0;
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_ZIP_RUN_H_
