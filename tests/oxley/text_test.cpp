/*
 * Text comparison: lower case against the Unicode tables, equality of every pair that they make,
 * and bytes that are no characters.
 */
#include "ox_text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

#ifdef _WIN32
#include <windows.h>
#else
#include <sys/mman.h>
#endif

namespace {

using CodePoints = std::map<ox_s32, ox_s32>;

/* A code point's bytes, by the same pattern for values that are none. */
std::string utf8(ox_s32 c) {
  if (c < 0x80) {
    return {static_cast<char>(c)};
  }
  std::string text;
  ox_s32 lead_room = 0x40; /* the values that fit into the lead byte */
  while (c >= lead_room) {
    text.insert(0, 1, static_cast<char>(0x80 | c % 0x40));
    c /= 0x40;
    lead_room /= 2;
  }
  return text.insert(0, 1, static_cast<char>(0x100 - 2 * lead_room + c));
}

/* The single lower-case letter that UnicodeData.txt gives each code point that has one, without
 * those that Java does not lower. */
CodePoints lower_case_of_java() {
  CodePoints lower;
#ifdef _WIN32
  std::ifstream tables("Z:/usr/share/unicode/UnicodeData.txt");
#else
  std::ifstream tables("/usr/share/unicode/UnicodeData.txt");
#endif
  for (std::string line; std::getline(tables, line);) {
    std::istringstream fields(line);
    std::string code, field;
    std::getline(fields, code, ';');
    for (int i = 1; i <= 13; ++i) {
      std::getline(fields, field, ';');
    }
    if (!field.empty()) {
      lower[std::stoi(code, nullptr, 16)] = std::stoi(field, nullptr, 16);
    }
  }
  const std::pair<ox_s32, ox_s32> ranges[] = {
      {0x13A0, 0x13F5},   {0x1C90, 0x1CBF},   {0xA7AB, 0xA7AE},
      {0xA7B0, 0xA7B4},   {0x104B0, 0x104D3}, {0x10C80, 0x10CB2},
      {0x118A0, 0x118BF}, {0x16E40, 0x16E5F}, {0x1E900, 0x1E921}};
  for (const auto& [first, last] : ranges) {
    lower.erase(lower.lower_bound(first), lower.upper_bound(last));
  }
  for (const ox_s32 single : {0x037F, 0x0528, 0x052A, 0x052C, 0x052E, 0xA698, 0xA69A, 0xA796,
                              0xA798, 0xA79A, 0xA79C, 0xA79E, 0xA7B6, 0xA7B8}) {
    lower.erase(single);
  }
  return lower;
}

/* A text whose NUL is the last byte before memory that may not be read. */
const char* at_the_edge(const std::string& text) {
  constexpr size_t page = 0x10000;
#ifdef _WIN32
  static char* const room = [] {
    auto* pages = static_cast<char*>(VirtualAlloc(nullptr, 2 * page, MEM_RESERVE, PAGE_NOACCESS));
    return static_cast<char*>(VirtualAlloc(pages, page, MEM_COMMIT, PAGE_READWRITE));
  }();
#else
  static char* const room = [] {
    void* pages = mmap(nullptr, 2 * page, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    mprotect(pages, page, PROT_READ | PROT_WRITE);
    return static_cast<char*>(pages);
  }();
#endif
  return strcpy(room + page - text.size() - 1, text.c_str());
}

/* Both comparisons, in both orders: what each says. */
void expect_comparison(const std::string& a, const std::string& b, int exact, int folded) {
  EXPECT_EQ(exact, ox_utf8_strcmp(at_the_edge(a), b.c_str())) << a << '|' << b;
  EXPECT_EQ(exact, ox_utf8_strcmp(at_the_edge(b), a.c_str())) << a << '|' << b;
  EXPECT_EQ(folded, ox_utf8_strcasecmp(at_the_edge(a), b.c_str())) << a << '|' << b;
  EXPECT_EQ(folded, ox_utf8_strcasecmp(at_the_edge(b), a.c_str())) << a << '|' << b;
}

}  // namespace

/* Each code point against its lower case and against its neighbour. */
TEST(Text, LowerCaseAndEqualityOfEveryCodePoint) {
  const CodePoints table = lower_case_of_java();
  ASSERT_GT(table.size(), 1000u) << "no UnicodeData.txt (package unicode-data)";
  std::string before;
  ox_s32 lower_before = 0;
  for (ox_s32 c = 0; c <= 0x10FFFF; ++c) {
    const auto found = table.find(c);
    const ox_s32 lower = c == 0x130 ? 0x690307 : found == table.end() ? c : found->second;
    ASSERT_EQ(lower, ox_java_tolower(c)) << std::hex << c;
    const std::string text = utf8(c);
    ASSERT_EQ(lower != lower_before, ox_utf8_strcasecmp(text.c_str(), before.c_str())) << c;
    if (lower != c && c != 0x130) {
      ASSERT_EQ(0, ox_utf8_strcasecmp(text.c_str(), utf8(lower).c_str())) << std::hex << c;
      ASSERT_EQ(1, ox_utf8_strcmp(text.c_str(), utf8(lower).c_str())) << std::hex << c;
    }
    before = text;
    lower_before = lower;
  }
  for (const ox_s32 none : {0xD800, 0xDFFF, 0x110000, 0x690307, 0x7FFFFFFF, -1, -0x41}) {
    EXPECT_EQ(none, ox_java_tolower(none));
  }
}

TEST(Text, Comparisons) {
  const struct {
    const char *a, *b;
    int exact, folded;
  } cases[] = {
      {"", "", 0, 0},
      {"ABC", "abc", 1, 0},
      {"abc", "ab", 1, 1},
      {"a", "", 1, 1},
      {"b", "a", 1, 1},
      {"\u00c4.txt", "\u00e4.TXT", 1, 0},
      {"\u00c4", "A\u0308", 1, 1},
      {"\u13a0", "\uab70", 1, 1},
      {"\u0130", "\u0130", 0, 0},
      {"x\u0130Y", "Xi\u0307y", 1, 0},
      {"\u0130\u0130", "i\u0307\u0130", 1, 0},
      {"\u0130\u0130\u0130", "i\u0307\u0130i\u0307", 1, 0},
      {"\u0130", "i", 1, 1},
      {"\u0130", "i\u0308", 1, 1},
      {"\u0130", "\u0307", 1, 1},
      {"\u0130", "i\xcc", 1, 1},
      {"\u0130", "I\u0307", 1, 1},
      {"\u0130\u0307", "i\u0307", 1, 1},
      {"\u0130", "i\u0307\u0307", 1, 1},
      {"\u0130i", "i\u0307", 1, 1},
      /*
       * Malformed: a stray or truncated sequence, an overlong one, a surrogate, too large a value.
       */
      {"\x80", "\x80", 0, 0},
      {"\xff", "\xfe", 1, 1},
      {"a\xfc", "A\xfc", 1, 0},
      {"a\xf0\x9f\x98", "a\xf0\x9f", 1, 1},
      {"\xe2\x82 B", "\xe2\x82 b", 1, 0},
      {"\xc3", "\u00c4", 1, 1},
      {"\xc1\x81", "A", 1, 1},
      {"\xc0\x80", "", 1, 1},
      {"\xed\xa0\x80", "\xed\xa0\x81", 1, 1},
      {"\xf4\x90\x80\x80", "\xf4\x90\x80\x80", 0, 0},
      {"\xf8\x9a\x90\x8c\x87", "\u0130", 1, 1},
      {"\xf8\x9a\x90\x8c\x87", "i\u0307", 1, 1},
      {"\xf8\x9a\x90\x8c\x87", "\xf8\x9a\x90\x8c\x87", 0, 0},
  };
  for (const auto& [a, b, exact, folded] : cases) {
    expect_comparison(a, b, exact, folded);
  }
  for (int (*compare)(const char*, const char*) : {ox_utf8_strcmp, ox_utf8_strcasecmp}) {
    EXPECT_EQ(1, compare(nullptr, ""));
    EXPECT_EQ(1, compare("", nullptr));
    EXPECT_EQ(1, compare(nullptr, nullptr));
  }
}

/* Each lead byte, alone and with what may continue it, before memory that may not be read. */
TEST(Text, NothingBeyondTheNulIsRead) {
  for (int lead = 0x80; lead <= 0xFF; ++lead) {
    for (size_t tail = 0; tail < 6; ++tail) {
      const std::string text = static_cast<char>(lead) + std::string(tail, '\x90');
      EXPECT_EQ(0, ox_utf8_strcasecmp(at_the_edge(text), text.c_str()));
      EXPECT_EQ(1, ox_utf8_strcasecmp(at_the_edge(text), (text + "x").c_str()));
      EXPECT_EQ(1, ox_utf8_strcasecmp(at_the_edge("i"), "\u0130"));
    }
  }
}

TEST(Text, TheLowerDottedIMovesTheTextOn) {
  const char text[] = "i\u0307x";
  const char* at = text;
  EXPECT_EQ(1, ox_is_lower_turkish_i(&at));
  EXPECT_EQ(text + 1, at);
  for (const char* other : {"", "i", "i\xcc", "I\u0307", "\u0307", "\u0130", "xi\u0307"}) {
    at = at_the_edge(other);
    const char* const before = at;
    EXPECT_EQ(0, ox_is_lower_turkish_i(&at)) << other;
    EXPECT_EQ(before, at);
  }
  at = nullptr;
  EXPECT_EQ(0, ox_is_lower_turkish_i(&at));
  EXPECT_EQ(0, ox_is_lower_turkish_i(nullptr));
}
