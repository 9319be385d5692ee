#include "kill_rounds.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <random>
#include <thread>

std::string kill_folder(int folder, int place) {
  return "folder " + std::to_string(folder) + (place == 0 ? "" : " moved");
}

std::string kill_path(int file, int folder_place, int file_place) {
  return kill_folder(file % KILL_FOLDERS, folder_place) + "/" + std::to_string(file) +
         (file_place == 0 ? "" : " moved");
}

std::string content_of(int file, int version) {
  std::string text;
  for (int piece = 0; piece < 1 + (file * 7 + version * 5) % 40; piece++) {
    const int changed = version - (version + piece) % 3;
    text += noise(KILL_PIECE, static_cast<unsigned>((file * 1000 + changed) * 100 + piece));
  }
  const std::string head =
      "file " + std::to_string(file) + " version " + std::to_string(version) + "\n";
  text.replace(0, head.size(), head);
  text.resize(text.size() - static_cast<size_t>(version) * 37 % (KILL_PIECE / 2));
  return text;
}

bool begins_like(const std::string& text, int* file, int* version) {
  return sscanf(text.substr(0, 60).c_str(), "file %d version %d\n", file, version) == 2;
}

namespace {

struct Ended {};

class Worker {
 public:
  Worker(RealDrive& drive, KillNotes& notes, unsigned seed)
      : drive_(drive), notes_(notes), dice_(seed) {}

  /* Four write, each its own files; two read; two rename, each a folder and the files in it. */
  void run(int thread) {
    try {
      for (;;) {
        if (thread < 4) {
          write_file(thread + 4 * below(KILL_FILES / 4));
        } else if (thread < 6 && below(8) == 0) {
          list_folder(thread % KILL_FOLDERS);
        } else if (thread < 6) {
          read_file(below(KILL_FILES));
        } else {
          rename_one(thread % KILL_FOLDERS);
        }
      }
    } catch (const Ended&) {
    }
  }

 private:
  int below(int limit) { return static_cast<int>(dice_() % static_cast<unsigned>(limit)); }

  std::string path_of(int file) const {
    return kill_path(file, notes_.folders[file % KILL_FOLDERS].now, notes_.places[file].now);
  }

  /*
   * Goes on only with a right answer that surely came before the kill. Otherwise the thread ends
   * after the kill, so that nothing closes what was not written.
   */
  void expect(bool right, const std::string& call, int code) {
    if (right && !notes_.killing) {
      return;
    }
    if (!notes_.killing) {
      const std::lock_guard guard(notes_.lock);
      notes_.fault = notes_.fault.empty() ? call + " gives " + std::to_string(code) : notes_.fault;
    }
    while (!notes_.killed) {
      Sleep(1);
    }
    throw Ended();
  }

  void note_call(std::chrono::steady_clock::time_point begin) {
    using std::chrono::duration_cast, std::chrono::milliseconds;
    const auto took = duration_cast<milliseconds>(std::chrono::steady_clock::now() - begin);
    notes_.calls++;
    if (const auto ms = static_cast<size_t>(took.count()); ms > notes_.worst_ms) {
      notes_.worst_ms = ms; /* of two at once the shorter may stay: it is only shown */
    }
  }

  /* What a call answers; in bad weather, when that has passed. */
  template <typename Call>
  int answer(Call call) {
    for (;;) {
      const auto begin = std::chrono::steady_clock::now();
      const int code = call();
      note_call(begin);
      const bool passes = code == ERROR_IO_DEVICE || code == ERROR_BUSY;
      if (!passes || !notes_.weather || notes_.killing) {
        return code;
      }
      Sleep(50);
    }
  }

  /* Others may hold the file, or have renamed it just now. */
  bool is_open(std::optional<DriveFile>& file, int number, OpenHow how) {
    const int code = answer([&] {
      file.emplace(drive_, path_of(number), how);
      return file->error();
    });
    if (code == 0) {
      const std::lock_guard guard(notes_.lock);
      notes_.handles.insert(file->handle());
    }
    expect(code == 0 || code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND ||
               code == ERROR_SHARING_VIOLATION,
           "open", code);
    return code == 0;
  }

  /* The pieces that differ, in turns through the two opens, which may be the same. */
  int write_version(const DriveFile& one, const DriveFile& other, int number, int base) {
    KillFile& file = notes_.files[number];
    const std::string before = base == 0 ? "" : content_of(number, base);
    file.written = 0;
    const int version = ++file.begun;
    const std::string after = content_of(number, version);
    for (int piece = 0; piece * KILL_PIECE < after.size(); file.written = ++piece) {
      const size_t off = piece * KILL_PIECE;
      const std::string part = after.substr(off, KILL_PIECE);
      if (before.compare(std::min(off, before.size()), KILL_PIECE, part) != 0) {
        const int code = answer([&] { return (piece % 2 == 0 ? one : other).write(off, part); });
        expect(code == 0, "write", code);
      }
    }
    if (before.size() > after.size()) {
      const ox_u32 size = static_cast<ox_u32>(after.size());
      const int code = answer([&] { return tnw_setfilesize(one.handle(), size, 0, nullptr); });
      expect(code == 0, "resize", code);
    }
    return version;
  }

  void close(DriveFile& open, KillFile& file, int version) {
    file.asked = version;
    const int code = answer([&] { return open.close(); });
    expect(code == 0, "close", code);
    file.closed = version;
  }

  /*
   * A new file; a new content for an old one; or changes to it, through one open or through two, of
   * which the second goes on alone after the first has closed.
   */
  void write_file(int number) {
    KillFile& file = notes_.files[number];
    const bool anew = file.closed == 0 || below(3) == 0;
    const OpenHow how = {.disposition = file.closed == 0 ? TNW_DISP_CREATE
                                        : anew           ? TNW_DISP_OVERWRITE
                                                         : TNW_DISP_OPEN,
                         .share = below(2) == 0 ? ox_u32{SHARE_ALL} : ox_u32{FILE_SHARE_DELETE}};
    std::optional<DriveFile> one;
    std::optional<DriveFile> two;
    if (!is_open(one, number, how)) {
      return;
    }
    const bool both = !anew && how.share == SHARE_ALL && is_open(two, number, how);
    const int version =
        write_version(*one, both ? *two : *one, number, anew ? 0 : file.closed.load());
    close(*one, file, version);
    if (both) {
      close(*two, file, write_version(*two, *two, number, version));
    }
  }

  void read_file(int number) {
    const int least = notes_.files[number].closed;
    std::optional<DriveFile> open;
    if (!is_open(open, number,
                 {.access = TNW_ACC_READ, .share = FILE_SHARE_READ | FILE_SHARE_DELETE})) {
      return;
    }
    std::string text;
    const auto read = [&] {
      int code = 0;
      text += open->read(text.size(), 10'000, &code);
      return code;
    };
    int code = 0;
    while (code == 0) {
      code = answer(read);
    }
    int file = -1;
    int version = -1;
    const bool right = begins_like(text, &file, &version) && version >= least &&
                       version <= notes_.files[number].asked && text == content_of(number, version);
    expect(right && code == ERROR_HANDLE_EOF,
           "read of " + std::to_string(number) + ", which had version " + std::to_string(least) +
               ", to " + std::to_string(text.size()) + " bytes of version " +
               std::to_string(version),
           code);
    code = answer([&] { return open->close(); });
    expect(code == 0, "close of a reader", code);
  }

  void list_folder(int folder) {
    int code = 0;
    code = answer([&] {
      drive_.list(kill_folder(folder, notes_.folders[folder].now), &code);
      return code;
    });
    expect(
        code == ERROR_NO_MORE_FILES || code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND,
        "list", code);
  }

  /* In bad weather a rename may have been carried out although it seemed to fail. */
  int rename(const std::string& from, const std::string& to) {
    bool again = false;
    const auto call = [&] {
      int code = tnw_rename(drive_.drive, from.c_str(), to.c_str(), "test");
      tnw_fileinfo info;
      if (again && code == ERROR_FILE_NOT_FOUND) {
        code = tnw_getfileinfo(drive_.drive, to.c_str(), &info, "test");
      }
      again = again || code == ERROR_IO_DEVICE;
      return code == ERROR_BUSY && !again ? ERROR_SHARING_VIOLATION : code;
    };
    return answer(call);
  }

  void rename_one(int folder) {
    const int file = folder + KILL_FOLDERS * below(KILL_FILES / KILL_FOLDERS);
    const bool whole = below(8) == 0;
    KillPlace& place = whole ? notes_.folders[folder] : notes_.places[file];
    const int above = notes_.folders[folder].now;
    const int now = place.now;
    const auto name = [&](int at) {
      return whole ? kill_folder(folder, at) : kill_path(file, above, at);
    };
    place.next = 1 - now;
    const int code = rename(name(now), name(1 - now));
    expect(code == 0 || code == ERROR_FILE_NOT_FOUND || code == ERROR_SHARING_VIOLATION, "rename",
           code);
    place.now = place.next = code == 0 ? 1 - now : now;
  }

  RealDrive& drive_;
  KillNotes& notes_;
  std::mt19937 dice_;
};

}  // namespace

void work_until_killed(RealDrive& drive, KillNotes& notes, unsigned seed) {
  std::vector<std::jthread> threads;
  for (int thread = 0; thread < 8; thread++) {
    threads.emplace_back([&, thread] {
      Worker(drive, notes, seed * 8 + static_cast<unsigned>(thread)).run(thread);
    });
  }
}
