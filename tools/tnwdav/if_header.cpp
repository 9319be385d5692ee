#include "if_header.h"

#include <cctype>

namespace tnwdav {
namespace {

class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  /* The next character that is no blank; 0 at the end. */
  char peek() {
    while (!rest_.empty() && isspace(static_cast<unsigned char>(rest_.front())) != 0) {
      rest_.remove_prefix(1);
    }
    return rest_.empty() ? '\0' : rest_.front();
  }
  bool take(std::string_view word) {
    peek();
    if (!rest_.starts_with(word)) {
      return false;
    }
    rest_.remove_prefix(word.size());
    return true;
  }
  /* What stands between these two characters; the first one is next. */
  std::optional<std::string> take_between(char open, char close) {
    const size_t end = rest_.find(close);
    if (peek() != open || end == std::string_view::npos) {
      return std::nullopt;
    }
    std::string inside(rest_.substr(1, end - 1));
    rest_.remove_prefix(end + 1);
    return inside;
  }

 private:
  std::string_view rest_;
};

std::optional<IfCondition> take_condition(Scanner* scanner) {
  IfCondition condition;
  condition.negated = scanner->take("Not");
  condition.tag = scanner->peek() == '[';
  std::optional<std::string> value =
      condition.tag ? scanner->take_between('[', ']') : scanner->take_between('<', '>');
  if (!value) {
    return std::nullopt;
  }
  condition.value = *std::move(value);
  return condition;
}

std::optional<IfList> take_list(Scanner* scanner, const std::string& resource) {
  IfList list{.resource = resource, .conditions = {}};
  if (!scanner->take("(")) {
    return std::nullopt;
  }
  while (!scanner->take(")")) {
    std::optional<IfCondition> condition = take_condition(scanner);
    if (!condition) {
      return std::nullopt;
    }
    list.conditions.push_back(*std::move(condition));
  }
  return list;
}

}  // namespace

std::optional<std::vector<IfList>> parse_if_header(std::string_view header) {
  std::vector<IfList> lists;
  std::string resource;
  Scanner scanner(header);
  while (scanner.peek() != '\0') {
    if (scanner.peek() == '<') {
      std::optional<std::string> tag = scanner.take_between('<', '>');
      if (!tag) {
        return std::nullopt;
      }
      resource = *std::move(tag);
    }
    std::optional<IfList> list = take_list(&scanner, resource);
    if (!list) {
      return std::nullopt;
    }
    lists.push_back(*std::move(list));
  }
  return lists.empty() ? std::nullopt : std::optional(std::move(lists));
}

std::vector<std::string> submitted_tokens(const std::vector<IfList>& lists) {
  std::vector<std::string> tokens;
  for (const IfList& list : lists) {
    for (const IfCondition& condition : list.conditions) {
      if (!condition.tag) {
        tokens.push_back(condition.value);
      }
    }
  }
  return tokens;
}

}  // namespace tnwdav
