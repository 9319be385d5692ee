/* Whole files between the drive and this machine. */
#ifndef TNWSH_TRANSFER_H
#define TNWSH_TRANSFER_H

#include <cstdint>
#include <functional>
#include <string>

#include "drive.h"
#include "progress.h"

namespace tnwsh {

struct Transferred {
  uint64_t bytes;
  double seconds;
};

/* Throws a Failure once Ctrl-C was pressed. */
void stop_when_interrupted(const std::string& path);

/* Receives a piece of a file, and how much of it has come with that. */
using Taker = std::function<void(const char* data, size_t count, uint64_t done)>;

/*
 * Hands a whole file of the drive to `take` in chunks. A file whose size is not what was said of it
 * was changed meanwhile, and parts of it may be old and others new: the call throws then, too.
 */
void read_all(Drive& drive, const std::string& path, uint64_t size, const Taker& take);

/* Replaces the local file as soon as the new content is complete. */
Transferred get_file(Drive& drive, const std::string& remote, uint64_t size,
                     const std::string& local, ProgressMode mode);
Transferred put_file(Drive& drive, const std::string& local, const std::string& remote,
                     ProgressMode mode);

/* What was copied, for the last line. */
void print_transfer(const std::string& from, const std::string& to, const std::string& what,
                    const Transferred& sum);

/* Makes sure that a file has the size in the cloud that it was given. */
void check_arrival(Drive& drive, const std::string& path, uint64_t size);

}  // namespace tnwsh

#endif
