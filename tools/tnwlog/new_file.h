/* A file that is there as a whole or not at all. */
#ifndef TNWLOG_NEW_FILE_H
#define TNWLOG_NEW_FILE_H

#include <filesystem>
#include <fstream>
#include <string>

namespace tnwlog {

std::filesystem::path path_of(const std::string& name); /* UTF-8 */

/* Writes over what is there. The file goes with the object unless commit() was reached. */
class NewFile {
 public:
  explicit NewFile(const std::string& name);
  ~NewFile();
  NewFile(const NewFile&) = delete;

  std::ostream& stream() { return stream_; }
  /* Throws when not all of it could be written. */
  void commit();

 private:
  const std::string name_;
  std::ofstream stream_;
  bool is_whole_ = false;
};

}  // namespace tnwlog

#endif
