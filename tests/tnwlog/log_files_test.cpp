#include "log_files.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "request_lines.h"
#include "sample_lines.h"
#include "test_folder.h"

namespace tnwlog {
namespace {

namespace fs = std::filesystem;

class LogFiles : public testing::Test {
 protected:
  std::string Name(const char* name) const { return folder_ / name; }
  void Append(const char* name, const std::string& text) const {
    std::ofstream(folder_ / name, std::ios::binary | std::ios::app) << text;
  }

  const TestFolder folder_;
};

TEST_F(LogFiles, AreReadOldestFirst) {
  for (const char* name :
       {"tnvfs.log", "tnvfs.2.log", "tnvfs.10.log", "tnvfs.x.log", "tarnd.log"}) {
    Append(name, name);
  }
  const std::vector<std::string> in_order = {Name("tnvfs.10.log"), Name("tnvfs.2.log"),
                                             Name("tnvfs.log")};
  EXPECT_EQ(FindLogFiles({folder_.path().string()}), in_order);
  EXPECT_EQ(FindLogFiles({in_order[1], in_order[2], in_order[0]}), in_order);
  EXPECT_EQ(FindLogFiles({Name("tarnd.log"), in_order[2], in_order[1]}),
            (std::vector<std::string>{Name("tarnd.log"), in_order[1], in_order[2]}));
  EXPECT_ANY_THROW(FindLogFiles({Name("..")}));
  EXPECT_ANY_THROW(ReadLines(Name("none.log"), [](std::string_view) {}));
}

TEST_F(LogFiles, AreFollowedOverARotation) {
  std::vector<std::string> lines;
  Follower follower(Name("tnvfs.log"));
  const auto poll = [&] {
    lines.clear();
    follower.Poll([&lines](std::string_view line) { lines.emplace_back(line); });
    return lines;
  };
  using Lines = std::vector<std::string>;
  EXPECT_EQ(poll(), Lines());
  Append("tnvfs.log", "one\r\ntw");
  EXPECT_EQ(poll(), Lines({"one"}));
  Append("tnvfs.log", "o\r\nthree\n" + std::string(600000, 'x') + '\n');
  EXPECT_EQ(poll(), Lines({"two", "three", std::string(600000, 'x')}));
  Append("tnvfs.log", "last\n");
  fs::rename(Name("tnvfs.log"), Name("tnvfs.1.log"));
  EXPECT_EQ(poll(), Lines({"last"}));
  Append("tnvfs.log", "first\n");
  EXPECT_EQ(poll(), Lines({"first"}));
}

TEST_F(LogFiles, GiveTheLinesOfARequest) {
  const std::string own = sample::OpenRequest("b");
  const std::string other = sample::OpenRequest("a");
  Append("tnvfs.1.log", sample::Client("text") + '\n' + own + '\n' + sample::kDumpBegin + '\n');
  Append("tnvfs.log", sample::kDumpRow + '\n' + other + '\n' + sample::kHeader + '\n' +
                          sample::OpenEvent("b") + '\n' + sample::kCacheRegion);
  const std::vector<std::string> files = FindLogFiles({folder_.path().string()});
  const std::vector<std::string> lines = {own, sample::kHeader, sample::OpenEvent("b"),
                                          sample::kCacheRegion};
  EXPECT_EQ(LinesOfRequest(files, sample::kId), lines);
  EXPECT_EQ(LinesOfRequest(files, "4CC25111-FAEF-4DC1-9850-55D18402B081"), lines);
  EXPECT_EQ(LinesOfRequest(files, "24"), lines);
  EXPECT_TRUE(LinesOfRequest(files, "25").empty());
}

}  // namespace
}  // namespace tnwlog
