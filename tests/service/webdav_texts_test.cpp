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
    commands_.add("spelled", [](Args a) { return as_word(spelled_for_windows(a[0])); });
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

TEST(Multistatus, IsReadInPiecesOfAnySizeWithAnyPrefix) {
  const std::string head = "<?xml version=\"1.0\"?>\n<d:multistatus xmlns:d='DAV:' xmlns:x='y'>";
  const std::string folder =
      "<d:response><d:href>/f/</d:href><d:propstat><d:prop><d:resourcetype><d:collection/>"
      "</d:resourcetype></d:prop><d:status>HTTP/1.1 200 OK</d:status></d:propstat></d:response>";
  const std::string file =
      "<d:response xmlns:lp1='DAV:'><d:href>/f/a&amp;b</d:href><d:propstat><d:prop>"
      "<lp1:getcontentlength>5000000000</lp1:getcontentlength><lp1:getetag>W/\"t\"</lp1:getetag>"
      "<lp1:getlastmodified>Sun, 06 Nov 1994 08:49:37 GMT</lp1:getlastmodified></d:prop>"
      "<d:status>HTTP/1.1 200 "
      "OK</d:status></d:propstat><d:propstat><d:prop><d:getetag>no</d:getetag>"
      "</d:prop><d:status>HTTP/1.1 404 Not Found</d:status></d:propstat></d:response>";
  const std::string whole = head + folder + file + "</d:multistatus>";
  for (size_t piece = 1; piece <= whole.size(); piece = piece * 3 + 1) {
    std::string seen;
    MultistatusReader reader([&](const DavItem& item) {
      seen += item.href + (item.folder ? " folder " : " ") + std::to_string(item.size) + ' ' +
              version_of(item.tag, item.modified, item.size) + ' ' +
              (item.modified_time == time_of_http_date("1994-11-06T08:49:37Z") ? "1;" : "0;");
      return true;
    });
    for (size_t at = 0; at < whole.size(); at += piece) {
      EXPECT_FALSE(reader.complete());
      ASSERT_TRUE(reader.feed(whole.data() + at, std::min(piece, whole.size() - at)));
    }
    EXPECT_TRUE(reader.complete());
    EXPECT_EQ(seen, "/f/ folder 0 0-0 0;/f/a&b 5000000000 \"t\" 1;");
  }
  const std::string wrong = head + "<d:response><d:href></d:response>";
  MultistatusReader reader([](const DavItem&) { return true; });
  EXPECT_FALSE(reader.feed(wrong.data(), wrong.size()));
  EXPECT_TRUE(reader.broken());
}
