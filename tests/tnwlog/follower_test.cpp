#include <gtest/gtest.h>

#include <fstream>

#include "log_files.h"
#include "test_folder.h"

namespace tnwlog {
namespace {

TEST(Follower, GivesWholeLinesOverARotation) {
  const TestFolder folder;
  const auto append = [&](const std::string& text) {
    std::ofstream(folder / "tnvfs.log", std::ios::binary | std::ios::app) << text;
  };
  Follower follower(folder / "tnvfs.log");
  const auto poll = [&] {
    std::vector<std::string> lines;
    follower.poll([&lines](std::string_view line) { lines.emplace_back(line); });
    return lines;
  };
  using Lines = std::vector<std::string>;
  EXPECT_EQ(poll(), Lines());
  append("one\r\ntw");
  EXPECT_EQ(poll(), Lines({"one"}));
  append("o\r\nthree\n" + std::string(600000, 'x') + '\n');
  EXPECT_EQ(poll(), Lines({"two", "three", std::string(600000, 'x')}));
  append("last\n");
  std::filesystem::rename(folder / "tnvfs.log", folder / "tnvfs.1.log");
  EXPECT_EQ(poll(), Lines({"last"}));
  append("first\n");
  EXPECT_EQ(poll(), Lines({"first"}));
}

}  // namespace
}  // namespace tnwlog
