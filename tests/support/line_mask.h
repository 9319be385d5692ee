/*
 * Log lines without what differs from run to run, so that tests can compare the whole of them.
 */
#ifndef LINE_MASK_H
#define LINE_MASK_H

#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

/* Patterns, and what stands in the place of what they match. */
using Masks = std::vector<std::pair<std::regex, std::string>>;
std::string masked(std::string line, const Masks& masks);

/* The line's time, the source's line number and the response time as the words TIME, LINE and
 * USECS. */
std::string masked(const std::string& line);

constexpr char UUID_PATTERN[] = "[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}";

/* Each id becomes a number by its first appearance, so that the lines still show what belongs
 * together. */
class IdNumbers {
 public:
  /* The ids that match the pattern. */
  explicit IdNumbers(const std::string& pattern = UUID_PATTERN) : id_(pattern) {}
  std::string numbered(const std::string& text);

 private:
  const std::regex id_;
  std::map<std::string, size_t> numbers_;
};

/* "LEVEL ERRNO USER: text" of a line in either form, the client's own or the portability layer's.
 * The number stands there if the line has one, the user if it tells its connection. Of an event the
 * line is "EVENT NAME RETVAL, ERRNO", without the result where the event has none. Other lines stay
 * as they are. */
std::string brief_line(const std::string& line);

#endif
