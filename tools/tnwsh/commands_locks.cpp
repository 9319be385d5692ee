/* truncate, lock and unlock: what is done to an open file beside its content. */
#include <fmt/format.h>
#include <windows.h>

#include <algorithm>

#include "commands.h"
#include "transfer.h"

namespace tnwsh {
namespace {

struct TruncateArguments {
  std::string path;
  uint64_t size = 0;
};

void run_truncate(Shell& shell, const TruncateArguments& truncate) {
  Drive& drive = shell.drive();
  RemoteFile file(drive, truncate.path, RemoteFile::Mode::CHANGE);
  file.set_size(truncate.size);
  file.close();
  check_arrival(drive, truncate.path, truncate.size);
}

struct RangeArguments {
  std::string path;
  uint64_t offset = 0;
  uint64_t length = 0;
};

/* The library would cut larger numbers and lock another range. */
FileRange checked(const RangeArguments& arguments) {
  if (arguments.offset > UINT32_MAX || arguments.length > UINT32_MAX) {
    throw UsageError(fmt::format("Offset and length of a lock must be below 4 GiB: {} {}",
                                 arguments.offset, arguments.length));
  }
  return {static_cast<uint32_t>(arguments.offset), static_cast<uint32_t>(arguments.length)};
}

struct LockArguments {
  RangeArguments range;
  bool shared = false;
  /* With 0 the lock stays until an unlock at the prompt, or until Ctrl-C on the command line. */
  double seconds = 0;
};

void wait_or_interrupt(double seconds) {
  constexpr DWORD PAUSE = 20;
  const ULONGLONG start = GetTickCount64();
  while (!interrupted() &&
         (seconds == 0 || static_cast<double>(GetTickCount64() - start) < seconds * 1000)) {
    Sleep(PAUSE);
  }
}

const char* kind_text(bool exclusive) { return exclusive ? "exclusive" : "shared"; }

void print_lock(const HeldLock& lock, const std::string& until) {
  fmt::print("{}: {}, {}{}\n", lock.path, range_text(lock.range), kind_text(lock.exclusive), until);
}

void list_locks(const Shell& shell) {
  for (const HeldLock& lock : shell.locks()) {
    print_lock(lock, "");
  }
}

/* Waits as long as the lock is to be held. A lock ends with the program. */
void hold_lock(HeldLock& lock, double seconds) {
  print_lock(lock, seconds > 0 ? fmt::format(": for {:g} s or until Ctrl-C", seconds)
                               : ": until Ctrl-C; the lock goes with this program");
  fflush(stdout);
  wait_or_interrupt(seconds);
  lock.file->unlock(lock.range);
  lock.file->close();
}

void run_lock(Shell& shell, const LockArguments& arguments) {
  if (arguments.range.path.empty()) {
    return list_locks(shell);
  }
  HeldLock lock{.path = arguments.range.path,
                .range = checked(arguments.range),
                .exclusive = !arguments.shared};
  lock.file = std::make_unique<RemoteFile>(shell.drive(), lock.path, RemoteFile::Mode::HOLD);
  lock.file->lock(lock.range, lock.exclusive);
  if (arguments.seconds > 0 || !shell.at_prompt()) {
    hold_lock(lock, arguments.seconds);
  } else {
    print_lock(lock, ": until unlock or exit");
    shell.locks().push_back(std::move(lock));
  }
}

void run_unlock(Shell& shell, const RangeArguments& arguments) {
  const FileRange range = checked(arguments);
  std::vector<HeldLock>& locks = shell.locks();
  const auto found = std::find_if(locks.begin(), locks.end(), [&](const HeldLock& lock) {
    return lock.range == range && path_key(lock.path) == path_key(arguments.path);
  });
  if (found == locks.end()) {
    throw Failure(arguments.path, shell.at_prompt()
                                      ? "this shell holds no such lock; \"lock\" alone lists them"
                                      : "a lock went with the program that took it");
  }
  found->file->unlock(range);
  const HeldLock lifted = std::move(*found);
  locks.erase(found);
  lifted.file->close();
}

void declare_range(CLI::App* command, RangeArguments* range, bool required) {
  command->add_option("FILE", range->path, "A file of the drive")->required(required);
  command->add_option("OFFSET", range->offset, "The range's first byte: 4096, 4k")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->required(required);
  command->add_option("LENGTH", range->length, "Its length in bytes")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->required(required);
}

}  // namespace

void declare_open_file_commands(CLI::App* app, Action* action) {
  auto [truncate, sized] =
      add_command(app, action, "truncate", "Sets a file's size: cuts it, or adds zeros",
                  run_truncate, {WRITE_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS});
  truncate->add_option("FILE", sized->path, "A file of the drive")->required();
  truncate->add_option("SIZE", sized->size, "Its new size in bytes: 4096, 10k, 4M")
      ->transform(CLI::AsSizeValue(false).description(""))
      ->required();

  auto [lock, held] = add_command(
      app, action, "lock", "Locks a range of a file, or lists the locks that are held", run_lock,
      {LOCK_ANSWERS, PATH_ANSWERS, DRIVE_ANSWERS},
      "A lock lives as long as the open that took it: at the prompt until unlock or exit, as a "
      "command of its own until Ctrl-C. A conflict is answered at once. Locks are judged among "
      "themselves; reads and writes do not look at them.");
  declare_range(lock, &held->range, false);
  lock->get_option("FILE")->needs(lock->get_option("LENGTH"));
  lock->add_flag("--shared", held->shared, "Lets others lock the range as shared, too");
  lock->add_option("--for", held->seconds, "Seconds to hold the lock and wait")
      ->check(CLI::PositiveNumber)
      ->option_text("SECONDS");

  auto [unlock, lifted] =
      add_command(app, action, "unlock", "Lifts a lock of this shell", run_unlock,
                  {UNLOCK_ANSWERS, DRIVE_ANSWERS},
                  "The range is exactly one that was locked; \"lock\" alone lists them.");
  declare_range(unlock, lifted, true);
}

}  // namespace tnwsh
