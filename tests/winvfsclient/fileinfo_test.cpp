#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "../oxley/captured_log.h"
#include "tn_util.h"

namespace {

/* A list entry with its name behind it. */
class Entry {
 public:
  explicit Entry(const std::string& name) : bytes_(sizeof(cfs_path) + name.size() + 1) {
    memcpy(bytes_.data() + sizeof(cfs_path), name.c_str(), name.size() + 1);
    (*this)->mp_size = 4711;
    memset((*this)->mp_id.id, 0xAB, sizeof((*this)->mp_id.id));
    (*this)->mp_btime.tv_sec = 1;
    memset((*this)->mp_checksum.ck_sha512, 0x0F, sizeof((*this)->mp_checksum.ck_sha512));
  }
  cfs_path* operator->() { return reinterpret_cast<cfs_path*>(bytes_.data()); }
  /* What it becomes, in a record that held something else. */
  tnw_fileinfo info() {
    tnw_fileinfo fi;
    memset(&fi, 0xFF, sizeof(fi));
    tn_cfp2fi(&fi, &*operator->());
    return fi;
  }

 private:
  std::vector<ox_u8> bytes_;
};

std::string digits() {
  std::string text;
  for (int i = 0; i < 64; i++) text += "0f";
  return text;
}

TEST(FileInfo, OfAFile) {
  Entry entry("caf\xC3\xA9.txt");
  entry->mp_cmtime = {1700000000, 123456789, 0};
  entry->mp_flags = 0xFE; /* all but the folder's bit */
  entry->mp_perms = 4;    /* read only: does not become an attribute */
  const tnw_fileinfo fi = entry.info();

  tnw_fileinfo expected = {};
  expected.fi_ctime = expected.fi_atime = expected.fi_mtime = 133444736001234567;
  expected.fi_size = 4711;
  strcpy(expected.fi_id, "abababab-abab-abab-abab-abababababab");
  strcpy(expected.fi_name, "caf\xC3\xA9.txt");
  strcpy(expected.fi_cksum, digits().c_str());
  EXPECT_EQ(memcmp(&fi, &expected, sizeof(fi)), 0);
}

TEST(FileInfo, OfAFolder) {
  Entry entry("folder");
  entry->mp_flags = CFS_PATH_FOLDER;
  entry->mp_checksum.ck_nchunks = 3;
  const tnw_fileinfo fi = entry.info();
  EXPECT_EQ(fi.fi_attr, 16u);
  EXPECT_STREQ(fi.fi_cksum, "");
  EXPECT_EQ(fi.fi_ctime, 116444736000000000u);
}

TEST(FileInfo, TheLongestTextsFit) {
  Entry entry(std::string(300, 'n'));
  entry->mp_checksum.ck_version = entry->mp_checksum.ck_nchunks = 0x80000000;
  entry->mp_checksum.ck_csize = ~ox_u64{0};
  const tnw_fileinfo fi = entry.info();
  EXPECT_EQ(std::string(fi.fi_name, sizeof(fi.fi_name)), std::string(sizeof(fi.fi_name), 'n'));
  EXPECT_EQ(fi.fi_cksum, "-2147483648--2147483648-18446744073709551615-" + digits());
}

/* Where the two tables are not each other's inverse, and what is in neither. */
TEST(ErrorCodes, DifferByDirection) {
  const captured_log log;
  EXPECT_EQ(unixerr2winerr(1), 5u);
  EXPECT_EQ(unixerr2winerr(13), 32u);
  EXPECT_EQ(unixerr2winerr(133), 1467u);
  EXPECT_EQ(winerr2unixerr(5), 13u);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(winerr2unixerr(32), 22u);
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].ends_with(" Unidentified windows error 32")) << lines[0];
  EXPECT_NE(lines[1].find("INFO    tn_util_win.:"), std::string::npos) << lines[1];
  EXPECT_TRUE(lines[1].ends_with(" Unidentified unix error -1")) << lines[1];
}

}  // namespace
