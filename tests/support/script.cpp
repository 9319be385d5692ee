#include "script.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "ox_errno.h"
#include "test_folder.h"

namespace {

constexpr size_t SHORTEST_RUN = 12; /* that is shown as a repetition */

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? ""
                                    : text.substr(first, text.find_last_not_of(' ') + 1 - first);
}

/* Reads a part in quotes and its repetitions; `at` moves from its first quote to behind it. */
std::string quoted_part(const std::string& line, size_t* at) {
  std::string text;
  for (++*at; line.at(*at) != '"'; ++*at) {
    const char escape = line[*at] == '\\' ? line.at(++*at) : '\0';
    if (escape == 'x') {
      text += static_cast<char>(std::stoi(line.substr(*at + 1, 2), nullptr, 16));
      *at += 2;
    } else {
      static const std::map<char, char> ESCAPES = {{'n', '\n'}, {'r', '\r'}, {'0', '\0'}};
      const auto found = ESCAPES.find(escape);
      text += found != ESCAPES.end() ? found->second : line[*at];
    }
  }
  ++*at;
  size_t digits = 0;
  const bool repeated = line.substr(*at, 1) == "*";
  const int times = repeated ? std::stoi(line.substr(*at + 1), &digits) : 1;
  *at += repeated ? digits + 1 : 0;
  std::string whole;
  for (int i = 0; i < times; i++) {
    whole += text;
  }
  return whole;
}

std::string answer_of(const Commands& commands, const std::string& line) {
  Arguments arguments = arguments_of(line);
  const auto command = commands.find(arguments[0]);
  if (command == commands.end()) {
    return "no such command";
  }
  arguments.words.erase(arguments.words.begin());
  try {
    return command->second(arguments);
  } catch (const std::exception& exception) {
    return exception.what();
  }
}

using Answers = std::map<size_t, std::string>; /* by the number of the line */

/* The script with the answers that its failing cases gave so far, beside it with the ending .new.
 */
void write_new(const std::string& script, const Answers& answers) {
  static std::map<std::string, Answers> given;
  given[script].insert(answers.begin(), answers.end());
  std::string text;
  size_t number = 0;
  bool is_new = false;
  for (const std::string& line : lines_of(read_file(beside_test(script)))) {
    const auto answer = given[script].find(++number);
    if (answer != given[script].end()) {
      is_new = true;
      text += trimmed(line.substr(0, line.rfind(" -> ")));
      std::string separator = " -> ";
      for (const std::string& part : lines_of(answer->second)) {
        text += separator + part;
        separator = "\n    -> ";
      }
      text += '\n';
    } else if (!is_new || trimmed(line).rfind("->", 0) != 0) {
      is_new = false;
      text += line + '\n';
    }
  }
  write_file(beside_test(std::filesystem::path(script).replace_extension(".new").string()), text);
}

}  // namespace

Arguments arguments_of(const std::string& line) {
  Arguments arguments;
  for (size_t at = 0; at < line.size();) {
    const bool is_text = line[at] == '"';
    std::string word;
    while (at < line.size() && line[at] != ' ') {
      word += line[at] == '"' ? quoted_part(line, &at) : line.substr(at++, 1);
    }
    const size_t sign = is_text ? std::string::npos : word.find('=');
    if (sign != std::string::npos) {
      arguments.options[word.substr(0, sign)] = word.substr(sign + 1);
    } else {
      arguments.words.push_back(word);
    }
    at = std::min(line.find_first_not_of(' ', at), line.size());
  }
  return arguments;
}

bool Arguments::has(const std::string& word) const {
  return std::find(words.begin(), words.end(), word) != words.end();
}

uint64_t Arguments::number(size_t index) const { return std::stoull((*this)[index], nullptr, 0); }

uint64_t Arguments::option(const std::string& name, uint64_t otherwise) const {
  const auto found = options.find(name);
  return found != options.end() ? std::stoull(found->second, nullptr, 0) : otherwise;
}

std::vector<ScriptCase> script_cases(const std::string& script) {
  std::vector<ScriptCase> cases;
  std::map<std::string, std::vector<ScriptLine>> passages;
  std::vector<ScriptLine>* lines = nullptr; /* of the case or the passage */
  size_t number = 0;
  for (const std::string& whole : lines_of(read_file(beside_test(script + ".txt")))) {
    const std::string line = trimmed(whole);
    number++;
    if (line.starts_with("=== ")) {
      lines = &cases.emplace_back(ScriptCase{script + ".txt", line.substr(4), {}}).lines;
    } else if (line.starts_with("--- ")) {
      lines = &passages[line.substr(4)];
    } else if (line.starts_with("+++ ")) {
      const std::vector<ScriptLine>& passage = passages.at(line.substr(4));
      lines->insert(lines->end(), passage.begin(), passage.end());
    } else if (line.starts_with("->")) {
      std::string& answer = lines->back().answer;
      answer += (answer.empty() ? "" : "\n") + trimmed(line.substr(2));
    } else if (!line.empty() && line[0] != '#') {
      const size_t end = std::min(line.rfind(" -> "), line.size());
      const std::string answer = end < line.size() ? trimmed(line.substr(end + 4)) : "";
      lines->push_back({number, trimmed(line.substr(0, end)), answer});
    }
  }
  return cases.empty() ? throw std::runtime_error("no cases in " + script + ".txt") : cases;
}

void play(const ScriptCase& script_case, const Commands& commands) {
  ASSERT_FALSE(script_case.lines.empty()) << "a heading without commands";
  Answers answers;
  for (const ScriptLine& line : script_case.lines) {
    const std::string answer = answers[line.number] = answer_of(commands, line.text);
    if (answer != line.answer) {
      ADD_FAILURE_AT(script_case.script.c_str(), static_cast<int>(line.number))
          << "expected: " << line.text << " -> " << line.answer << "\n     was: " << line.text
          << " -> " << answer;
    }
  }
  if (testing::Test::HasFailure()) {
    write_new(script_case.script, answers);
  }
}

std::string as_word(const std::string& text) {
  std::string word;
  std::string part; /* that goes into quotes */
  const auto end_part = [&] { word += part.empty() ? "" : '"' + std::exchange(part, "") + '"'; };
  for (size_t at = 0; at < text.size();) {
    const size_t run = std::min(text.find_first_not_of(text[at], at), text.size()) - at;
    const auto byte = static_cast<unsigned char>(text[at]);
    char shown[5] = {text[at]};
    if (byte < ' ' || byte >= 0xf5) { /* no character, nor a part of one */
      snprintf(shown, sizeof shown, "\\x%02x", byte);
    } else if (text[at] == '"' || text[at] == '\\') {
      snprintf(shown, sizeof shown, "\\%c", text[at]);
    }
    if (run < SHORTEST_RUN) {
      part += shown;
      at++;
    } else {
      end_part();
      word += '"' + std::string(shown) + "\"*" + std::to_string(run);
      at += run;
    }
  }
  end_part();
  return word.empty() ? "\"\"" : word;
}

std::string error_name(int error) {
  static constexpr int NUMBERS[] = {
      0,         OX_EPERM,   OX_ENOENT, OX_EIO,    OX_E2BIG,  OX_EBADF,  OX_EACCES, OX_EBUSY,
      OX_EEXIST, OX_ENOTDIR, OX_EISDIR, OX_EINVAL, OX_EMFILE, OX_ENOSPC, OX_ENOSYS, OX_ENOTEMPTY};
  static constexpr const char* NAMES[] = {
      "0",      "EPERM",   "ENOENT", "EIO",    "E2BIG",  "EBADF",  "EACCES", "EBUSY",
      "EEXIST", "ENOTDIR", "EISDIR", "EINVAL", "EMFILE", "ENOSPC", "ENOSYS", "ENOTEMPTY"};
  static_assert(std::size(NUMBERS) == std::size(NAMES));
  const auto found = std::ranges::find(NUMBERS, error) - NUMBERS;
  return found < std::ssize(NAMES) ? NAMES[found] : std::to_string(error);
}

std::string identifier_of(const ScriptCase& script_case) {
  std::string identifier;
  bool begins = true;
  for (const char c : script_case.name) {
    const bool is_letter = isalnum(static_cast<unsigned char>(c)) != 0;
    if (is_letter) {
      identifier += begins ? static_cast<char>(toupper(static_cast<unsigned char>(c))) : c;
    }
    begins = !is_letter;
  }
  return identifier;
}
