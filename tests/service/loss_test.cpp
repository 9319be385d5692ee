/*
 * The cache over a cloud in memory, in one process: what it must not lose, and whom one slow or
 * failing call must not hold up. An end of the service is the end of a Cache.
 */
#include <windows.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <future>
#include <set>

#include "cloud_player.h"
#include "files/open_files.h"
#include "names/folded_path.h"
#include "ox_errno.h"
#include "script.h"
#include "test_folder.h"
#include "uuid_text.h"
#include "wide_text.h"

namespace {

using namespace tarnd;
namespace fs = std::filesystem;
using std::chrono::milliseconds;

std::atomic<bool> database_is_full = false;

}  // namespace

extern "C" {
int __real_sqlite3_step(sqlite3_stmt* statement);
int __wrap_sqlite3_step(sqlite3_stmt* statement);
int __wrap_sqlite3_step(sqlite3_stmt* statement) {
  return database_is_full ? SQLITE_FULL : __real_sqlite3_step(statement);
}
}

namespace {

/* Rules for one run of the service. */
struct Rules {
  uint64_t cache_size = uint64_t{1} << 30;
  uint64_t keep_free = 0;
  milliseconds wait{2000};
};

class Cache {
 public:
  Cache(MemoryCloud& cloud, const TestFolder& folder, Rules rules = {})
      : cloud_(cloud),
        folder_(folder.path() / "files"),
        limits_(rules.cache_size, rules.keep_free, [] { return uint64_t{1000}; }),
        reads_(
            cloud, [] { return nullptr; }, 2),
        env_{cloud,
             store_,
             reads_,
             counters_,
             [] { return CloudContext(); },
             folder_.wstring(),
             4,
             rules.wait,
             [this](uint64_t bytes) { return limits_.may_fetch(bytes); },
             [this](uint64_t bytes) { limits_.grow(bytes); }},
        files_(env_, limits_, "me", 2) {
    fs::create_directory(folder_);
    std::vector<FileRecord> records;
    EXPECT_EQ(store_.open(folder / "state.db", &records), 0);
    files_.recover(std::move(records));
  }
  ~Cache() {
    for (const HANDLE handle : handles_) {
      CloseHandle(handle);
    }
  }

  OpenFiles* operator->() { return &files_; }

  struct Opened {
    int error = -1;
    std::shared_ptr<tarnd::OpenFile> open;
    HANDLE handle = nullptr;

    FileOpen* part() const { return &open->part; }
    CachedFile& file() const { return *open->file; }
  };
  Opened open(const std::string& path, bool truncate = false) {
    Opened opened{0, std::make_shared<tarnd::OpenFile>()};
    opened.open->id = new_id();
    opened.open->access = ACCESS_READ | ACCESS_WRITE;
    opened.open->share = SHARE_MASK;
    CloudEntry entry;
    FileView view;
    const bool create = files_.look_up(path, &entry) == OX_ENOENT;
    entry.path = create ? path : entry.path;
    opened.error = files_.add(opened.open, entry, opened.open->access);
    EXPECT_EQ(opened.error, 0);
    opened.error = opened.file().attach(opened.part(), path,
                                        {GetCurrentProcess(), truncate, create, entry}, &view);
    if (opened.error != 0) {
      files_.remove(*opened.open);
      return opened;
    }
    opened.handle = reinterpret_cast<HANDLE>(view.handle);
    handles_.push_back(opened.handle);
    return opened;
  }
  /* As a client does: reported, then written through its own handle. */
  int write(const Opened& opened, const std::string& data) {
    RegionAnswer answer;
    const int err = opened.file().dirty_regions(opened.part(), 0, data.size(), &answer);
    return err != 0 ? err : write_silently(opened, data);
  }
  static int write_silently(const Opened& opened, const std::string& data) {
    OVERLAPPED start = {};
    const auto size = static_cast<DWORD>(data.size());
    return WriteFile(opened.handle, data.data(), size, nullptr, &start) != 0 ? 0 : OX_EIO;
  }
  int close(const Opened& opened, Closing how = Closing::MODIFIED) {
    const int err = opened.file().detach(opened.part(), how);
    if (err == 0) {
      files_.remove(*opened.open);
      std::erase(handles_, opened.handle);
      CloseHandle(opened.handle);
    }
    return err;
  }
  int fetch(const Opened& opened, uint64_t length) {
    RegionAnswer answer;
    return opened.file().cache_regions(opened.part(), 0, length, false, &answer);
  }
  int rename(const std::string& from, const std::string& to) {
    const auto held =
        files_.reservations().reserve({{folded_path(from), true}, {folded_path(to), true}});
    CloudEntry entry;
    const int err = files_.look_up(from, &entry);
    return err != 0 ? err : files_.rename(entry, from, to);
  }
  /* Until nothing waits for the cloud any more. */
  bool settles() {
    for (int tries = 0; tries < 1000 && files_.unsaved() != 0; tries++) {
      Sleep(10);
    }
    return files_.unsaved() == 0;
  }

 private:
  MemoryCloud& cloud_;
  const fs::path folder_;
  std::vector<HANDLE> handles_;
  StateStore store_;
  Counters counters_;
  CacheLimits limits_;
  TransferEngine reads_;
  CacheEnvironment env_;
  OpenFiles files_;
};

/* loss.txt. FILE is a name that the script gives an open. */
class LossScript : public testing::TestWithParam<ScriptCase> {
 protected:
  LossScript() {
    add_service();
    add_opens();
    add_looks();
  }
  ~LossScript() override { database_is_full = false; }

  static bool changes(CloudCall call) { return call == CloudCall::PUT || call == CloudCall::PATCH; }
  std::vector<fs::path> local_files() const {
    std::vector<fs::path> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder_.path() / "files")) {
      if (entry.is_regular_file() && entry.path().parent_path().filename() != "kept") {
        files.push_back(entry);
      }
    }
    return files;
  }
  size_t kept() const {
    const fs::path kept = folder_.path() / "files" / "kept";
    return fs::is_directory(kept) ? std::distance(fs::directory_iterator(kept), {}) : 0;
  }
  /* The content of the one file beside those with these names. */
  std::string beside(const std::string& name) {
    std::string found;
    const auto look = [&](const CloudEntry& entry) {
      found = entry.name.starts_with(name + " (conflict of me ") ? entry.name : found;
      return true;
    };
    EXPECT_TRUE(cloud_.list({}, "", look).ok());
    return cloud_.content(found);
  }

  using Open = const Cache::Opened&;
  void add(const char* name, std::function<int(Open file, Args a)> call) {
    commands_.add(name, [=, this](Args a) { return error_name(call(opens_.at(a[0]), a)); });
  }
  void flatten(std::string* local) const {
    const fs::path files = folder_.path() / "files";
    const std::string name = fs::path(*local).filename().string();
    if (!local->empty()) {
      fs::rename(files / *local, files / name);
      *local = name;
    }
  }
  void add_service();
  void add_opens();
  void add_looks();
  void stop() {
    opens_.clear();
    cache_.reset();
  }
  /* start [wait=MS] [size=BYTES] [keep_free=BYTES]: ends the one before. */
  void start(Args a) {
    stop();
    const Rules rules = {a.option("size", 1 << 30), a.option("keep_free", 0),
                         milliseconds(a.option("wait", 2000))};
    cache_ = std::make_unique<Cache>(cloud_, folder_, rules);
  }
  std::string open(Args a);
  int close(Args a);
  /* The sizes of the local files. */
  std::string local() const {
    std::multiset<uintmax_t> sizes;
    for (const fs::path& file : local_files()) {
      sizes.insert(fs::file_size(file));
    }
    return testing::PrintToString(sizes);
  }

  TestFolder folder_;
  MemoryCloud cloud_;
  Commands commands_;
  CloudPlayer player_{cloud_};
  std::unique_ptr<Cache> cache_;
  std::map<std::string, Cache::Opened> opens_;
  std::atomic<bool> away_ = false;
  std::atomic<uint64_t> calls_ = 0;
  std::promise<void> go_;
  std::future<int> begun_; /* a call on a thread of its own */
};

void LossScript::add_service() {
  commands_.add("start", [this](Args a) { start(a); });
  commands_.add("stop", [this](Args) { stop(); });
  commands_.add("cloud", [this](Args a) { cloud_.set(a[0], a[1]); });
  commands_["cloud_folder"] = player_.commands().at("folder");
  commands_["cloud_rename"] = player_.commands().at("rename");
  /* What uploads are answered with from now on, as the code is named. */
  commands_.add("uploads", [this](Args a) {
    auto code = CloudCode::OK;
    while (a[0] != name_of(code)) {
      code = static_cast<CloudCode>(static_cast<int>(code) + 1);
    }
    const bool busy = code == CloudCode::BUSY;
    cloud_.after = nullptr;
    cloud_.before = [=](CloudCall call, const std::string&) {
      return !changes(call) ? CloudResult()
             : busy         ? CloudResult::busy(milliseconds(1))
                            : CloudResult::of(code);
    };
  });
  commands_.add("database", [](Args a) { database_is_full = a.has("full"); });
  commands_.add("settles", [this](Args) {
    (*cache_)->uploads().kick();
    return cache_->settles();
  });
  commands_.add("trim", [this](Args) { (*cache_)->trim(); });
  /* As a service left it that had all local files in one folder. */
  commands_.add("flat_layout", [this](Args) {
    StateStore store;
    std::vector<FileRecord> records;
    EXPECT_EQ(store.open(folder_ / "state.db", &records), 0);
    for (FileRecord& record : records) {
      flatten(&record.local);
      EXPECT_EQ(store.save({&record}, {}, Durability::POWER), 0);
    }
  });
  /* What a loss of power does to the local files. */
  commands_.add("cut_local", [this](Args a) {
    for (const fs::path& file : local_files()) {
      fs::resize_file(file, a.number(0));
    }
  });
  /* A rename has no answer, and from then on nobody reaches the cloud. */
  commands_.add("lose_rename", [this](Args) {
    cloud_.before = [this](CloudCall call, const std::string&) {
      const bool is_rename = call == CloudCall::RENAME;
      away_ = away_ || is_rename;
      return is_rename                ? CloudResult::of(CloudCode::UNKNOWN_OUTCOME)
             : away_ || changes(call) ? CloudResult::of(CloudCode::OFFLINE)
                                      : CloudResult();
    };
  });
  /* An upload arrives and has no answer; the others reach nobody. */
  commands_.add("lose_upload", [this](Args) {
    cloud_.after = [this] { return away_ = true, CloudResult::of(CloudCode::UNKNOWN_OUTCOME); };
    cloud_.before = [this](CloudCall call, const std::string&) {
      return CloudResult::of(away_ && changes(call) ? CloudCode::OFFLINE : CloudCode::OK);
    };
  });
  /* The call of the cloud with this number fails, from 0. */
  commands_.add("fail_call", [this](Args a) {
    calls_ = 0;
    cloud_.before = [this, failing = a.number(0)](CloudCall, const std::string&) {
      return calls_++ == failing ? CloudResult::of(CloudCode::OFFLINE) : CloudResult();
    };
  });
  /* The next upload of a path that begins so waits for "go". */
  commands_.add("hold_upload", [this](Args a) {
    cloud_.before = [this, start = a[0]](CloudCall call, const std::string& path) {
      if (changes(call) && path.starts_with(start) && calls_++ == 0) {
        go_.get_future().wait();
      }
      return CloudResult();
    };
  });
  commands_.add("go", [this](Args) { go_.set_value(); });
  commands_.add("calls", [this](Args) { return calls_.load(); });
  commands_.add("folder_of_kept",
                [this](Args) { fs::create_directories(folder_.path() / "files" / "kept"); });
}

std::string LossScript::open(Args a) {
  const Cache::Opened opened = cache_->open(a[1], a.has("truncate"));
  if (opened.error == 0) {
    opens_[a[0]] = opened;
  }
  return error_name(opened.error);
}

int LossScript::close(Args a) {
  const Closing how = a.has("died")         ? Closing::CLIENT_DIED
                      : a.has("unmodified") ? Closing::UNMODIFIED
                                            : Closing::MODIFIED;
  const int err = cache_->close(opens_.at(a[0]), how);
  if (err == 0) {
    opens_.erase(a[0]);
  }
  return err;
}

void LossScript::add_opens() {
  commands_.add("open", [this](Args a) { return open(a); });
  commands_.add("close", [this](Args a) { return error_name(close(a)); });
  add("write", [this](Open file, Args a) { return cache_->write(file, a[1]); });
  add("write_silently", [](Open file, Args a) { return Cache::write_silently(file, a[1]); });
  add("truncate", [](Open o, Args a) { return o.file().truncate(o.part(), a.number(1)); });
  add("clean_up", [this](Open file, Args) { return (*cache_)->clean_up(*file.open), 0; });
  commands_.add("rename", [this](Args a) { return error_name(cache_->rename(a[0], a[1])); });
  commands_.add("begin_rename", [this](Args a) {
    begun_ = std::async(std::launch::async, &Cache::rename, cache_.get(), a[0], a[1]);
  });
  commands_.add("begin_fetch", [this](Args a) {
    begun_ =
        std::async(std::launch::async, &Cache::fetch, cache_.get(), opens_.at(a[0]), a.number(1));
  });
  commands_.add("has_ended", [this](Args) {
    return begun_.wait_for(milliseconds(50)) == std::future_status::ready;
  });
  commands_.add("end", [this](Args) { return error_name(begun_.get()); });
  commands_.add("is_one_file", [this](Args a) {
    return opens_.at(a[0]).open->file == opens_.at(a[1]).open->file;
  });
  add("fetch", [this](Open file, Args a) { return cache_->fetch(file, a.number(1)); });
}

void LossScript::add_looks() {
  commands_.add("content", [this](Args a) { return as_word(cloud_.content(a[0])); });
  commands_.add("beside", [this](Args a) { return as_word(beside(a[0])); });
  commands_.add("files", [this](Args) { return cloud_.files(); });
  commands_.add("kept", [this](Args) { return kept(); });
  commands_.add("local", [this](Args) { return local(); });
  commands_.add("unsaved", [this](Args) { return (*cache_)->unsaved(); });
}

TEST_P(LossScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, LossScript, testing::ValuesIn(script_cases("loss")), case_name);

}  // namespace
