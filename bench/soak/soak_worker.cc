// The soak's client threads and their operation mix (see soak_worker.h).
#include "bench/soak/soak_worker.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <utility>

#include "bench/soak/soak_process.h"
#include "pelmora/admin/rc_file_info.h"

namespace pelmora_soak {
namespace {

using Clock = std::chrono::steady_clock;

// A loaded shared machine is slow, not silent.
constexpr int kReplyTimeoutMs = 60000;

class OutputSink : public pelmora::admin::RCFSOEvents {
 public:
  void CommandOutput(std::string& text) override { output += text; }
  std::string output;
};

}  // namespace

std::string RandomBytes(std::size_t size, std::mt19937_64& random) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; i += 8) {
    uint64_t word = random();
    std::memcpy(bytes.data() + i, &word, std::min<std::size_t>(8, size - i));
  }
  return bytes;
}

void WriteAll(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<long>(bytes.size()));
}

Worker::Worker(int index, int sessions, const Service& service,
               const std::vector<std::string>& shared, const std::string& scratch,
               Counters& counters)
    : index_(index),
      port_(service.port()),
      service_(service),
      shared_(shared),
      scratch_(scratch),
      counters_(counters),
      random_(static_cast<uint64_t>(index) * 7919 + 17) {
  sessions_.resize(static_cast<std::size_t>(sessions));
}

void Worker::Run(Clock::time_point end) {
  for (std::size_t i = 0; i < sessions_.size(); ++i) Login(i);
  counters_.logged_in++;
  while (Clock::now() < end) {
    for (std::size_t i = 0; i < sessions_.size() && Clock::now() < end; ++i) Operate(i);
  }
  for (auto& session : sessions_) {
    if (session) session->Disconnect();
  }
}

std::string Worker::Remote(std::size_t session, const char* kind) const {
  return "C:\\work\\w" + std::to_string(index_) + "s" + std::to_string(session) + kind;
}

std::string Worker::Local(const char* name) const {
  return scratch_ + "/w" + std::to_string(index_) + name;
}

void Worker::Fail(std::size_t session, const std::string& what) {
  pelmora::admin::RCFSO& fso = *sessions_[session];
  counters_.Error("worker " + std::to_string(index_) + " session " + std::to_string(session) +
                  ": " + what + ": " + std::to_string(fso.ErrCode()) + " " + fso.ErrDescription());
  Login(session);  // a broken session is replaced
}

void Worker::Login(std::size_t session) {
  auto fso = std::make_unique<pelmora::admin::RCFSO>();
  fso->set_timeout(kReplyTimeoutMs);
  counters_.logins++;
  if (!fso->Connect("127.0.0.1", port_, kAccount, kPassword, false)) {
    counters_.Error("login: " + std::to_string(fso->ErrCode()) + " " + fso->ErrDescription());
  }
  sessions_[session] = std::move(fso);
}

void Worker::Operate(std::size_t session) {
  pelmora::admin::RCFSO& fso = *sessions_[session];
  counters_.operations++;
  int choice = static_cast<int>(random_() % 100);
  if (choice < 25) {
    pelmora::admin::RCFileInfoCollection entries = fso.GetFolderFiles("C:\\shared");
    counters_.listings++;
    if (entries.Count() != kSharedFiles) Fail(session, "listing");
  } else if (choice < 50) {
    Transfer(session, kSmall, ".small");
  } else if (choice < 53) {
    Transfer(session, kLarge, ".large");
  } else if (choice < 68) {
    std::size_t file = random_() % shared_.size();
    std::string local = Local(".down");
    counters_.downloads++;
    if (!fso.Download(local, "C:\\shared\\f" + std::to_string(file) + ".bin")) {
      Fail(session, "download");
    } else if (ReadAll(local) != shared_[file]) {
      counters_.mismatches++;
    } else {
      counters_.bytes += static_cast<long>(shared_[file].size());
    }
  } else if (choice < 78) {
    OutputSink sink;
    fso.AddEventSink(&sink);
    std::string word = "w" + std::to_string(random_() % 100000);
    counters_.commands++;
    bool ran = fso.SyncCreateProcess("echo " + word + "; echo second line", 30000);
    fso.RemoveEventSink(&sink);
    if (!ran) {
      Fail(session, "command");
    } else if (sink.output.find(word) == std::string::npos ||
               sink.output.find("second line") == std::string::npos) {
      counters_.mismatches++;
    }
  } else if (choice < 84) {
    pelmora::admin::RCFSO wrong;
    wrong.set_timeout(kReplyTimeoutMs);
    counters_.logins++;
    if (wrong.Connect("127.0.0.1", port_, kAccount, "not the password", false) ||
        wrong.ErrCode() != 1326) {
      counters_.Error("wrong password: " + std::to_string(wrong.ErrCode()) + " " +
                      wrong.ErrDescription());
    } else {
      counters_.refusals++;
    }
    wrong.Disconnect();
  } else if (choice < 92) {
    counters_.downloads++;
    if (fso.Download(Local(".missing"), "C:\\shared\\missing.bin") || fso.ErrCode() != 8004) {
      Fail(session, "missing file");
    } else if (fso.FileExists("C:\\shared\\missing.bin") ||
               (fso.ErrCode() != 0 && fso.ErrCode() != 2)) {
      Fail(session, "missing file exists");
    } else {
      counters_.refusals++;
    }
  } else {
    // A new login on this session's slot.
    fso.Disconnect();
    Login(session);
  }
}

// Uploads fresh bytes, checks them on the service's disk and downloads them back.
void Worker::Transfer(std::size_t session, std::size_t size, const char* kind) {
  pelmora::admin::RCFSO& fso = *sessions_[session];
  std::string bytes = RandomBytes(size, random_);
  std::string local = Local(kind);
  WriteAll(local, bytes);
  std::string remote = Remote(session, kind);
  counters_.uploads++;
  if (!fso.Upload(local, remote)) return Fail(session, "upload");
  std::string on_disk =
      service_.Drive("work/w" + std::to_string(index_) + "s" + std::to_string(session) + kind);
  counters_.downloads++;
  std::string back = Local(".back");
  if (!fso.Download(back, remote)) return Fail(session, "download back");
  if (ReadAll(on_disk) != bytes || ReadAll(back) != bytes) counters_.mismatches++;
  counters_.bytes += static_cast<long>(2 * size);
}

}  // namespace pelmora_soak
