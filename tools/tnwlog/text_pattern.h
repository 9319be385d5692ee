/* Log texts, as patterns with typed values in them. */
#ifndef TNWLOG_TEXT_PATTERN_H
#define TNWLOG_TEXT_PATTERN_H

#include <memory>
#include <string_view>
#include <vector>

namespace tnwlog {

/* The kinds of values: how each looks in a line, and what a shared copy has in its place. */
enum class Kind : char {
  TIME = 't',     /* 2026-11-21 14:21:52.589 */
  NUMBER = 'd',   /* also negative */
  DECIMALS = 'f', /* 0.25 */
  HEX = 'h',      /* digits, with or without 0x */
  ID = 'm',       /* a request's id; it says nothing about people */
  WORD = 'w',     /* of the library or the service, or none; any other word is a name */
  VERSION = 'v',  /* 1.0.0, 2026-11-21, or a commit */
  /* Free text, which may hold anything: quotes, and what looks like other values. */
  NAME = 'N',       /* the name of a person or a machine; the id of a device, a drive or a file */
  OWNER = 'o',      /* a person's number */
  PATH = 'P',       /* a path that reaches to the last place where the rest of the pattern fits */
  FIRST_PATH = 'p', /* a path that reaches to the first place where the rest of the pattern fits */
  TEXT_VALUE = 'T', /* a word of the library, or a path */
  SECRET = 'S',
  REST = 'R', /* the rest of the line */
};

/* A value in a line. */
struct Value {
  Kind kind;
  std::string_view name; /* as in the pattern; empty when it has none */
  std::string_view text;
};

/* A text that fitted a pattern, and the values in it, in their order. What lies between them is the
 * pattern's own. */
struct Match {
  std::string_view text;
  std::vector<Value> values;

  /* The value of that name, or an empty text. */
  std::string_view operator[](std::string_view name) const;
};

class TextPattern {
 public:
  /*
   * "Message: stat(path <P:path>, len <d>)": a value is <kind> or <kind:name>. "<[>...<]>" may be
   * missing; "<_>" is any number of blanks, "<l>" the level of a line of the portability layer. The
   * text must outlive the pattern.
   */
  explicit TextPattern(std::string_view notation);

  /* Whether all of `text` fits. A text that was `cut` fits up to the pattern's first PATH, and
   * whatever stands there counts as that path. */
  bool match(std::string_view text, Match* match, bool cut = false) const;

 private:
  struct Regex;

  bool fits(const Regex& regex, std::string_view text, Match* match) const;

  std::vector<Value> values_; /* without texts */
  std::shared_ptr<const Regex> whole_;
  std::shared_ptr<const Regex> cut_; /* null without a PATH */
};

}  // namespace tnwlog

#endif
