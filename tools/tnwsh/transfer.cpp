#include "transfer.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <vector>

#include "console.h"
#include "local_file.h"
#include "remote_file.h"
#include "text.h"

namespace tnwsh {
namespace {

constexpr size_t kChunk = 1 << 20;

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

}  // namespace

void StopWhenInterrupted(const std::string& path) {
  if (Interrupted()) {
    throw Failure(path, "interrupted", ERROR_CANCELLED);
  }
}

void ReadAll(Drive& drive, const std::string& path, uint64_t size, const Taker& take) {
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

Transferred GetFile(Drive& drive, const std::string& remote, uint64_t size,
                    const std::string& local, ProgressMode mode) {
  LocalFile file = LocalFile::OpenToReplace(local);
  Progress progress(mode, NameOf(remote), size);
  ReadAll(drive, remote, size, [&](const char* data, size_t count, uint64_t done) {
    file.Write(data, count);
    progress.Update(done);
  });
  file.Commit();
  return {size, progress.Finish()};
}

Transferred PutFile(Drive& drive, const std::string& local, const std::string& remote,
                    ProgressMode mode) {
  LocalFile source = LocalFile::OpenToRead(local);
  const uint64_t size = source.Size();
  Progress progress(mode, NameOf(remote), size);
  RemoteFile file(drive, remote, RemoteFile::Mode::kReplace);
  WriteAll(file, source, remote, &progress);
  file.Close();
  CheckArrival(drive, remote, size);
  return {size, progress.Finish()};
}

void PrintTransfer(const std::string& from, const std::string& to, const std::string& what,
                   const Transferred& sum) {
  fmt::print("{} -> {}: {} in {:.2f} s, {}/s\n", from, to, what, sum.seconds,
             BytesText(static_cast<double>(sum.bytes) / std::max(sum.seconds, 0.001)));
}

/* The connection may break without a word from close: the status tells what arrived. */
void CheckArrival(Drive& drive, const std::string& path, uint64_t size) {
  const Entry entry = drive.Get(path);
  if (entry.size != size) {
    throw Failure(path, fmt::format("has {} bytes in the cloud instead of {}", entry.size, size));
  }
}

}  // namespace tnwsh
