#include "log_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "redactor.h"
#include "request_lines.h"
#include "sample_lines.h"
#include "test_folder.h"

namespace tnwlog {
namespace {

namespace fs = std::filesystem;

class LogFiles : public testing::Test {
 protected:
  std::string name(const char* name) const { return folder_ / name; }
  void append(const char* name, const std::string& text) const {
    std::ofstream(folder_ / name, std::ios::binary | std::ios::app) << text;
  }

  const TestFolder folder_;
};

TEST_F(LogFiles, AreReadOldestFirst) {
  for (const char* name :
       {"tnvfs.log", "tnvfs.2.log", "tnvfs.10.log", "tnvfs.x.log", "tarnd.log"}) {
    append(name, name);
  }
  const std::vector<std::string> in_order = {name("tnvfs.10.log"), name("tnvfs.2.log"),
                                             name("tnvfs.log")};
  EXPECT_EQ(find_log_files({folder_.path().string()}), in_order);
  EXPECT_EQ(find_log_files({in_order[1], in_order[2], in_order[0]}), in_order);
  EXPECT_EQ(find_log_files({name("tarnd.log"), in_order[2], in_order[1]}),
            (std::vector<std::string>{name("tarnd.log"), in_order[1], in_order[2]}));
  EXPECT_ANY_THROW(find_log_files({name("..")}));
  EXPECT_ANY_THROW(read_lines({name("none.log")}, [](std::string_view) {}));
}

TEST_F(LogFiles, AreCopiedWholeOrNotAtAll) {
  append("tnvfs.log", sample::READ + '\n');
  Redactor redactor;
  EXPECT_ANY_THROW(write_redacted({name("tnvfs.log"), name("none.log")}, name("copy"), &redactor));
  EXPECT_FALSE(fs::exists(name("copy")));
  write_redacted({name("tnvfs.log")}, name("copy"), &redactor);
  EXPECT_ANY_THROW(write_redacted({name("tnvfs.log")}, name("copy"), &redactor));
  EXPECT_GT(fs::file_size(name("copy")), 0u) << "and what was there is still there";
}

TEST_F(LogFiles, AreFollowedOverARotation) {
  std::vector<std::string> lines;
  Follower follower(name("tnvfs.log"));
  const auto poll = [&] {
    lines.clear();
    follower.poll([&lines](std::string_view line) { lines.emplace_back(line); });
    return lines;
  };
  using Lines = std::vector<std::string>;
  EXPECT_EQ(poll(), Lines());
  append("tnvfs.log", "one\r\ntw");
  EXPECT_EQ(poll(), Lines({"one"}));
  append("tnvfs.log", "o\r\nthree\n" + std::string(600000, 'x') + '\n');
  EXPECT_EQ(poll(), Lines({"two", "three", std::string(600000, 'x')}));
  append("tnvfs.log", "last\n");
  fs::rename(name("tnvfs.log"), name("tnvfs.1.log"));
  EXPECT_EQ(poll(), Lines({"last"}));
  append("tnvfs.log", "first\n");
  EXPECT_EQ(poll(), Lines({"first"}));
}

TEST_F(LogFiles, GiveTheLinesOfARequest) {
  const std::string own = sample::open_request("b");
  const std::string other = sample::open_request("a");
  append("tnvfs.1.log", sample::client("text") + '\n' + own + '\n' + sample::DUMP_BEGIN + '\n');
  append("tnvfs.log", sample::DUMP_ROW + '\n' + other + '\n' + sample::HEADER + '\n' +
                          sample::open_event("b") + '\n' + sample::CACHE_REGION);
  const std::vector<std::string> files = find_log_files({folder_.path().string()});
  const std::vector<std::string> lines = {own, sample::HEADER, sample::open_event("b"),
                                          sample::CACHE_REGION};
  EXPECT_EQ(lines_of_request(files, sample::ID), lines);
  EXPECT_EQ(lines_of_request(files, "4CC25111-FAEF-4DC1-9850-55D18402B081"), lines);
  EXPECT_EQ(lines_of_request(files, "24"), lines);
  EXPECT_TRUE(lines_of_request(files, "25").empty());
}

}  // namespace
}  // namespace tnwlog
