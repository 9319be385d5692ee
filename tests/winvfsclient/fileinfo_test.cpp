#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <utility>
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
  EXPECT_EQ(fi.fi_mtime, expected.fi_mtime);
  EXPECT_STREQ(fi.fi_cksum, expected.fi_cksum);
}

TEST(FileInfo, OfAFolder) {
  Entry entry("folder");
  entry->mp_flags = CFS_PATH_FOLDER;
  entry->mp_checksum.ck_nchunks = 3;
  const tnw_fileinfo fi = entry.info();
  EXPECT_EQ(fi.fi_attr, 16u);
  EXPECT_STREQ(fi.fi_name, "folder");
  EXPECT_STREQ(fi.fi_cksum, "");
  EXPECT_EQ(fi.fi_ctime, 116444736000000000u);
}

TEST(FileInfo, ChecksumNamesItsChunks) {
  Entry entry("f");
  entry->mp_checksum.ck_version = 1;
  entry->mp_checksum.ck_nchunks = 3;
  entry->mp_checksum.ck_csize = 4194304;
  EXPECT_EQ(entry.info().fi_cksum, "1-3-4194304-" + digits());
  entry->mp_checksum.ck_version = entry->mp_checksum.ck_nchunks = 0x80000000;
  entry->mp_checksum.ck_csize = ~ox_u64{0};
  EXPECT_EQ(entry.info().fi_cksum, "-2147483648--2147483648-18446744073709551615-" + digits());
}

TEST(FileInfo, ALongNameFillsItsField) {
  const tnw_fileinfo shorter = Entry(std::string(244, 'n')).info();
  EXPECT_EQ(shorter.fi_name, std::string(244, 'n'));
  const tnw_fileinfo longer = Entry(std::string(300, 'n')).info();
  EXPECT_EQ(std::string(longer.fi_name, 245), std::string(245, 'n'));
  EXPECT_EQ(longer.fi_cksum, digits());
}

using Codes = std::vector<std::pair<ox_u32, ox_u32>>;

TEST(ErrorCodes, FromTheService) {
  const Codes codes = {{0, 0},   {1, 5},    {2, 2},   {5, 1117}, {12, 8},   {13, 32},  {16, 170},
                       {17, 80}, {20, 267}, {22, 13}, {28, 112}, {32, 109}, {41, 145}, {133, 1467}};
  const captured_log log;
  for (const auto& [unix_err, windows] : codes) EXPECT_EQ(unixerr2winerr(unix_err), windows);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(unixerr2winerr(99), 99u);
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find("INFO    tn_util_win.:"), std::string::npos) << lines[0];
  EXPECT_TRUE(lines[0].ends_with(" Unidentified unix error 99"));
  EXPECT_TRUE(lines[1].ends_with(" Unidentified unix error -1"));
}

TEST(ErrorCodes, ToTheService) {
  const Codes codes = {{0, 0}, {2, 2}, {5, 13}, {8, 12}, {13, 22}, {80, 17}, {112, 28}, {1117, 5}};
  const captured_log log;
  for (const auto& [windows, unix_err] : codes) EXPECT_EQ(winerr2unixerr(windows), unix_err);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(winerr2unixerr(99), 22u);
  EXPECT_EQ(winerr2unixerr(32), 22u); /* no inverse of 13 */
  ASSERT_EQ(log.lines().size(), 2u);
  EXPECT_TRUE(log.lines()[0].ends_with(" Unidentified windows error 99"));
}

}  // namespace
