// The zip run: opening, deciding, adding entries, closing.
#include "pelmora/archive/internal/zip_run.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <filesystem>

#include "pelmora/archive/internal/zip_fields.h"

namespace pelmora::archive::internal {
namespace {

std::string FolderOf(const std::string& path) {
  std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

// The modification time of entry `index`: the UT field's when present, else the MS-DOS time.
int64_t EntryTime(zip_t* archive, zip_uint64_t index) {
  uint16_t length = 0;
  const uint8_t* body =
      zip_file_extra_field_get_by_id(archive, index, kUnixTimeFieldId, 0, &length, ZIP_FL_CENTRAL);
  if (body != nullptr) {
    if (auto mtime = ParseUnixTimeField({body, length})) return *mtime;
  }
  zip_stat_t st;
  return zip_stat_index(archive, index, 0, &st) == 0 ? static_cast<int64_t>(st.mtime) : 0;
}

}  // namespace

int ZipPercent(uint64_t size, uint64_t compressed) {
  if (size > 0xffffff) {
    size /= 256;
    compressed /= 256;
  }
  if (size <= compressed) return 0;
  return static_cast<int>((1 + 200 * (size - compressed) / size) / 2);
}

ZipRun::ZipRun(const ZipOptions& options, const ZipCallbacks& callbacks, const ZipTuning& tuning,
               std::string zip_file_name)
    : options_(options), callbacks_(callbacks), tuning_(tuning),
      shown_name_(std::move(zip_file_name)) {
  std::string root = options.root_dir;
  while (root.size() > 1 && (root.back() == '/' || root.back() == '\\')) root.pop_back();
  path_ = root.empty() || (!shown_name_.empty() && shown_name_.front() == '/')
              ? shown_name_
              : root + "/" + shown_name_;
  if (options.level >= '0' && options.level <= '9') level_ = options.level - '0';
}

ZipRun::~ZipRun() {
  if (archive_ != nullptr) zip_discard(archive_);
}

void ZipRun::Print(const std::string& text) const {
  if (callbacks_.print) callbacks_.print(text);
}

void ZipRun::Warn(const std::string& text) const {
  if (options_.quiet == 0) Print("\tzip warning: " + text + "\n");
}

int ZipRun::Fail(int code, const std::string& context) {
  Print(fmt::format("\nzip error: {} ({})\n", ZipErrorText(code), context));
  return code;
}

int ZipRun::AskPassword() {
  if (options_.encrypt == 0) return kZipOk;
  if (!callbacks_.password) return Fail(kZipParms, "no password callback");
  int rc = callbacks_.password(password_, "Enter password: ", shown_name_);
  if (rc < 0) return Fail(kZipParms, "password not entered");
  if (rc > 0) return Fail(rc, "was getting password");
  if (password_.empty()) return Fail(kZipParms, "zero length password not allowed");
  std::string again;
  rc = callbacks_.password(again, "Verify password: ", shown_name_);
  if (rc == kPasswordCancel) return kZipOk;
  if (rc > 0) return Fail(rc, "was getting password");
  if (rc < 0 || again != password_) return Fail(kZipParms, "password verification failed");
  return kZipOk;
}

int ZipRun::OpenArchive() {
  struct stat st {};
  bool exists = stat(path_.c_str(), &st) == 0;
  if (!exists && (options_.update != 0 || options_.freshen != 0)) {
    Warn(shown_name_ + " not found or empty");
  }
  int error = 0;
  archive_ = zip_open(path_.c_str(), exists ? 0 : ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (archive_ != nullptr) return kZipOk;
  if (error == ZIP_ER_NOZIP || error == ZIP_ER_INCONS) {
    Warn("missing end signature--probably not a zip file (did you");
    Warn("remember to use binary mode when you transferred it?)");
    Warn("(if you are trying to read a damaged archive try -F)");
    return Fail(kZipForm, shown_name_);
  }
  return Fail(exists ? kZipName : kZipCreate, shown_name_);
}

ZipRun::Action ZipRun::Decide(const PlanItem& item) const {
  zip_int64_t index = zip_name_locate(archive_, item.name.c_str(), 0);
  bool newer_only = options_.update != 0 || options_.freshen != 0;
  if (index < 0) return options_.freshen != 0 ? Action::kSkip : Action::kAdd;
  if (!newer_only) return Action::kReplace;
  if (item.is_folder) return Action::kSkip;
  int64_t entry_time = RoundUpToEven(EntryTime(archive_, static_cast<zip_uint64_t>(index)));
  return RoundUpToEven(item.st.st_mtime) > entry_time ? Action::kReplace : Action::kSkip;
}

int ZipRun::Run(const std::vector<std::string>& names) {
  if (int rc = AskPassword(); rc != kZipOk) return rc;
  std::vector<std::string> unmatched;
  std::string root = options_.root_dir;
  while (root.size() > 1 && (root.back() == '/' || root.back() == '\\')) root.pop_back();
  PlanRules rules{root, options_.recurse != 0, options_.junk_dir != 0,
                  options_.no_dir_entries == 0};
  std::vector<PlanItem> plan = BuildPlan(names, rules, unmatched);
  for (const std::string& name : unmatched) Warn("name not matched: " + name);
  if (plan.empty()) return Fail(kZipNothingToDo, shown_name_);
  if (int rc = OpenArchive(); rc != kZipOk) return rc;
  return AddAll(std::move(plan));
}

int ZipRun::AddAll(std::vector<PlanItem> plan) {
  std::vector<Step> steps;
  std::vector<CompressJob> jobs;
  bool any = false;
  for (PlanItem& item : plan) {
    Action action = Decide(item);
    any = any || action != Action::kSkip;
    bool in_memory = action != Action::kSkip && !item.is_folder &&
                     static_cast<uint64_t>(item.st.st_size) <= kInMemoryLimit;
    jobs.push_back({item.path, static_cast<uint64_t>(item.st.st_size), !in_memory});
    steps.push_back({std::move(item), action});
  }
  if (!any) {
    bool newer_only = options_.update != 0 || options_.freshen != 0;
    return newer_only ? kZipNothingToDo : Fail(kZipNothingToDo, shown_name_);
  }
  spool_ = Spool::Create(FolderOf(path_));
  if (!spool_) return Fail(kZipTemp, shown_name_);
  CompressInOrder(jobs, level_, tuning_.threads, tuning_.window_bytes,
                  [&](size_t i, Compressed&& result) { return Consume(steps[i], std::move(result)); });
  if (aborted_) return Fail(kZipAbort, "User terminated operation");
  if (failure_ != 0) return Fail(failure_, shown_name_);
  return Close();
}

int ZipRun::Close() {
  if (options_.comment != 0 && callbacks_.comment) {
    int length = 0;
    const char* old = zip_get_archive_comment(archive_, &length, ZIP_FL_ENC_RAW);
    std::string comment = old == nullptr ? "" : std::string(old, static_cast<size_t>(length));
    callbacks_.comment(comment);
    zip_set_archive_comment(archive_, comment.data(),
                            static_cast<zip_uint16_t>(std::min<size_t>(comment.size(), 65535)));
  }
  if (zip_close(archive_) != 0) {
    int error = zip_error_code_zip(zip_get_error(archive_));
    return Fail(error == ZIP_ER_TMPOPEN ? kZipTemp : kZipWrite, shown_name_);
  }
  archive_ = nullptr;
  return unreadable_ ? kZipOpen : kZipOk;
}

}  // namespace pelmora::archive::internal
