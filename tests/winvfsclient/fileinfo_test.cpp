#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "log_capture.h"
#include "tn_util.h"

namespace {

/* What an entry with this name becomes, in a record that held something else. */
tnw_fileinfo info_of(cfs_path entry, const std::string& name) {
  entry.mp_size = 4711;
  entry.mp_btime.tv_sec = 1;
  memset(entry.mp_id.id, 0xAB, sizeof(entry.mp_id.id));
  memset(entry.mp_checksum.ck_sha512, 0x0F, sizeof(entry.mp_checksum.ck_sha512));
  std::vector<char> bytes(sizeof(entry) + name.size() + 1);
  memcpy(bytes.data(), &entry, sizeof(entry));
  memcpy(bytes.data() + sizeof(entry), name.c_str(), name.size() + 1);
  tnw_fileinfo fi;
  memset(&fi, 0xFF, sizeof(fi));
  tn_cfp2fi(&fi, reinterpret_cast<const cfs_path*>(bytes.data()));
  return fi;
}

std::string digits() {
  std::string text;
  for (int i = 0; i < 64; i++) {
    text += "0f";
  }
  return text;
}

TEST(FileInfo, OfAFile) {
  cfs_path entry = {};
  entry.mp_cmtime = {1700000000, 123456789, 0};
  entry.mp_flags = 0xFE; /* all but the folder's bit */
  entry.mp_perms = TN_CFP_PERM_READ;
  const tnw_fileinfo fi = info_of(entry, "caf\xC3\xA9.txt");
  tnw_fileinfo expected = {};
  expected.fi_ctime = expected.fi_atime = expected.fi_mtime = 133444736001234567;
  expected.fi_size = 4711;
  strcpy(expected.fi_id, "abababab-abab-abab-abab-abababababab");
  strcpy(expected.fi_name, "caf\xC3\xA9.txt");
  strcpy(expected.fi_cksum, digits().c_str());
  EXPECT_EQ(memcmp(&fi, &expected, sizeof(fi)), 0);
}

TEST(FileInfo, OfAFolderAndWithTheLongestTexts) {
  cfs_path entry = {};
  entry.mp_flags = CFS_PATH_FOLDER;
  entry.mp_checksum.ck_version = entry.mp_checksum.ck_nchunks = 0x80000000;
  entry.mp_checksum.ck_csize = ~ox_u64{0};
  const tnw_fileinfo folder = info_of(entry, "folder");
  EXPECT_EQ(folder.fi_attr, 16u);
  EXPECT_STREQ(folder.fi_cksum, "");
  EXPECT_EQ(folder.fi_ctime, 116444736000000000u);
  entry.mp_flags = 0;
  const tnw_fileinfo file = info_of(entry, std::string(300, 'n'));
  EXPECT_EQ(std::string(file.fi_name, sizeof(file.fi_name)), std::string(245, 'n'));
  EXPECT_EQ(std::string(file.fi_cksum), "-2147483648--2147483648-18446744073709551615-" + digits());
}

/* Both tables whole: what is in neither is logged, and goes through in one direction only. */
TEST(ErrorCodes, AllOfBothDirections) {
  const std::map<ox_u32, ox_u32> to_windows = {
      {0, 0},   {1, 5},    {2, 2},   {5, 1117}, {12, 8},   {13, 32},  {16, 170},
      {17, 80}, {20, 267}, {22, 13}, {28, 112}, {32, 109}, {41, 145}, {133, TNW_ERROR_NO_SERVICE}};
  const std::map<ox_u32, ox_u32> to_unix = {{0, 0},   {2, 2},   {5, 13},   {8, 12},
                                            {13, 22}, {80, 17}, {112, 28}, {1117, 5}};
  const LogCapture log;
  for (ox_u32 code = 0; code < 1500; code++) {
    const auto windows = to_windows.find(code), unix_error = to_unix.find(code);
    EXPECT_EQ(unixerr2winerr(code), windows == to_windows.end() ? code : windows->second) << code;
    EXPECT_EQ(winerr2unixerr(code), unix_error == to_unix.end() ? 22 : unix_error->second) << code;
  }
  EXPECT_EQ(unixerr2winerr(0xFFFFFFFF), 0xFFFFFFFFu);
  const auto lines = log.brief_lines();
  ASSERT_EQ(lines.size(), 1500 - to_windows.size() + 1500 - to_unix.size() + 1);
  EXPECT_EQ(lines[0], "INFO: Unidentified windows error 1");
  EXPECT_EQ(lines.back(), "INFO: Unidentified unix error -1");
  EXPECT_EQ(log.count("INFO    tn_util_win.:"), lines.size());
}

}  // namespace
