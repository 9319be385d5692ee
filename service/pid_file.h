/*
 * The pid file "tarnd_pid" of a cache directory: holds the process id, and is locked for as long as
 * the service lives, so that there is one service for each cache.
 *
 * One byte far past the end is locked: a lock of the whole file conflicts with it, and the number
 * can be read.
 */
#ifndef SERVICE_PID_FILE_H
#define SERVICE_PID_FILE_H

#include <string>

#include "files/windows_file.h"

namespace tarnd {

class PidFile {
 public:
  /* 0, OX_EBUSY when another service has it, or another error number. */
  int take(const std::wstring& cache_folder);

 private:
  FileHandle file_; /* the lock goes with it */
};

}  // namespace tarnd

#endif
