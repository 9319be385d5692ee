/* Numbers and times for people. */
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <cstdint>
#include <cstring>
#include <string>

namespace tools {

std::string grouped_digits(uint64_t number);           /* "67,108,864" */
std::string bytes_text(double bytes);                  /* "64.0 MiB" */
std::string duration_text(double seconds);             /* "00:07", "01:02:03" */
std::string local_time_text(uint64_t file_time);       /* "2026-11-21 11:13" */
std::string utc_text(uint64_t file_time);              /* "2026-11-21T10:13:05Z" */
std::string counted(uint64_t count, const char* noun); /* "1 file", "2 files" */

/*
 * The text with lines of 80 characters at most, where blanks allow that. The rest of a line stands
 * below its last column: the text behind the first gap of two blanks or more.
 */
std::string wrapped(const std::string& text);

/* The text of a field of fixed length, which has no NUL when it fills the field. */
template <size_t N>
std::string field_text(const char (&field)[N]) {
  return std::string(field, strnlen(field, N));
}

}  // namespace tools

#endif
