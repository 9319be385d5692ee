/*
 * Who is reading a file of the directory, and who is about to replace it: systems that cannot
 * replace an open file would otherwise refuse it for as long as anybody here reads. A gate is held
 * for one piece of a content only.
 *
 * Paths that differ in case only have one gate. Two paths to one file through a link have two: who
 * replaces it then meets the reader's open file and tries again.
 */
#ifndef SERVICE_FILE_GATES_H
#define SERVICE_FILE_GATES_H

#include <windows.h>

#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace tarnd {

/*
 * For std::shared_lock and std::unique_lock. Gates come and go with every upload: a
 * std::shared_mutex would leave two semaphores behind each time, since this runtime's one has no
 * destructor.
 */
class FileGate {
 public:
  void lock() { AcquireSRWLockExclusive(&lock_); }
  void unlock() { ReleaseSRWLockExclusive(&lock_); }
  void lock_shared() { AcquireSRWLockShared(&lock_); }
  void unlock_shared() { ReleaseSRWLockShared(&lock_); }

 private:
  SRWLOCK lock_ = SRWLOCK_INIT;
};

class FileGates {
 public:
  using Gate = std::shared_ptr<FileGate>;

  /* Lives for as long as somebody has it. */
  Gate of(const std::string& path);

 private:
  std::mutex lock_;
  std::map<std::wstring, std::weak_ptr<FileGate>> gates_; /* guarded by lock_ */
};

}  // namespace tarnd

#endif
