#include "secret_options.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <string>

namespace tarnd {
namespace {

constexpr const char* SECRET_OPTIONS[] = {"--access-token", "--proxy-password"};

bool is_secret_option(const std::string& word) {
  return word == SECRET_OPTIONS[0] || word == SECRET_OPTIONS[1];
}

/* A word of the line, as it stands there: `end` is the first blank behind it, outside of quotes. */
template <typename Char>
struct Word {
  Char* begin;
  Char* end;

  /* Option names are ASCII. */
  std::string text() const {
    std::string text(static_cast<size_t>(end - begin), '?');
    std::transform(begin, end, text.begin(), [](Char c) { return static_cast<char>(c); });
    return text;
  }
  bool is_option() const { return end - begin >= 2 && begin[0] == '-' && begin[1] == '-'; }
};

template <typename Char>
Word<Char> next_word(Char* from) {
  while (*from == ' ' || *from == '\t') {
    from++;
  }
  Word<Char> word = {from, from};
  bool quoted = false;
  for (; *word.end != '\0' && (quoted || (*word.end != ' ' && *word.end != '\t')); word.end++) {
    quoted = quoted != (*word.end == '"');
  }
  return word;
}

template <typename Char>
void hide(Char* line) {
  bool secret = false;
  for (Word<Char> word = next_word(line); word.begin != word.end; word = next_word(word.end)) {
    if (word.is_option()) {
      secret = is_secret_option(word.text());
    } else if (secret) {
      std::fill(word.begin, word.end, static_cast<Char>('*'));
    }
  }
}

void hide_words(int count, char** words) {
  bool secret = false;
  for (int i = 1; i < count; i++) {
    const std::string word = words[i];
    if (word.starts_with("--")) {
      secret = is_secret_option(word);
    } else if (secret) {
      std::fill_n(words[i], word.size(), '*');
    }
  }
}

}  // namespace

void hide_secret_options(char* line) { hide(line); }
void hide_secret_options(wchar_t* line) { hide(line); }

void hide_own_secret_options(int count, char** words) {
  hide(GetCommandLineW());
  hide(GetCommandLineA());
  hide_words(count, words);
  hide_words(__argc, __argv); /* the runtime library's own, of which main() gets a copy */
}

}  // namespace tarnd
