/*
 * The files of a log, and their lines.
 *
 * Files are opened so that the program that writes them can rotate them meanwhile.
 */
#ifndef TNWLOG_LOG_FILES_H
#define TNWLOG_LOG_FILES_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace tnwlog {

using LineSink = std::function<void(std::string_view line)>;

/*
 * The files that the names mean, in the order in which they were written: for a folder its
 * tnvfs.log and that one's rotated files (tnvfs.1.log and so on). Rotated files stand, oldest
 * first, where the first file of their log is named. Throws when there are none.
 */
std::vector<std::string> find_log_files(const std::vector<std::string>& names);

/*
 * Reads a file's lines, without their ends; UTF-8 or any other bytes. Throws when it cannot be
 * read.
 */
class LineReader {
 public:
  explicit LineReader(const std::string& name);
  ~LineReader();
  LineReader(const LineReader&) = delete;

  /* Gives the lines that are complete by now. A later call goes on behind them. */
  void read(const LineSink& sink);
  /* Gives the text behind the last line end, if there is any. */
  void finish(const LineSink& sink);
  /* Whether the file's name now leads to another file, or to none. */
  bool is_renamed() const;

 private:
  const std::string name_;
  const intptr_t file_;
  std::string rest_; /* behind the last line end */
};

/* All lines of the files. Throws when one cannot be read, or when Ctrl-C was pressed. */
void read_lines(const std::vector<std::string>& files, const LineSink& sink);

/* The lines of a log that is being written, over its rotations. */
class Follower {
 public:
  explicit Follower(const std::string& file) : file_(file) {}

  /* Gives what was written since the last call. */
  void poll(const LineSink& sink);

 private:
  const std::string file_;
  std::unique_ptr<LineReader> reader_; /* null while the file is not there */
};

}  // namespace tnwlog

#endif
