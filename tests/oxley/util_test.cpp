/*
 * Identifiers, time, memory, fixed text fields and thread names.
 */
#include "ox_util.h"
#include "ox_uuid.h"

#include <pthread.h>

#include "oxley_test.h"

TEST(Uuid, TextAndBinaryInTheWindowsLayout) {
  const ox_u8 binary[OX_UUID_SIZE] = {0x33, 0x22, 0x11, 0x00, 0x55, 0x44, 0x77, 0x66,
                                      0x88, 0x99, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
  char text[OX_UUID_TEXT_SIZE];
  ox_uuid_unparse(binary, text);
  EXPECT_STREQ("00112233-4455-6677-8899-aabbccddeeff", text);
  ox_u8 parsed[OX_UUID_SIZE] = {};
  EXPECT_EQ(0, ox_uuid_parse("00112233-4455-6677-8899-AaBBccDDeeFF", parsed));
  EXPECT_EQ(0, memcmp(binary, parsed, sizeof(parsed)));
  for (const char* bad :
       {static_cast<const char*>(nullptr), "", "00112233-4455-6677-8899-aabbccddeef",
        "00112233-4455-6677-8899-aabbccddeeff0", "{0112233-4455-6677-8899-aabbccddeeff}",
        "00112233-4455-6677-8899-aabbccddee@f", "00112233-4455-66778-899-aabbccddeeff"}) {
    EXPECT_EQ(OX_EINVAL, ox_uuid_parse(bad, parsed)) << (bad != nullptr ? bad : "null");
    EXPECT_EQ(0, memcmp(binary, parsed, sizeof(parsed))) << "left alone";
  }
}

TEST(Time, ElapsedMicroseconds) {
  struct timespec start = {};
  ASSERT_EQ(0, ox_clock_gettime(0, &start));
  EXPECT_LT(ox_usecs_since(&start), 60000000u);
  start.tv_sec -= 100;
  EXPECT_GE(ox_usecs_since(&start), 100000000u);
  start.tv_sec += 100000;
  EXPECT_EQ(0u, ox_usecs_since(&start)) << "a clock set back";
}

TEST(Memory, IsZeroedAndAligned) {
  for (const size_t align : {0, 4, 64, 4096}) {
    auto* p = static_cast<char*>(ox_aligned_zmalloc(10000, align));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(0u, reinterpret_cast<uintptr_t>(p) % (align != 0 ? align : sizeof(void*)));
    EXPECT_EQ(std::string(10000, '\0'), std::string(p, 10000));
    ox_aligned_free_safe(p);
  }
  ox_aligned_free_safe(nullptr);
  ox_free_safe(nullptr);
}

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

TEST(Field, IsFilledWholeAndMayBeUnterminated) {
  char field[8];
  memset(field, '#', sizeof(field));
  ox_copy_field(field, 6, "abc");
  EXPECT_EQ(std::string("abc\0\0\0##", 8), std::string(field, 8));
  EXPECT_EQ(3u, ox_field_len(field, 6));
  ox_copy_field(field, 6, "abcdefghi");
  EXPECT_EQ("abcdef##", std::string(field, 8));
  EXPECT_EQ(6u, ox_field_len(field, 6));
  ox_copy_field(field, 6, nullptr);
  EXPECT_EQ(0u, ox_field_len(field, 6));
}

TEST(Text, FoldsEventNamesAndSeparators) {
  char event[] = "C:\\Users\\J\xc3\x96RG/Tfi@[";
  ox_event_name_fold(event);
  EXPECT_STREQ("c:/users/j\xc3\x96rg/tfi@[", event) << "ASCII alone, whatever the locale";
  char path[] = "//srv/a b\\c/";
  ox_unix2win_sep(path);
  EXPECT_STREQ("\\\\srv\\a b\\c\\", path);
}

TEST(Append, CountsWhatFits) {
  char buf[8];
  int capacity = 6;
  EXPECT_EQ(3, ox_append(buf, &capacity, "%s", "abc"));
  EXPECT_EQ(2, ox_append(buf + 3, &capacity, "%d", 12345));
  EXPECT_EQ(0, ox_append(buf + 5, &capacity, "%s", "more"));
  EXPECT_EQ(1, capacity);
  EXPECT_STREQ("abc12", buf);
}

TEST(ThreadName, IsCutTo15Characters) {
  std::thread([] {
    char name[64] = "";
    EXPECT_EQ(0, ox_pthread_setname_np("TNWIN_VFSC_someone@example"));
    ASSERT_EQ(0, pthread_getname_np(pthread_self(), name, sizeof(name)));
    EXPECT_STREQ("TNWIN_VFSC_some", name);
  }).join();
}

TEST(Errno, OfWindowsErrors) {
  const std::pair<ox_u32, int> table[] = {{3, 2}, {183, 17}, {50, 130}, {38, 38}, {1467, 1467}};
  for (const auto& [winerr, err] : table) {
    EXPECT_EQ(err, ox_winerr2errno(winerr));
  }
}
