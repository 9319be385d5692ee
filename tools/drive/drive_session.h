/* A drive from its start to its end, as every program here has one. */
#ifndef TOOLS_DRIVE_SESSION_H
#define TOOLS_DRIVE_SESSION_H

#include <string>

#include "tools/common/local_file.h"
#include "tools/drive/drive_options.h"

namespace tools {

/*
 * A service that was told to stop ends in its own time, and a start that meets it fails. It holds
 * its pid file locked until then. False when it still runs after 15 seconds.
 */
bool wait_for_service_end(const std::string& cache_folder);

/* Keeps other programs off the options' work folder, as long as the file is open. */
LocalFile lock_work_folder(const DriveOptions& options);

class DriveSession {
 public:
  /*
   * Starts the service and connects to it. Throws a UsageError for options that cannot be, and a
   * Failure when the service does not start. The destructor stops it and waits for its end.
   */
  explicit DriveSession(const DriveOptions& options);
  ~DriveSession();
  DriveSession(const DriveSession&) = delete;
  DriveSession& operator=(const DriveSession&) = delete;

  void* handle() const { return handle_; }

 private:
  const std::string cache_folder_;
  LocalFile lock_;
  void* handle_ = nullptr;
};

}  // namespace tools

#endif
