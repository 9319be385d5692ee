/*
 * What the library logs while one of these lives.
 *
 * All of a program's log goes to one file beside the program, since the log facility starts only
 * once: it is opened by the first capture, which has to come before whatever else starts the log.
 */
#ifndef LOG_CAPTURE_H
#define LOG_CAPTURE_H

#include <string>
#include <vector>

class LogCapture {
 public:
  LogCapture();

  /* What was written since, as it stands in the file. */
  std::string content() const;
  /* The lines of it, without their ends. */
  std::vector<std::string> lines() const;
  /* The lines as brief_line of line_mask.h gives them. */
  std::vector<std::string> brief_lines() const;

  /* How many lines contain `text`. */
  size_t count(const std::string& text) const;
  /* How many tell exactly this, with this error in their prefix. */
  size_t count(int err, const std::string& message) const;

 private:
  const size_t start_; /* the file's size when the capture began */
};

#endif
