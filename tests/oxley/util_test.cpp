/*
 * Identifiers, fixed text fields, names and memory that cannot be had.
 */
#include "ox_util.h"
#include "ox_uuid.h"

#include "oxley_test.h"
#include "script.h"

/* The bytes as a text, and back as the text of the bytes; "wrong" leaves them alone. */
std::string uuid(Args a) {
  ox_u8 bytes[OX_UUID_SIZE] = {};
  const std::string before(std::begin(bytes), std::end(bytes));
  const int err = ox_uuid_parse(a[0] == "NULL" ? nullptr : a.words[0].c_str(), bytes);
  const std::string after(std::begin(bytes), std::end(bytes));
  EXPECT_TRUE(err == 0 || before == after);
  char text[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(bytes, text);
  return err != 0 ? error_name(err) : as_word(after) + " " + text;
}

/* Of 6 bytes in 8, and its length. */
std::string field(Args a) {
  char bytes[8];
  memset(bytes, '#', sizeof(bytes));
  ox_copy_field(bytes, 6, a[0] == "NULL" ? nullptr : a.words[0].c_str());
  return as_word(std::string(bytes, 8)) + " " + std::to_string(ox_field_len(bytes, 6));
}

template <auto fold>
std::string folded(Args a) {
  std::string text = a[0];
  fold(text.data());
  return text;
}

class UtilScript : public testing::TestWithParam<ScriptCase> {};

TEST_P(UtilScript, Holds) {
  Commands commands = {{"uuid", uuid},
                       {"field", field},
                       {"event_name", folded<ox_event_name_fold>},
                       {"separators", folded<ox_unix2win_sep>}};
  commands.add("errno", [](Args a) { return ox_winerr2errno(static_cast<ox_u32>(a.number(0))); });
  play(GetParam(), commands);
}

INSTANTIATE_TEST_SUITE_P(All, UtilScript, testing::ValuesIn(script_cases("util")), case_name);

TEST(Memory, ThatCannotBeHadIsNullWithAnErrno) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers' allocators end the process";
#endif
  volatile size_t endless = PTRDIFF_MAX; /* volatile: the compiler knows that it cannot be had */
  for (const auto allocate : {+[](size_t size) { return ox_zalloc(size); },
                              +[](size_t size) { return ox_aligned_zmalloc(size, 4096); }}) {
    errno = 0;
    EXPECT_EQ(nullptr, allocate(endless));
    EXPECT_EQ(OX_ENOMEM, errno);
  }
}
