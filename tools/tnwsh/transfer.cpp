#include "transfer.h"

#include <fmt/format.h>
#include <windows.h>

#include <algorithm>
#include <vector>

#include "remote_file.h"

namespace tnwsh {
namespace {

constexpr size_t CHUNK = 1 << 20;

void write_all(RemoteFile& file, LocalFile& source, const std::string& path, Progress* progress) {
  std::vector<char> buffer(CHUNK);
  uint64_t done = 0;
  try {
    while (const size_t count = source.read(buffer.data(), buffer.size())) {
      stop_when_interrupted(path);
      file.write(done, buffer.data(), count);
      done += count;
      progress->update(done);
    }
  } catch (const Failure&) {
    fmt::print(stderr, "tnwsh: {}: holds only the first {} bytes now\n", path, done);
    throw;
  }
}

}  // namespace

void stop_when_interrupted(const std::string& path) {
  if (interrupted()) {
    throw Failure(path, "interrupted", ERROR_CANCELLED);
  }
}

void read_all(Drive& drive, const std::string& path, uint64_t size, const Taker& take) {
  RemoteFile file(drive, path, RemoteFile::Mode::READ);
  std::vector<char> buffer(CHUNK);
  uint64_t done = 0;
  while (const size_t count = file.read(done, buffer.data(), buffer.size())) {
    stop_when_interrupted(path);
    done += count;
    take(buffer.data(), count, done);
  }
  file.close();
  if (done != size) {
    throw Failure(path,
                  fmt::format("changed while it was read: {} bytes instead of {}", done, size));
  }
}

Transferred get_file(Drive& drive, const std::string& remote, uint64_t size,
                     const std::string& local, ProgressMode mode) {
  LocalFile file = LocalFile::open_to_replace(local);
  Progress progress(mode, name_of(remote), size);
  read_all(drive, remote, size, [&](const char* data, size_t count, uint64_t done) {
    file.write(data, count);
    progress.update(done);
  });
  file.commit();
  return {size, progress.finish()};
}

Transferred put_file(Drive& drive, const std::string& local, const std::string& remote,
                     ProgressMode mode) {
  LocalFile source = LocalFile::open_to_read(local);
  const uint64_t size = source.size();
  Progress progress(mode, name_of(remote), size);
  RemoteFile file(drive, remote, RemoteFile::Mode::REPLACE);
  write_all(file, source, remote, &progress);
  file.close();
  check_arrival(drive, remote, size);
  return {size, progress.finish()};
}

void print_transfer(const std::string& from, const std::string& to, const std::string& what,
                    const Transferred& sum) {
  fmt::print("{} -> {}: {} in {:.2f} s, {}/s\n", from, to, what, sum.seconds,
             bytes_text(static_cast<double>(sum.bytes) / std::max(sum.seconds, 0.001)));
}

/* A close reports nothing when the connection is broken, so the status tells what arrived. */
void check_arrival(Drive& drive, const std::string& path, uint64_t size) {
  const Entry entry = drive.get(path);
  if (entry.size != size) {
    throw Failure(path, fmt::format("has {} bytes in the cloud instead of {}", entry.size, size));
  }
}

}  // namespace tnwsh
