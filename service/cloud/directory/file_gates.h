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

#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>

namespace tarnd {

class FileGates {
 public:
  using Gate = std::shared_ptr<std::shared_mutex>;

  /* Lives for as long as somebody has it. */
  Gate of(const std::string& path);

 private:
  std::mutex lock_;
  std::map<std::wstring, std::weak_ptr<std::shared_mutex>> gates_; /* guarded by lock_ */
};

}  // namespace tarnd

#endif
