/*
 * Letters of any script, blanks and long names in what a start is told, and in paths of a drive.
 * The code page of this process is UTF-8; that of the service is the system's.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include "common/percent.h"
#include "real_drive.h"

namespace fs = std::filesystem;

namespace {

const std::string LETTERS = "Ä Ж 日本 😀";

/* One start: what differs from a good one, and whether it works. */
struct StartTexts {
  const char* name;
  bool starts;
  void (*change)(RealDrive&);
};

/* Not through a path of the standard library, which reads texts in another way. */
std::string in_folder(const RealDrive& drive, const std::string& name) {
  return drive.folder.path().string() + "\\" + name;
}

/* The service's program in a folder of such a name, with what it needs under Wine. */
void move_service(RealDrive& drive) {
  const fs::path there = drive.folder.path() / std::u8string(LETTERS.begin(), LETTERS.end());
  fs::create_directory(there);
  for (const char* file : {"tarnd.exe", "ws2_32.dll"}) {
    if (fs::exists(beside_test(file))) {
      fs::copy_file(beside_test(file), there / file);
    }
  }
  set_field(drive.record.tnw_binpath, in_folder(drive, LETTERS + "\\tarnd.exe"));
}

void move_cloud(RealDrive& drive) {
  drive.cloud = drive.folder.path() / std::u8string(LETTERS.begin(), LETTERS.end());
  fs::create_directory(drive.cloud);
  const std::u8string path = drive.cloud.generic_u8string();
  set_field(drive.record.tnw_api_addr,
            "file:///" + common::encode_percent(std::string(path.begin(), path.end())));
}

const StartTexts STARTS_OF[] = {
    {"User", true, [](RealDrive& d) { set_field(d.record.tnw_username, LETTERS); }},
    {"Domain", true, [](RealDrive& d) { set_field(d.record.tnw_domain, LETTERS + ".test"); }},
    {"Work", true, [](RealDrive& d) { set_field(d.record.tnw_workdir, in_folder(d, LETTERS)); }},
    {"Log", true, [](RealDrive& d) { set_field(d.record.tnw_logdir, in_folder(d, LETTERS)); }},
    {"Program", true, move_service},
    {"Cloud", true, move_cloud},
    {"LongUser", true,
     [](RealDrive& d) { set_field(d.record.tnw_username, std::string(63, 'u')); }},
    {"BadUser", false, [](RealDrive& d) { set_field(d.record.tnw_username, "\xff"); }},
    {"BadDomain", false, [](RealDrive& d) { set_field(d.record.tnw_domain, "\xff.test"); }},
    {"BadWork", false,
     [](RealDrive& d) { set_field(d.record.tnw_workdir, in_folder(d, "b\xff")); }},
    {"BadLog", false, [](RealDrive& d) { set_field(d.record.tnw_logdir, in_folder(d, "b\xff")); }},
    {"LongWork", false,
     [](RealDrive& d) { set_field(d.record.tnw_workdir, in_folder(d, std::string(250, 'w'))); }},
};

class Texts : public testing::TestWithParam<StartTexts> {};

/* Each name has 200 characters or more, and the path has over 700. */
void use_long_paths(RealDrive& drive) {
  const std::string deep =
      LETTERS + "/" + std::string(240, 'd') + "/" + std::string(240, 'e') + "/";
  const std::string from = deep + LETTERS + std::string(200, 'f');
  const std::string to = deep + std::string(240, 'g');
  drive.put(deep + "there", "x");
  {
    DriveFile file(drive, from, {.disposition = TNW_DISP_CREATE});
    ASSERT_EQ(file.error(), 0);
    EXPECT_EQ(file.write(0, LETTERS), 0);
    EXPECT_EQ(file.close(), 0);
  }
  EXPECT_EQ(drive.get(from), LETTERS);
  EXPECT_EQ(tnw_rename(drive.drive, from.c_str(), to.c_str(), "test"), 0);
  EXPECT_EQ(DriveFile(drive, to).read_all(), LETTERS);
  EXPECT_EQ(drive.list(deep).size(), 2u);
  EXPECT_EQ(tnw_delete(drive.drive, to.c_str(), "test"), 0);
  EXPECT_EQ(drive.list(deep).size(), 1u);
}

size_t count_of_folders(const RealDrive& drive) {
  size_t count = 0;
  for (const auto& entry : fs::recursive_directory_iterator(drive.folder.path())) {
    count += entry.is_directory() ? 1 : 0;
  }
  return count;
}

TEST_P(Texts, StartWhatTheyName) {
  RealDrive drive;
  /* ASCII: the service takes the path in the code page of its own process. */
  set_field(drive.record.tnw_uds_workdir, drive.folder / "s");
  GetParam().change(drive);
  const size_t folders = count_of_folders(drive);
  ASSERT_EQ(drive.start(), GetParam().starts) << drive.error;
  if (GetParam().starts) {
    use_long_paths(drive);
    EXPECT_EQ(drive.stop(), 0);
  } else {
    EXPECT_LE(count_of_folders(drive), folders + 1) << "a folder beside that of the log";
  }
}

INSTANTIATE_TEST_SUITE_P(All, Texts, testing::ValuesIn(STARTS_OF),
                         [](const auto& info) { return info.param.name; });

}  // namespace
