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
#include <vector>

#include "log_line.h"

namespace tnwlog {

/*
 * Stable names for names: the same one for the same, whatever its case in ASCII, as long as this
 * lives.
 */
class Pseudonyms {
 public:
  /* "n12", "n12.docx" (of common extensions), "n1@n2", a UUID for a UUID. */
  std::string of_name(std::string_view name);
  /* Replaces each folder's name separately. Separators, drive letters and URL schemes stay. */
  std::string of_path(std::string_view path);
  std::string of_owner(std::string_view number);

 private:
  size_t number_of(char kind, std::string_view text);

  std::unordered_map<std::string, size_t> numbers_;
};

class Redactor {
 public:
  /* The line as it may be shared; nothing when it must be left out. */
  std::optional<std::string> redact(std::string_view line);

  uint64_t without_text() const { return without_text_; } /* lines whose text was replaced */
  uint64_t left_out() const { return left_out_; }         /* lines that could not be read */
  /* Rows of dumps that were left out. Only the id of a request is kept of them. */
  uint64_t dump_rows() const { return dump_rows_; }

 private:
  /* A text that fitted a pattern, with `text` in place of the value of that name. */
  std::string written(const Match& match, const std::string& text = {});
  std::string redacted(const Value& value);
  /* What stands behind the prefix of a line; a fixed text in its place when it is not known. */
  std::string text_of(const LogLine& line);
  std::string known_text_of(const LogLine& line);

  Pseudonyms pseudonyms_;
  LineParser parser_;
  Match match_;
  uint64_t without_text_ = 0;
  uint64_t left_out_ = 0;
  uint64_t dump_rows_ = 0;
};

/*
 * Writes a copy of the files to `copy`, which must not exist. Throws when a file cannot be read or
 * the copy cannot be written, and then leaves no copy.
 */
void write_redacted(const std::vector<std::string>& files, const std::string& copy,
                    Redactor* redactor);

}  // namespace tnwlog

#endif
