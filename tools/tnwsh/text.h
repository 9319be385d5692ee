/* Numbers and times for people. */
#ifndef TNWSH_TEXT_H
#define TNWSH_TEXT_H

#include <cstdint>
#include <string>

namespace tnwsh {

std::string grouped_digits(uint64_t number);           /* "67,108,864" */
std::string bytes_text(double bytes);                  /* "64.0 MiB" */
std::string duration_text(double seconds);             /* "0:07", "1:02:03" */
std::string local_time_text(uint64_t file_time);       /* "2026-11-21 11:13" */
std::string counted(uint64_t count, const char* noun); /* "1 file", "2 files" */

}  // namespace tnwsh

#endif
