/* The texts of the WebDAV cloud: addresses, names, answers and their headers. */
#include <gtest/gtest.h>

#include "cloud/webdav/http_rules.h"
#include "cloud/webdav/multistatus.h"
#include "cloud/webdav/name_spelling.h"
#include "cloud/webdav/web_address.h"
#include "common/percent.h"
#include "names/share_path.h"
#include "script.h"

using namespace tarnd;

class WebdavTexts : public testing::TestWithParam<ScriptCase> {
 protected:
  WebdavTexts() {
    /* The server and, as a request names it, the path below it. */
    commands_.add("address", [this](Args a) {
      const bool right = parse_web_address(a[0], &address_, &error_);
      return right ? address_.server() + address_.target(a[1]) : "wrong";
    });
    commands_.add("path", [this](Args a) {
      std::string path;
      return cloud_path_of(address_, a[0], &path) ? as_word(path) : "elsewhere";
    });
    commands_.add("time", [](Args a) { return time_of_http_date(a[0]); });
    commands_.add("pause", [](Args a) {
      return std::chrono::nanoseconds(retry_after(a[0], "Sun, 06 Nov 1994 08:49:37 GMT")).count() /
             1'000'000'000;
    });
    commands_.add("range", [](Args a) {
      ContentRange range;
      return parse_content_range(a[0], &range)
                 ? std::to_string(range.range.offset) + "+" + std::to_string(range.range.length) +
                       " of " + std::to_string(range.size)
                 : "wrong";
    });
    commands_.add("authorisation", [](Args a) { return authorisation_of(a[0]); });
    commands_.add("listing", [](Args a) { return listing(a[0]); });
    commands_.add("spelled", [](Args a) { return as_word(spelled_for_windows(a[0])); });
  }

  /* What is in the answer to a PROPFIND; pieces of any size are webdav_fuzz's. */
  static std::string listing(const std::string& answer) {
    std::string seen;
    MultistatusReader reader([&](const DavItem& item) {
      seen += item.href + (item.folder ? " folder " : " ") + std::to_string(item.size) + ' ' +
              version_of(item.tag, item.modified, item.size) + ' ' +
              std::to_string(item.modified_time) + "; ";
      return true;
    });
    reader.feed(answer.data(), answer.size());
    return seen + (reader.broken() ? "broken" : reader.complete() ? "complete" : "goes on");
  }

  WebAddress address_;
  std::string error_;
  Commands commands_;
};

TEST_P(WebdavTexts, AreAsServersWriteThem) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, WebdavTexts, testing::ValuesIn(script_cases("webdav_texts")),
                         case_name);

/* Names of any bytes are spelled and come back in texts_fuzz.cpp. */
TEST(NameSpelling, NeverLeadsToAnotherFolder) {
  for (const char* trick : {"\xef\x80\xae", "\xef\x80\xae\xef\x80\xae", "a\xef\x80\xaf-b"}) {
    EXPECT_EQ(spelled_for_cloud(trick), trick);
    EXPECT_FALSE(is_spelling_of_new_name(trick));
  }
}
