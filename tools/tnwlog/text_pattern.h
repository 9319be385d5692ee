/* Log texts, as patterns with typed values in them. */
#ifndef TNWLOG_TEXT_PATTERN_H
#define TNWLOG_TEXT_PATTERN_H

#include <string>
#include <string_view>
#include <vector>

namespace tnwlog {

/*
 * What a value is: how far it reaches in a line, and what becomes of it in a copy that is shared.
 */
enum class Kind : char {
  kLiteral = 'L',
  kTime = 't',     /* 2026-11-21 14:21:52.589 */
  kNumber = 'd',   /* also negative */
  kDecimals = 'f', /* 0.25 */
  kHex = 'h',      /* digits, with or without 0x */
  kId = 'm',       /* a request's id; it says nothing about people */
  kWord = 'w',     /* letters, digits and ._+- ; may be empty */
  kBlanks = '_',   /* any number of them */
  /* Free text, which may hold anything: quotes, and what looks like other values. */
  kName = 'N',  /* of people and machines; an id of a device, drive or file; up to the first end */
  kOwner = 'o', /* a person's number */
  kPath = 'P',  /* up to the LAST place where the rest of the pattern fits */
  kFirstPath = 'p', /* a path, up to the first such place */
  kSecret = 'S',
  kRest = 'R',     /* whatever is left */
  kOptional = '[', /* what follows, up to kEndOptional, may be missing */
  kEndOptional = ']',
};

/* A piece of a line that a pattern matched: a literal or a value. */
struct Piece {
  Kind kind;
  std::string_view name; /* as in the pattern; empty when it has none */
  std::string_view text;
};
using Pieces = std::vector<Piece>;

/* The value of that name, or an empty text. */
std::string_view ValueOf(const Pieces& pieces, std::string_view name);

class TextPattern {
 public:
  /*
   * "Message: stat(path <P:path>, len <d>)": <kind> or <kind:name>. A path, name or secret ends the
   * pattern or stands before a literal. The text must outlive the pattern.
   */
  explicit TextPattern(std::string_view text);

  /* Whether all of `text` fits. A text that was `cut` may end anywhere in the pattern. */
  bool Match(std::string_view text, Pieces* pieces, bool cut = false) const;

 private:
  struct Element {
    Kind kind;
    std::string_view name;
    std::string_view literal;
  };
  class Matcher;

  std::vector<Element> elements_;
};

}  // namespace tnwlog

#endif
