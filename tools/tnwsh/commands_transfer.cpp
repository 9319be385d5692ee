// cat, get and put: whole files between the drive and this machine.
#include <fmt/format.h>
#include <windows.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <vector>

#include "commands.h"
#include "console.h"
#include "text.h"

namespace tnwsh {
namespace {

constexpr size_t kChunk = 1 << 20;

void StopWhenInterrupted(const std::string& path) {
  if (Interrupted()) {
    throw Failure(path, "interrupted", ERROR_CANCELLED);
  }
}

Entry FileToRead(Drive& drive, const std::string& path) {
  Entry entry = drive.Get(path);
  if (entry.folder) {
    throw Failure(path, "is a folder, not a file");
  }
  return entry;
}

// Hands the whole file to `take` in chunks. A file whose size is not what the listing said was
// changed meanwhile, and what was read of it may be of two ages.
template <typename Take>
void ReadAll(Drive& drive, const std::string& path, uint64_t size, const Take& take) {
  RemoteFile file(drive, path, RemoteFile::Mode::kRead);
  std::vector<char> buffer(kChunk);
  uint64_t done = 0;
  while (const size_t count = file.Read(done, buffer.data(), buffer.size())) {
    StopWhenInterrupted(path);
    done += count;
    take(buffer.data(), count, done);
  }
  file.Close();
  if (done != size) {
    throw Failure(path,
                  fmt::format("changed while it was read: {} bytes instead of {}", done, size));
  }
}

void Cat(Shell& shell, const std::string& path) {
  Drive& drive = shell.TheDrive();
  ReadAll(drive, path, FileToRead(drive, path).size, [](const char* data, size_t count, uint64_t) {
    if (fwrite(data, 1, count, stdout) != count) {
      throw Failure("Standard output", "cannot be written");
    }
  });
}

void PrintTransfer(const std::string& from, const std::string& to, uint64_t bytes, double seconds) {
  fmt::print("{} -> {}: {} bytes in {:.2f} s, {}/s\n", from, to, GroupedDigits(bytes), seconds,
             BytesText(static_cast<double>(bytes) / std::max(seconds, 0.001)));
}

void Get(Shell& shell, const std::string& remote, const std::string& local) {
  Drive& drive = shell.TheDrive();
  const Entry entry = FileToRead(drive, remote);
  const std::string target = local.empty()          ? entry.name
                             : IsLocalFolder(local) ? local + '\\' + entry.name
                                                    : local;
  LocalFile file = LocalFile::OpenToReplace(target);
  Progress progress(shell.ProgressOfTransfers(), entry.name, entry.size);
  ReadAll(drive, remote, entry.size, [&](const char* data, size_t count, uint64_t done) {
    file.Write(data, count);
    progress.Update(done);
  });
  file.Commit();
  PrintTransfer(remote, target, entry.size, progress.Finish());
}

// Where `put` writes: the path itself, or below it when it is, or is written as, a folder.
std::string PutTarget(Drive& drive, const std::string& local, const std::string& remote) {
  if (remote.empty()) {
    return JoinPath("/", NameOf(local));
  }
  const bool written_as_folder = remote.back() == '/' || remote.back() == '\\';
  const std::optional<Entry> entry = drive.Find(remote);
  if (written_as_folder || (entry && entry->folder)) {
    return JoinPath(remote, NameOf(local));
  }
  return remote;
}

// The connection may break without a word from close: the listing tells what arrived.
void CheckArrival(Drive& drive, const std::string& path, uint64_t size) {
  const Entry entry = drive.Get(path);
  if (entry.size != size) {
    throw Failure(path, fmt::format("has {} bytes in the cloud instead of {}", entry.size, size));
  }
}

void WriteAll(RemoteFile& file, LocalFile& source, const std::string& path, Progress* progress) {
  std::vector<char> buffer(kChunk);
  uint64_t done = 0;
  try {
    while (const size_t count = source.Read(buffer.data(), buffer.size())) {
      StopWhenInterrupted(path);
      file.Write(done, buffer.data(), count);
      done += count;
      progress->Update(done);
    }
  } catch (const Failure&) {
    fmt::print(stderr, "tnwsh: {}: holds only the first {} bytes now\n", path, done);
    throw;
  }
}

void Put(Shell& shell, const std::string& local, const std::string& remote) {
  LocalFile source = LocalFile::OpenToRead(local);
  const uint64_t size = source.Size();
  Drive& drive = shell.TheDrive();
  const std::string target = PutTarget(drive, local, remote);
  Progress progress(shell.ProgressOfTransfers(), NameOf(target), size);
  RemoteFile file(drive, target, RemoteFile::Mode::kReplace);
  WriteAll(file, source, target, &progress);
  file.Close();
  CheckArrival(drive, target, size);
  PrintTransfer(local, target, size, progress.Finish());
}

}  // namespace

void DeclareCat(CLI::App* command, Action* action) {
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "A file of the drive")->required();
  command->callback([=] { *action = [=](Shell& shell) { Cat(shell, *path); }; });
}

void DeclareGet(CLI::App* command, Action* action) {
  auto remote = std::make_shared<std::string>();
  auto local = std::make_shared<std::string>();
  command->add_option("REMOTE", *remote, "A file of the drive")->required();
  command->add_option(
      "LOCAL", *local,
      "The copy, or a folder for it (default: this folder); replaced when complete");
  command->callback([=] { *action = [=](Shell& shell) { Get(shell, *remote, *local); }; });
}

void DeclarePut(CLI::App* command, Action* action) {
  auto local = std::make_shared<std::string>();
  auto remote = std::make_shared<std::string>();
  command->add_option("LOCAL", *local, "A file of this machine")->required();
  command->add_option("REMOTE", *remote,
                      "The copy, or a folder for it (default: the drive's top folder)");
  command->callback([=] { *action = [=](Shell& shell) { Put(shell, *local, *remote); }; });
}

}  // namespace tnwsh
