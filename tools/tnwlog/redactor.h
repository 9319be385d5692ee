/*
 * Copies of lines that may be shared.
 *
 * Safe first: a copy is put together from the texts that the library is known to log (their own
 * words, numbers, hexadecimal numbers, times, ids of requests) and from pseudonyms. Nothing else
 * gets into it: a text that is not known is replaced, a line that cannot be read is left out.
 */
#ifndef TNWLOG_REDACTOR_H
#define TNWLOG_REDACTOR_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

#include "log_line.h"

namespace tnwlog {

/*
 * Stable names for names: the same one for the same, whatever its case in ASCII, as long as this
 * lives.
 */
class Pseudonyms {
 public:
  /* "n12", "n12.docx" (of common extensions), "n1@n2", a UUID for a UUID. */
  std::string OfName(std::string_view name);
  /* Each folder's name for itself. Separators, a drive's letter and a URL's scheme stay. */
  std::string OfPath(std::string_view path);
  std::string OfOwner(std::string_view number);

 private:
  size_t NumberOf(char kind, std::string_view text);

  std::unordered_map<std::string, size_t> numbers_;
};

class Redactor {
 public:
  /* The line as it may be shared; nothing when it must be left out. */
  std::optional<std::string> Line(std::string_view line);

  uint64_t WithoutText() const { return without_text_; } /* lines whose text was replaced */
  uint64_t LeftOut() const { return left_out_; }         /* lines that could not be read */
  uint64_t DumpRows() const { return dump_rows_; }       /* left out, but for the id of a request */

 private:
  std::string Written(const Pieces& pieces);
  /* A text that fits one of the patterns; otherwise a fixed text in its place. */
  std::string Text(const LogLine& line);
  std::string EventArguments(const LogLine& line);
  std::optional<std::string> DumpRow(std::string_view row);

  Pseudonyms pseudonyms_;
  LogLine line_;
  Pieces pieces_;
  uint64_t without_text_ = 0;
  uint64_t left_out_ = 0;
  uint64_t dump_rows_ = 0;
};

}  // namespace tnwlog

#endif
