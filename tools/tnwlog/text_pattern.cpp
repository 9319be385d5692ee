#include "text_pattern.h"

#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include <cctype>
#include <stdexcept>
#include <string>

namespace tnwlog {
namespace {

/* No ordinary line takes so many attempts. Only a line that somebody made for the purpose does. */
constexpr uint32_t MOST_ATTEMPTS = 1000000;

const char* regex_of(char kind) {
  switch (kind) {
    case 't':
      return R"((\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}))";
    case 'd':
    case 'o':
      return R"((-?\d+))";
    case 'f':
      return R"(([\d.]+))";
    case 'h':
      return R"(([\dA-Fa-fx]+))";
    case 'm':
      return R"(([\dA-Fa-f]{8}(?:-[\dA-Fa-f]{4}){3}-[\dA-Fa-f]{12}))";
    case 'v':
      return R"(([\d.-]*|[\da-f]{40}|unknown))";
    case 'w':
      return R"(([\w.+-]*))";
    case 'P':
    case 'R':
      return "(.*)";
    case '[':
      return "(?:";
    case ']':
      return ")?";
    case '_':
      return " *";
    case 'l':
      return R"((?:INFO|WARNING|DEBU-\d+|PROF|ERR:-?\d+|(?:FATAL|TODO) *-?\d+:)?)";
    default:
      return "(.*?)";
  }
}

bool has_value(char kind) { return kind != '[' && kind != ']' && kind != '_' && kind != 'l'; }

}  // namespace

std::string_view Match::operator[](std::string_view name) const {
  for (const Value& value : values) {
    if (value.name == name) {
      return value.text;
    }
  }
  return {};
}

struct TextPattern::Regex {
  explicit Regex(const std::string& regex) {
    int error = 0;
    size_t at = 0;
    code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(regex.data()), regex.size(),
                         PCRE2_ANCHORED | PCRE2_ENDANCHORED | PCRE2_DOTALL, &error, &at, nullptr);
    if (code == nullptr) {
      throw std::logic_error("no pattern at " + regex.substr(at));
    }
    pcre2_jit_compile(code, PCRE2_JIT_COMPLETE); /* otherwise the slower way is taken */
    data = pcre2_match_data_create_from_pattern(code, nullptr);
    limits = pcre2_match_context_create(nullptr);
    pcre2_set_match_limit(limits, MOST_ATTEMPTS);
  }
  ~Regex() {
    pcre2_match_context_free(limits);
    pcre2_match_data_free(data);
    pcre2_code_free(code);
  }
  Regex(const Regex&) = delete;
  Regex& operator=(const Regex&) = delete;

  pcre2_code* code;
  pcre2_match_data* data; /* one thread matches at a time */
  pcre2_match_context* limits;
};

TextPattern::TextPattern(std::string_view notation) {
  std::string regex;
  for (size_t at = 0; at < notation.size(); at++) {
    const char c = notation[at];
    if (c != '<') {
      regex += isalnum(static_cast<unsigned char>(c)) != 0 ? "" : "\\";
      regex += c;
      continue;
    }
    const size_t end = notation.find('>', at);
    const char kind = notation[at + 1];
    if (has_value(kind)) {
      const size_t name = notation[at + 2] == ':' ? at + 3 : end;
      values_.push_back({static_cast<Kind>(kind), notation.substr(name, end - name), {}});
    }
    regex += regex_of(kind);
    if (kind == 'P' && cut_ == nullptr) {
      cut_ = std::make_shared<Regex>(regex);
    }
    at = end;
  }
  whole_ = std::make_shared<Regex>(regex);
}

bool TextPattern::match(std::string_view text, Match* match, bool cut) const {
  return fits(*whole_, text, match) || (cut && cut_ != nullptr && fits(*cut_, text, match));
}

bool TextPattern::fits(const Regex& regex, std::string_view text, Match* match) const {
  const int groups = pcre2_match(regex.code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(),
                                 0, 0, regex.data, regex.limits);
  const size_t* ends = pcre2_get_ovector_pointer(regex.data);
  match->text = text;
  match->values.clear();
  for (size_t i = 1; static_cast<int>(i) < groups; i++) {
    const size_t start = ends[2 * i];
    if (start != PCRE2_UNSET) {
      Value value = values_[i - 1];
      value.text = text.substr(start, ends[2 * i + 1] - start);
      match->values.push_back(value);
    }
  }
  return groups > 0;
}

}  // namespace tnwlog
