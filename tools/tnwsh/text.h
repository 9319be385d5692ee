/* Numbers and times for people. */
#ifndef TNWSH_TEXT_H
#define TNWSH_TEXT_H

#include <cstdint>
#include <string>

namespace tnwsh {

std::string GroupedDigits(uint64_t number);            /* "67,108,864" */
std::string BytesText(double bytes);                   /* "64.0 MiB" */
std::string DurationText(double seconds);              /* "0:07", "1:02:03" */
std::string LocalTimeText(uint64_t file_time);         /* "2026-11-21 11:13" */
std::string Counted(uint64_t count, const char* noun); /* "1 file", "2 files" */

}  // namespace tnwsh

#endif
