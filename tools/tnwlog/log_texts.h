/*
 * What the library's sources hold of the log's texts. The script log_texts writes it when tnwlog is
 * built, so that a text stands in the library alone.
 */
#ifndef TNWLOG_LOG_TEXTS_H
#define TNWLOG_LOG_TEXTS_H

#include <span>
#include <string_view>

namespace tnwlog {

/* As patterns (text_pattern.h), those with more words first. */
extern const std::span<const std::string_view> LOG_TEXTS;
/* Words and sequences of words that stand for a %s, the levels, and the names of source files. */
extern const std::span<const std::string_view> LOG_WORDS;

}  // namespace tnwlog

#endif
