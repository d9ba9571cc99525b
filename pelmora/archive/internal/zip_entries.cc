// The zip run's entries: spooling data, adding files and folders, Unix attributes and extra
// fields, messages and the service callback.
#include <fmt/format.h>
#include <sys/stat.h>

#include "pelmora/archive/internal/zip_fields.h"
#include "pelmora/archive/internal/zip_run.h"

namespace pelmora::archive::internal {

void ZipRun::Announce(const Step& step, const std::string& tail) const {
  if (options_.quiet != 0) return;
  const char* verb = step.action == Action::kAdd ? "  adding: "
                     : options_.freshen != 0     ? "freshening: "
                                                 : "updating: ";
  Print(verb + step.item.name);
  Print(tail);
}

bool ZipRun::Consume(const Step& step, Compressed&& result) {
  if (step.action == Action::kSkip) return true;
  if (step.item.is_folder) return AddFolder(step);
  if (result.out_of_memory) {
    failure_ = kZipMem;
    return false;
  }
  SpooledData spooled;
  if (static_cast<uint64_t>(step.item.st.st_size) > kInMemoryLimit) {
    if (!SpoolLarge(step.item, result, spooled) && result.readable) return false;
  } else if (result.readable) {
    spooled = {spool_->End(), result.data.size(), result.stored, result.crc, result.size, 0};
    if (!spool_->Append(result.data)) {
      failure_ = kZipTemp;
      return false;
    }
  }
  if (!result.readable) {
    Announce(step, "\n");
    Warn("could not open for reading: " + step.item.name);
    unreadable_ = true;
    return true;
  }
  spooled.mtime = RoundUpToEven(step.item.st.st_mtime);
  if (!AddData(step, spooled)) return false;
  Announce(step, spooled.stored ? " (stored 0%)\n"
                                : fmt::format(" (deflated {}%)\n",
                                              ZipPercent(spooled.size, spooled.length)));
  if (callbacks_.service && callbacks_.service(step.item.name, spooled.size) != 0) {
    aborted_ = true;
    return false;
  }
  return true;
}

bool ZipRun::SpoolLarge(const PlanItem& item, Compressed& meta, SpooledData& spooled) {
  uint64_t start = spool_->End();
  uint64_t compressed = 0;
  auto append = [&](std::span<const uint8_t> bytes) { return spool_->Append(bytes); };
  bool ok = CompressStreaming(item.path, level_, append, meta, compressed);
  bool store = ok && (level_ == 0 || compressed >= meta.size);
  if (store) ok = spool_->Truncate(start) && CopyStreaming(item.path, append, meta);
  if (!ok) {
    if (meta.readable) failure_ = kZipTemp;
    return false;
  }
  spooled = {start, spool_->End() - start, store, meta.crc, meta.size, 0};
  return true;
}

bool ZipRun::AddData(const Step& step, const SpooledData& spooled) {
  zip_source_t* source = MakeSpoolSource(archive_, spool_, spooled);
  zip_int64_t index = source == nullptr ? -1
                                        : zip_file_add(archive_, step.item.name.c_str(), source,
                                                       ZIP_FL_ENC_GUESS | ZIP_FL_OVERWRITE);
  if (index < 0) {
    if (source != nullptr) zip_source_free(source);
    failure_ = kZipMem;
    return false;
  }
  auto i = static_cast<zip_uint64_t>(index);
  if (spooled.stored) zip_set_file_compression(archive_, i, ZIP_CM_STORE, 0);
  else zip_set_file_compression(archive_, i, ZIP_CM_DEFAULT, 0);
  SetUnixFields(i, step.item);
  if (!password_.empty()) {
    zip_file_set_encryption(archive_, i, ZIP_EM_TRAD_PKWARE, password_.c_str());
  }
  return true;
}

bool ZipRun::AddFolder(const Step& step) {
  zip_int64_t index = step.action == Action::kReplace
                          ? zip_name_locate(archive_, step.item.name.c_str(), 0)
                          : zip_dir_add(archive_, step.item.name.c_str(), ZIP_FL_ENC_GUESS);
  if (index < 0) {
    failure_ = kZipMem;
    return false;
  }
  auto i = static_cast<zip_uint64_t>(index);
  zip_file_set_mtime(archive_, i, static_cast<time_t>(RoundUpToEven(step.item.st.st_mtime)), 0);
  SetUnixFields(i, step.item);
  Announce(step, " (stored 0%)\n");
  return true;
}

void ZipRun::SetUnixFields(zip_uint64_t index, const PlanItem& item) {
  uint32_t mode = static_cast<uint32_t>(item.st.st_mode);
  uint32_t dos = (item.is_folder ? 0x10u : 0u) | ((mode & S_IWUSR) == 0 ? 1u : 0u);
  zip_file_set_external_attributes(archive_, index, 0, ZIP_OPSYS_UNIX, (mode << 16) | dos);
  // A replaced entry keeps its old extra fields unless they are removed.
  for (uint16_t id : {kUnixTimeFieldId, kUnixOwnerFieldId}) {
    zip_file_extra_field_delete_by_id(archive_, index, id, ZIP_EXTRA_FIELD_ALL,
                                      ZIP_FL_LOCAL | ZIP_FL_CENTRAL);
  }
  if (options_.no_extra != 0) return;
  auto set = [&](uint16_t id, const std::vector<uint8_t>& body, zip_flags_t where) {
    zip_file_extra_field_set(archive_, index, id, ZIP_EXTRA_FIELD_NEW, body.data(),
                             static_cast<zip_uint16_t>(body.size()), where);
  };
  set(kUnixTimeFieldId, BuildLocalUnixTime(item.st.st_mtime, item.st.st_atime), ZIP_FL_LOCAL);
  set(kUnixTimeFieldId, BuildCentralUnixTime(item.st.st_mtime), ZIP_FL_CENTRAL);
  std::vector<uint8_t> owner = BuildUnixOwner(item.st.st_uid, item.st.st_gid);
  set(kUnixOwnerFieldId, owner, ZIP_FL_LOCAL);
  set(kUnixOwnerFieldId, owner, ZIP_FL_CENTRAL);
}

}  // namespace pelmora::archive::internal
