#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "log_capture.h"
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
  for (int i = 0; i < 64; i++) {
    text += "0f";
  }
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

using Codes = std::map<ox_u32, ox_u32>;

/* Both tables whole: what is in neither is logged, and goes through in one direction only. */
TEST(ErrorCodes, AllOfBothDirections) {
  const Codes to_windows = {{0, 0},    {1, 5},    {2, 2},    {5, 1117},  {12, 8},
                            {13, 32},  {16, 170}, {17, 80},  {20, 267},  {22, 13},
                            {28, 112}, {32, 109}, {41, 145}, {133, 1467}};
  const Codes to_unix = {{0, 0},   {2, 2},   {5, 13},   {8, 12},
                         {13, 22}, {80, 17}, {112, 28}, {1117, 5}};
  const LogCapture log;
  for (ox_u32 code = 0; code < 1500; code++) {
    const auto windows = to_windows.find(code), unix_error = to_unix.find(code);
    EXPECT_EQ(unixerr2winerr(code), windows == to_windows.end() ? code : windows->second) << code;
    EXPECT_EQ(winerr2unixerr(code), unix_error == to_unix.end() ? 22 : unix_error->second) << code;
  }
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 1500 - to_windows.size() + 1500 - to_unix.size() + 1);
  EXPECT_TRUE(lines[0].ends_with(" Unidentified windows error 1")) << lines[0];
  EXPECT_NE(lines[0].find("INFO    tn_util_win.:"), std::string::npos) << lines[0];
  EXPECT_TRUE(lines.back().ends_with(" Unidentified unix error -1")) << lines.back();
}

}  // namespace
