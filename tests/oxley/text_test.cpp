/*
 * Text comparison: lower case against the Unicode tables, equality of every pair that they make,
 * and bytes that are no characters.
 */
#include "ox_text.h"

#include <unicode/uchar.h>

#include <fstream>
#include <map>
#include <sstream>

#include "oxley_test.h"
#include "script.h"

/* A letter that ICU gives as one of Unicode 16.0; none if 0. */
static ox_s32 newer_letter = 0;

/* ICU's functions carry their release in their names. */
#define JOINED(prefix, release) prefix##release
#define OF_RELEASE(prefix, release) JOINED(prefix, release)
#define REAL_CHAR_AGE OF_RELEASE(__real_u_charAge_, U_ICU_VERSION_MAJOR_NUM)
#define WRAP_CHAR_AGE OF_RELEASE(__wrap_u_charAge_, U_ICU_VERSION_MAJOR_NUM)

extern "C" {
void REAL_CHAR_AGE(UChar32 c, UVersionInfo age);
void WRAP_CHAR_AGE(UChar32 c, UVersionInfo age) {
  REAL_CHAR_AGE(c, age);
  if (newer_letter != 0 && c == newer_letter) {
    age[0] = 16;
  }
}
}

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
  const std::pair<ox_s32, ox_s32> unknown[] = {
      {0x13A0, 0x13F5},   {0x1C90, 0x1CBF},   {0xA7AB, 0xA7AE},   {0xA7B0, 0xA7B4},
      {0x104B0, 0x104D3}, {0x10C80, 0x10CB2}, {0x118A0, 0x118BF}, {0x16E40, 0x16E5F},
      {0x1E900, 0x1E921}, {0x037F, 0x037F},   {0x0528, 0x0528},   {0x052A, 0x052A},
      {0x052C, 0x052C},   {0x052E, 0x052E},   {0xA698, 0xA698},   {0xA69A, 0xA69A},
      {0xA796, 0xA796},   {0xA798, 0xA798},   {0xA79A, 0xA79A},   {0xA79C, 0xA79C},
      {0xA79E, 0xA79E},   {0xA7B6, 0xA7B6},   {0xA7B8, 0xA7B8}};
  for (const auto& [first, last] : unknown) {
    lower.erase(lower.lower_bound(first), lower.upper_bound(last));
  }
  return lower;
}

/* A copy in a heap block of just its size, so that the address sanitizer sees who reads on. */
const char* at_the_edge(const std::string& text) {
  static std::vector<char> copy;
  copy = std::vector<char>(text.c_str(), text.c_str() + text.size() + 1);
  return copy.data();
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

/* Whichever of the two letters is too new. */
TEST(Text, LettersNewerThanUnicode15_1StayAsTheyAre) {
  for (const auto& [newer, lower_of_a] : CodePoints{{'A', 'A'}, {'a', 'A'}, {'b', 'a'}}) {
    newer_letter = newer;
    EXPECT_EQ(lower_of_a, ox_java_tolower('A')) << newer;
  }
  newer_letter = 0;
}

/* How two texts compare: "same", "alike" in their letters, or "other". */
std::string compare(Args a) {
  const bool same = a[0] == a[1];
  EXPECT_EQ(same ? 0 : 1, ox_utf8_strcmp(at_the_edge(a[0]), a[1].c_str()));
  const int folded = ox_utf8_strcasecmp(at_the_edge(a[0]), a[1].c_str());
  EXPECT_EQ(folded, ox_utf8_strcasecmp(at_the_edge(a[1]), a[0].c_str()));
  return same && folded == 0 ? "same" : folded == 0 ? "alike" : "other";
}

class TextScript : public testing::TestWithParam<ScriptCase> {};

TEST_P(TextScript, Holds) { play(GetParam(), {{"compare", compare}}); }

INSTANTIATE_TEST_SUITE_P(All, TextScript, testing::ValuesIn(script_cases("text")), case_name);

TEST(Text, NoTextIsUnlikeAll) {
  for (int (*compare)(const char*, const char*) : {ox_utf8_strcmp, ox_utf8_strcasecmp}) {
    EXPECT_TRUE(compare(nullptr, "") == 1 && compare("", nullptr) == 1);
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
  const char* at = nullptr;
  EXPECT_EQ(0, ox_is_lower_turkish_i(nullptr));
  EXPECT_EQ(0, ox_is_lower_turkish_i(&at));
  for (const char* text :
       {"i\u0307x", "", "i", "i\xcc", "I\u0307", "\u0307", "\u0130", "xi\u0307"}) {
    const char* const before = at_the_edge(text);
    at = before;
    const int is_one = static_cast<int>(strcmp(text, "i\u0307x") == 0);
    EXPECT_EQ(is_one, ox_is_lower_turkish_i(&at)) << text;
    EXPECT_EQ(before + is_one, at) << text;
  }
}
