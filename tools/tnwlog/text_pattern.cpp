#include "text_pattern.h"

#include <cctype>

namespace tnwlog {
namespace {

constexpr size_t kNone = std::string_view::npos;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHex(char c) { return IsDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool IsWord(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '.' ||
         c == '+' || c == '-';
}

/*
 * The length of `shape` when the text begins so: '0' stands for a digit, 'x' for a hexadecimal one.
 */
size_t ShapeLength(std::string_view text, std::string_view shape) {
  if (text.size() < shape.size()) {
    return kNone;
  }
  for (size_t i = 0; i < shape.size(); i++) {
    const bool fits = shape[i] == '0'   ? IsDigit(text[i])
                      : shape[i] == 'x' ? IsHex(text[i])
                                        : text[i] == shape[i];
    if (!fits) {
      return kNone;
    }
  }
  return shape.size();
}

template <typename Belongs>
size_t RunLength(std::string_view text, Belongs belongs) {
  size_t length = 0;
  while (length < text.size() && belongs(text[length])) {
    length++;
  }
  return length;
}

size_t NumberLength(std::string_view text) {
  const size_t sign = text.starts_with('-') ? 1 : 0;
  const size_t digits = RunLength(text.substr(sign), IsDigit);
  return digits > 0 ? sign + digits : kNone;
}

size_t NotEmpty(size_t length) { return length > 0 ? length : kNone; }

/* How far a value of bounded shape reaches, kNone when the text does not begin with one. */
size_t ValueLength(Kind kind, std::string_view text) {
  switch (kind) {
    case Kind::kTime:
      return ShapeLength(text, "0000-00-00 00:00:00.000");
    case Kind::kId:
      return ShapeLength(text, "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx");
    case Kind::kNumber:
    case Kind::kOwner:
      return NumberLength(text);
    case Kind::kDecimals:
      return NotEmpty(RunLength(text, [](char c) { return IsDigit(c) || c == '.'; }));
    case Kind::kHex:
      return NotEmpty(RunLength(text, [](char c) { return IsHex(c) || c == 'x'; }));
    case Kind::kWord:
      return RunLength(text, IsWord);
    case Kind::kBlanks:
      return RunLength(text, [](char c) { return c == ' '; });
    default:
      return kNone;
  }
}

bool IsFreeText(Kind kind) {
  return kind == Kind::kName || kind == Kind::kPath || kind == Kind::kFirstPath ||
         kind == Kind::kSecret;
}

}  // namespace

std::string_view ValueOf(const Pieces& pieces, std::string_view name) {
  for (const Piece& piece : pieces) {
    if (piece.name == name) {
      return piece.text;
    }
  }
  return {};
}

TextPattern::TextPattern(std::string_view text) {
  while (!text.empty()) {
    const size_t open = text.find('<');
    if (open != 0) {
      elements_.push_back({Kind::kLiteral, {}, text.substr(0, open)});
    }
    if (open == kNone) {
      return;
    }
    const size_t close = text.find('>', open);
    const std::string_view value = text.substr(open + 1, close - open - 1);
    const std::string_view name = value.size() > 2 ? value.substr(2) : std::string_view();
    elements_.push_back({static_cast<Kind>(value[0]), name, {}});
    text.remove_prefix(close + 1);
  }
}

/*
 * One attempt. Backtracks where free text may end in several places, within a budget that no line
 * but one made for it exceeds.
 */
class TextPattern::Matcher {
 public:
  Matcher(const std::vector<Element>& elements, std::string_view text, Pieces* pieces, bool cut)
      : elements_(elements), text_(text), pieces_(*pieces), cut_(cut) {}

  bool From(size_t index, size_t at) {
    if (index == elements_.size()) {
      return at == text_.size();
    }
    if (--budget_ < 0) {
      return false;
    }
    const Element& element = elements_[index];
    const size_t count = pieces_.size();
    if (Fits(element, index, at)) {
      return true;
    }
    pieces_.resize(count);
    return cut_ && EndsIn(element, at);
  }

 private:
  bool Fits(const Element& element, size_t index, size_t at) {
    const std::string_view rest = text_.substr(at);
    if (element.kind == Kind::kLiteral) {
      return rest.starts_with(element.literal) &&
             Take(element, index, at, at + element.literal.size());
    }
    if (element.kind == Kind::kOptional) {
      const size_t count = pieces_.size();
      return From(index + 1, at) || (pieces_.resize(count), From(EndOfOptional(index) + 1, at));
    }
    if (element.kind == Kind::kEndOptional) {
      return From(index + 1, at);
    }
    if (element.kind == Kind::kRest ||
        (IsFreeText(element.kind) && index + 1 == elements_.size())) {
      return Take(element, index, at, text_.size());
    }
    if (IsFreeText(element.kind)) {
      return element.kind == Kind::kPath ? LastFit(element, index, at)
                                         : FirstFit(element, index, at);
    }
    const size_t length = ValueLength(element.kind, rest);
    return length != kNone && Take(element, index, at, at + length);
  }

  bool Take(const Element& element, size_t index, size_t at, size_t end) {
    pieces_.push_back({element.kind, element.name, text_.substr(at, end - at)});
    return From(index + 1, end);
  }

  bool FirstFit(const Element& element, size_t index, size_t at) {
    const std::string_view next = elements_[index + 1].literal;
    const size_t count = pieces_.size();
    for (size_t end = text_.find(next, at); end != kNone; end = text_.find(next, end + 1)) {
      if (Take(element, index, at, end)) {
        return true;
      }
      pieces_.resize(count);
    }
    return false;
  }

  bool LastFit(const Element& element, size_t index, size_t at) {
    const std::string_view next = elements_[index + 1].literal;
    const size_t count = pieces_.size();
    for (size_t end = text_.rfind(next); end != kNone && end >= at;
         end = text_.rfind(next, end - 1)) {
      if (Take(element, index, at, end)) {
        return true;
      }
      pieces_.resize(count);
      if (end == 0) {
        break;
      }
    }
    return false;
  }

  /* Whether a cut text ends within this element. */
  bool EndsIn(const Element& element, size_t at) {
    const std::string_view rest = text_.substr(at);
    if (IsFreeText(element.kind) ||
        (element.kind == Kind::kLiteral && element.literal.starts_with(rest)) ||
        ValueLength(element.kind, rest) == rest.size()) {
      pieces_.push_back({element.kind, element.name, rest});
      return true;
    }
    return false;
  }

  size_t EndOfOptional(size_t index) const {
    while (elements_[index].kind != Kind::kEndOptional) {
      index++;
    }
    return index;
  }

  const std::vector<Element>& elements_;
  const std::string_view text_;
  Pieces& pieces_;
  const bool cut_;
  int budget_ = 20000;
};

bool TextPattern::Match(std::string_view text, Pieces* pieces, bool cut) const {
  pieces->clear();
  return Matcher(elements_, text, pieces, cut).From(0, 0);
}

}  // namespace tnwlog
