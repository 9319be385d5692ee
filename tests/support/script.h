/*
 * Scripts: commands with the answers that are expected, in a text file beside the test's program.
 *
 *   # a comment
 *   === What this case shows
 *   command word "a text" option=7 -> the answer
 *
 * In quotes a word may hold spaces, and \n, \r, \0, \x41, \" and \\. "ab"*3 stands for "ababab",
 * and parts that touch are one word. A line without "->" expects an empty answer; further lines
 * that begin with "->" are further lines of the answer. Each case begins anew.
 *
 * Behind "--- a name", and before the first case, stand commands that many cases have in common.
 * "+++ a name" in a case stands for them.
 */
#ifndef SCRIPT_H
#define SCRIPT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

/* What follows a command. */
struct Arguments {
  std::vector<std::string> words;
  std::map<std::string, std::string> options; /* words of the form name=value */

  /* An empty text for a word that is not there. */
  std::string operator[](size_t index) const {
    return index < words.size() ? words[index] : std::string();
  }
  bool has(const std::string& word) const;
  uint64_t number(size_t index) const;
  uint64_t option(const std::string& name, uint64_t otherwise) const;
};

struct ScriptLine {
  size_t number = 0; /* in the file, from 1 */
  std::string text;  /* without the answer */
  std::string answer;
};

struct ScriptCase {
  std::string script, name;
  std::vector<ScriptLine> lines;
};

using Args = const Arguments&;

/* The answer is what the script shows behind "->". An exception's text is an answer, too. */
struct Commands : std::map<std::string, std::function<std::string(Args)>> {
  using map::map;

  /* A command whose answer is a text, a number, yes or no, or empty. */
  template <typename Call>
  void add(const std::string& name, Call call) {
    (*this)[name] = [call](Args a) -> std::string {
      using Result = std::invoke_result_t<Call, Args>;
      if constexpr (std::is_void_v<Result>) {
        return call(a), "";
      } else if constexpr (std::is_same_v<Result, bool>) {
        return call(a) ? "yes" : "no";
      } else if constexpr (std::is_arithmetic_v<Result>) {
        return std::to_string(call(a));
      } else {
        return call(a);
      }
    };
  }
};

/* What a line without an answer has behind its command, which is the first word. */
Arguments arguments_of(const std::string& line);

/* The cases of SCRIPT.txt, for testing::ValuesIn(). */
std::vector<ScriptCase> script_cases(const std::string& script);
/* After a wanted change, take over what failing cases leave in SCRIPT.new. */
void play(const ScriptCase& script_case, const Commands& commands);

/* A text as a word of a script: in quotes, with repeated characters as "a"*1000. */
std::string as_word(const std::string& text);

/* "ENOENT" of OX_ENOENT, "0", or another number. */
std::string error_name(int error);

/* How the test framework names and shows the cases. */
std::string identifier_of(const ScriptCase& script_case);
inline std::string case_name(const testing::TestParamInfo<ScriptCase>& info) {
  return identifier_of(info.param);
}
inline std::ostream& operator<<(std::ostream& out, const ScriptCase& script_case) {
  return out << script_case.name;
}

#endif
