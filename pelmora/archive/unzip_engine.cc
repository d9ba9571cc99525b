// RunUnzip: opens the archive, reads what each entry needs, and drives the run.
#include "pelmora/archive/unzip_engine.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <optional>

#include "pelmora/archive/internal/unzip_run.h"

namespace pelmora::archive {
namespace {

using internal::CentralFlags;
using internal::EntryInfo;
using internal::UnzipRun;

struct ZipCloser {
  void operator()(zip_t* archive) const { zip_discard(archive); }
};
using ZipPtr = std::unique_ptr<zip_t, ZipCloser>;

constexpr char kNoDirectoryText[] =
    "  End-of-central-directory signature not found.  Either this file is not\n"
    "  a zipfile, or it constitutes one disk of a multi-part archive.  In the\n"
    "  latter case the central directory and zipfile comment will be found on\n"
    "  the last disk(s) of this archive.\n";

// The archive file to open: the name as given, or with ".zip" added.
std::optional<std::string> FindArchive(const std::string& name, uint64_t& size) {
  for (const std::string& candidate : {name, name + ".zip"}) {
    struct stat st {};
    if (stat(candidate.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
      size = static_cast<uint64_t>(st.st_size);
      return candidate;
    }
  }
  return std::nullopt;
}

ZipPtr OpenArchive(const std::string& name, const PrintCallback& print, uint64_t& size,
                   int& code) {
  auto path = FindArchive(name, size);
  code = kUnzipNoZip;
  if (!path) {
    print(fmt::format("UnZip DLL:  cannot find either {} or {}.zip.\n", name, name));
    return nullptr;
  }
  int error = 0;
  ZipPtr archive(zip_open(path->c_str(), ZIP_RDONLY, &error));
  if (archive) return archive;
  if (error == ZIP_ER_NOZIP || error == ZIP_ER_EOF || error == ZIP_ER_READ) {
    print(kNoDirectoryText);
    print(fmt::format("UnZip DLL:  cannot find zipfile directory in {},\n        and cannot find "
                      "{}.zip, period.\n", name, name));
    return nullptr;
  }
  zip_error_t details;
  zip_error_init_with_code(&details, error);
  print(fmt::format("error [{}]:  {}\n", name, zip_error_strerror(&details)));
  zip_error_fini(&details);
  code = error == ZIP_ER_OPEN ? kUnzipNoZip : kUnzipBadErr;
  return nullptr;
}

std::vector<CentralFlags> ReadFlags(const std::string& name, uint64_t size, uint64_t entries) {
  uint64_t ignored = 0;
  auto path = FindArchive(name, ignored);
  internal::UniqueFd fd(path ? open(path->c_str(), O_RDONLY | O_CLOEXEC) : -1);
  if (!fd) return {};
  return internal::ReadCentralFlags(
      [&](uint64_t offset, std::span<uint8_t> out) {
        return pread(fd.get(), out.data(), out.size(), static_cast<off_t>(offset)) ==
               static_cast<ssize_t>(out.size());
      },
      size, entries);
}

void ReadUnixFields(zip_t* archive, EntryInfo& entry) {
  uint8_t opsys = 0;
  uint32_t attributes = 0;
  if (zip_file_get_external_attributes(archive, entry.index, 0, &opsys, &attributes) == 0 &&
      opsys == ZIP_OPSYS_UNIX && (attributes >> 16) != 0) {
    entry.unix_mode_known = true;
    entry.unix_mode = attributes >> 16;
  }
  for (zip_flags_t where : {ZIP_FL_CENTRAL, ZIP_FL_LOCAL}) {
    uint16_t length = 0;
    const uint8_t* body = zip_file_extra_field_get_by_id(
        archive, entry.index, internal::kUnixTimeFieldId, 0, &length, where);
    if (body == nullptr) continue;
    if (auto mtime = internal::ParseUnixTimeField({body, length})) {
      entry.mtime = *mtime;
      return;
    }
  }
}

std::optional<EntryInfo> ReadEntry(zip_t* archive, uint64_t index,
                                   const std::vector<CentralFlags>& flags) {
  zip_stat_t st;
  if (zip_stat_index(archive, index, 0, &st) != 0 || st.name == nullptr) return std::nullopt;
  EntryInfo entry;
  entry.index = index;
  entry.name = st.name;
  entry.size = st.size;
  entry.compressed = st.comp_size;
  entry.crc = st.crc;
  entry.method = st.comp_method;
  entry.encrypted = st.encryption_method != ZIP_EM_NONE;
  entry.mtime = st.mtime;
  if (index < flags.size()) {
    entry.flags_known = true;
    entry.flags = flags[index].flags;
    entry.dos_time = flags[index].dos_time;
    entry.text = (flags[index].internal_attributes & 1) != 0;
  } else {
    entry.dos_time = internal::ToDosTime(st.mtime);  // a local-time conversion: only when needed
  }
  ReadUnixFields(archive, entry);
  return entry;
}

// Which entries the selection takes, and which include names matched nothing.
class Selector {
 public:
  Selector(const EntrySelection& selection, bool case_insensitive)
      : selection_(selection),
        flags_(case_insensitive ? FNM_CASEFOLD : 0),
        matched_(selection.include.size(), false) {}

  bool Takes(const std::string& name) {
    for (const std::string& pattern : selection_.exclude) {
      if (fnmatch(pattern.c_str(), name.c_str(), flags_) == 0) return false;
    }
    if (selection_.include.empty()) return true;
    bool taken = false;
    for (size_t i = 0; i < selection_.include.size(); ++i) {
      if (fnmatch(selection_.include[i].c_str(), name.c_str(), flags_) == 0) {
        matched_[i] = taken = true;
      }
    }
    return taken;
  }

  // Prints the include names that matched nothing; true when there were any.
  bool ReportUnmatched(const PrintCallback& print) const {
    bool any = false;
    for (size_t i = 0; i < matched_.size(); ++i) {
      if (matched_[i]) continue;
      print(fmt::format("caution: filename not matched:  {}\n", selection_.include[i]));
      any = true;
    }
    return any;
  }

 private:
  const EntrySelection& selection_;
  int flags_;
  std::vector<bool> matched_;
};

void PrintComment(const UnzipCallbacks& callbacks, zip_t* archive) {
  int length = 0;
  const char* comment = zip_get_archive_comment(archive, &length, ZIP_FL_ENC_RAW);
  if (comment != nullptr && length > 0) {
    callbacks.print(std::string(comment, static_cast<size_t>(length)) + "\n\n");
  }
}

// Lists, tests or extracts the selected entries of an open archive in order.
int ProcessEntries(zip_t* archive, uint64_t count, const std::vector<CentralFlags>& flags,
                   const DecompressionControl& dcl, const UnzipCallbacks& callbacks,
                   const EntrySelection& selection, UnzipRun& run) {
  Selector selector(selection, dcl.case_insensitive != 0);
  bool listing = dcl.list != 0 || dcl.zipinfo != 0;
  if (!listing && !run.OpenFolder()) return run.Code();
  for (uint64_t i = 0; i < count; ++i) {
    auto entry = ReadEntry(archive, i, flags);
    if (!entry) {
      run.Drain();
      callbacks.print(fmt::format("error:  cannot read entry {} of {}\n", i, dcl.zip_file_name));
      run.Note(kUnzipBadErr);
      continue;
    }
    if (!selector.Takes(entry->name)) continue;
    if (listing && callbacks.message) callbacks.message(internal::MakeListedEntry(*entry));
    if (!listing && !run.ProcessEntry(*entry)) return run.Code();
  }
  if (listing) return kUnzipOk;
  run.Drain();
  if (selector.ReportUnmatched(callbacks.print)) run.Note(kUnzipFind);
  run.Finish(selection.include.empty());
  return run.Code();
}

}  // namespace

int RunUnzip(const DecompressionControl& dcl, const UnzipCallbacks& callbacks,
             const EntrySelection& selection, const ExtractLimits& limits) {
  if (!callbacks.print || !callbacks.replace) return kUnzipBadErr;
  if (dcl.zip_file_name.empty()) return kUnzipNoZip;
  uint64_t size = 0;
  int code = 0;
  ZipPtr archive = OpenArchive(dcl.zip_file_name, callbacks.print, size, code);
  if (!archive) return code;
  auto count = static_cast<uint64_t>(zip_get_num_entries(archive.get(), 0));
  if (count == 0) {
    callbacks.print(fmt::format("warning [{}]:  zipfile is empty\n", dcl.zip_file_name));
    return kUnzipWarn;
  }
  if (dcl.comment_only != 0) {
    PrintComment(callbacks, archive.get());
    return kUnzipOk;
  }
  std::vector<CentralFlags> flags = ReadFlags(dcl.zip_file_name, size, count);
  if (flags.size() != count) flags.clear();
  UnzipRun run(dcl, callbacks, archive.get(),
               {size, limits.max_total_bytes, limits.max_ratio, limits.ratio_floor, 0});
  return ProcessEntries(archive.get(), count, flags, dcl, callbacks, selection, run);
}

}  // namespace pelmora::archive
