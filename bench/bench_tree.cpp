/*
 * bench_tree FOLDER CPUS ROW...: walks the tree FOLDER\cloud, which tools/bench has made, once
 * through our drive. tools/bench itself walks such a tree through another program's mount by the
 * same steps.
 *
 * Beside it stands what these steps cost at least where our drive runs: for each request a bare
 * exchange over a socket, and the bare calls of the system on the files.
 */
#include <windows.h>

#include "bare_exchange.h"
#include "drive.h"

namespace {

constexpr size_t LISTED = 10'000, SMALL = 100, PAGE = 4096;

/* Nanoseconds of each of `count` calls, in the mean. */
double each(int first, int count, const std::function<void(int)>& call) {
  const double seconds = seconds_of([&] {
    for (int i = first; i < first + count; i++) {
      call(i);
    }
  });
  return seconds * 1e9 / count;
}

/* A step through our drive and what it costs at least, which takes files of its own. */
void row(Bench& bench, const std::string& name, int count, const std::function<void(int)>& ours,
         const std::function<void(int)>& floor) {
  if (bench.wants(name)) {
    const double time = each(0, count, ours);
    bench.samples(name, {time});
    bench.samples(name + ", over the bare calls under Wine", {time}, {each(count, count, floor)});
  }
}

/* The bare calls, with the drive's requests. */
class Floor {
 public:
  explicit Floor(const std::string& folder) : folder_(folder), exchange_(folder + "\\floor.sock") {
    make_folder(folder_ + "\\floor");
  }

  void list(const std::string& path) {
    list_system(in_cloud(path), LISTED);
    exchange_.run(REQUEST, ANSWER + LISTED * sizeof(tnw_fileinfo));
  }
  void look_up(const std::string& path) {
    WIN32_FILE_ATTRIBUTE_DATA data;
    must(GetFileAttributesExA(in_cloud(path).c_str(), GetFileExInfoStandard, &data) != 0,
         "GetFileAttributesEx");
    exchange_.run(REQUEST, STAT_ANSWER);
  }
  /* OPEN, CACHE_REGION and CLOSE: a local file with the content. */
  void read_small(const std::string& path) {
    std::string content(SMALL, ' ');
    transfer(in_cloud(path), OPEN_EXISTING, content);
    cache(content, {OPEN_ANSWER, ANSWER, ANSWER});
  }
  /* OPEN and CLOSE: a local file, and the cloud's file with the content, flushed. */
  void make(const std::string& path, std::string content) {
    transfer(in_cloud(path), CREATE_ALWAYS, content);
    cache(content, {OPEN_ANSWER, ANSWER});
  }

 private:
  std::string in_cloud(const std::string& path) const { return folder_ + "\\cloud" + path; }
  static void make_folder(const std::string& path) {
    must(CreateDirectoryA(path.c_str(), nullptr) != 0, "CreateDirectory");
  }
  /* Reads what is there, makes what is new, and makes and flushes what there may be. */
  static void transfer(const std::string& path, DWORD disposition, std::string& content) {
    const bool reads = disposition == OPEN_EXISTING;
    const auto size = static_cast<DWORD>(content.size());
    DWORD count = 0;
    const HANDLE file = CreateFileA(path.c_str(), reads ? GENERIC_READ : GENERIC_WRITE,
                                    FILE_SHARE_READ, nullptr, disposition, 0, nullptr);
    const BOOL done = reads ? ReadFile(file, content.data(), size, &count, nullptr)
                            : WriteFile(file, content.data(), size, &count, nullptr);
    must(done != 0 && count == size, "a bare file");
    must(disposition != CREATE_ALWAYS || FlushFileBuffers(file) != 0, "FlushFileBuffers");
    CloseHandle(file);
  }
  /* Requests, and a new file of the cache, in one of many folders: in a full one it takes Wine
   * long. */
  void cache(std::string& content, std::initializer_list<size_t> answers) {
    constexpr int FOLDERS = 256;
    const std::string folder = folder_ + "\\floor\\" + std::to_string(cached_ % FOLDERS);
    if (cached_ < FOLDERS) {
      make_folder(folder);
    }
    transfer(folder + '\\' + std::to_string(cached_++), CREATE_NEW, content);
    for (const size_t answer : answers) {
      exchange_.run(REQUEST, answer);
    }
  }

  std::string folder_;
  BareExchange exchange_;
  int cached_ = 0;
};

/* Nanoseconds of a read, in steps through the whole file. */
template <class Read>
double step_through(size_t step, Read read) {
  constexpr int LENGTH = 64 << 20;
  std::vector<char> buffer(step);
  return each(0, LENGTH / static_cast<int>(step),
              [&](int i) { read(buffer.data(), step, static_cast<ox_u64>(i) * step); });
}

void read_rows(Bench& bench, const Drive& drive) {
  const File file(drive, "/big");
  const auto ours = [&](char* to, size_t size, ox_u64 off) { file.read(to, size, off); };
  const auto bare = [&](char* to, size_t size, ox_u64 off) {
    file.transfer_bare(false, to, size, off);
  };
  step_through(1 << 20, ours);
  for (const size_t kib : {4, 64, 1024}) {
    const std::string name = "warm read of 64 MiB, steps of " + std::to_string(kib) + " KiB";
    Pair pair;
    for (int round = 0; round < 5; round++) {
      pair.ours.push_back(step_through(kib << 10, ours));
      pair.peer.push_back(step_through(kib << 10, bare));
    }
    bench.samples(name, pair.ours);
    bench.samples(name + ", against the bare call", pair.ours, pair.peer);
  }
}

/* Our listings always have the attributes. */
void all_rows(Bench& bench) {
  const Drive drive(bench.folder());
  Floor floor(bench.folder());
  const auto list_row = [&](const std::string& name, const std::string& folder) {
    row(
        bench, name, 1, [&](int /*i*/) { drive.list(folder, LISTED); },
        [&](int /*i*/) { floor.list(folder); });
  };
  list_row("list of 10,000", "/list");
  list_row("list of 10,000 with attributes", "/list with attributes");
  row(
      bench, "look at a file not seen before", 1000,
      [&](int i) { drive.look_up(("/look/" + std::to_string(i)).c_str()); },
      [&](int i) { floor.look_up("/look/" + std::to_string(i)); });
  const auto read_small = [&](int i) {
    char content[SMALL];
    File(drive, "/read/" + std::to_string(i), TNW_DISP_OPEN, TNW_ACC_READ).read(content, SMALL);
  };
  row(bench, "open, read, close of 100 bytes", 1000, read_small,
      [&](int i) { floor.read_small("/read/" + std::to_string(i)); });
  const std::string page(PAGE, 'x');
  const auto make = [&](int i) {
    File(drive, "/made/" + std::to_string(i), TNW_DISP_CREATE).write(page.data(), PAGE);
  };
  row(bench, "create, write, close of 4 KiB", 500, make,
      [&](int i) { floor.make("/made/" + std::to_string(i), page); });
  read_rows(bench, drive);
}

}  // namespace

int main(int argc, char** argv) { return run_rows(argc, argv, all_rows); }
