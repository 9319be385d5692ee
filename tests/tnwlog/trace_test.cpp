#include "trace.h"

#include <gtest/gtest.h>

#include "report.h"
#include "sample_lines.h"

namespace tnwlog {
namespace {

Trace TraceOf(const std::vector<std::string>& lines) {
  Trace trace;
  for (const std::string& line : lines) {
    trace.Add(line);
  }
  return trace;
}

std::string Shown(const Trace& trace) {
  std::string text;
  for (const Request& request : trace.Requests()) {
    text += std::string(Operations()[request.operation].name) + ' ' +
            std::to_string(request.micros) + ' ' + std::to_string(request.error) + ' ' +
            std::string(trace.PathOf(request.path)) + '\n';
  }
  return text;
}

TEST(Trace, PutsRequestsTogether) {
  const std::vector<std::string> start = {sample::OpenRequest("docs/a.txt"), sample::kDumpBegin,
                                          sample::kDumpRow, sample::kDumpText, sample::kDumpEnd};
  std::vector<std::string> lines = start;
  Trace trace = TraceOf(lines);
  EXPECT_EQ(Shown(trace), "");
  EXPECT_TRUE(trace.UnansweredRequests().empty()) << "answers may not be logged at all";

  trace.Add(sample::kHeader);
  EXPECT_EQ(Shown(trace), "OPEN 8000 0 docs/a.txt\n") << "from the distance of two lines";
  for (const std::string& line :
       {sample::OpenEvent("docs/a.txt"), sample::kCacheRegion, sample::kRead}) {
    trace.Add(line);
  }
  EXPECT_EQ(Shown(trace),
            "OPEN 7484 0 docs/a.txt\n"
            "CACHE_REGION 7484 0 docs/a.txt\n"
            "READ 1250 5 docs/a.txt\n");
  EXPECT_EQ(trace.Requests()[0].line, 1u);
  EXPECT_EQ(TextOf(trace.Requests()[0].id), sample::kId);
  EXPECT_EQ(trace.UnreadableLines(), 0u);

  for (const std::string& line : start) {
    trace.Add(line);
  }
  ASSERT_EQ(trace.UnansweredRequests().size(), 1u);
  EXPECT_EQ(TextOf(trace.UnansweredRequests()[0].first), sample::kId);
}

TEST(Trace, ReadsPathsThatLookLikeFields) {
  for (const std::string path :
       {R"(C:\new "folder"\x", "region_shift":1, "y)", R"(", "vfs_errno":5, "vfs_args":{"fd":1)",
        "a, accmode 0x1, shmode 0x1, cdisp = 0x3, flags 0x40, len 17, drive_id 0, proc_name x)",
        R"(","region_shift":20}, "fso":{"id":"9440395a-1a09-8608-8047-12a0f011ab12"}})", "<P:path>",
        "\xff\xfe\x01 %s", ""}) {
    EXPECT_EQ(Shown(TraceOf({sample::OpenEvent(path)})), "OPEN 7484 0 " + path + "\n");
    const Trace trace = TraceOf({sample::OpenRequest(path), sample::kDumpRow, sample::kHeader});
    EXPECT_EQ(Shown(trace), "OPEN 8000 0 " + path + "\n");
  }
}

TEST(Trace, ReadsCutLines) {
  const std::string path(5000, 'p');
  const std::string event = sample::OpenEvent(path).substr(0, 4095);
  const std::string request = sample::OpenRequest(path).substr(0, 4095);
  const Trace trace = TraceOf({request, sample::kDumpRow, sample::kHeader, event});
  ASSERT_EQ(trace.Requests().size(), 1u);
  EXPECT_EQ(trace.Requests()[0].micros, 7484);
  EXPECT_EQ(trace.Requests()[0].line, 1u);
  EXPECT_EQ(trace.PathOf(trace.Requests()[0].path),
            path.substr(0, event.size() - event.find("ppp")));
}

TEST(Trace, CountsWhatItCannotReadAndGoesOn) {
  const std::string event = sample::OpenEvent("a");
  const Trace trace = TraceOf({"junk", std::string("\0\x01{", 3), "{", "[", event.substr(0, 300),
                               sample::Client("text").substr(0, 60), event.substr(40), "", event});
  EXPECT_EQ(trace.UnreadableLines(), 7u);
  EXPECT_EQ(trace.Lines(), 9u);
  EXPECT_EQ(trace.Requests().size(), 1u);
}

/* A line that fits in very many ways must not take for ever. */
TEST(Trace, GivesUpOnLinesMadeToBeSlow) {
  std::string path;
  while (path.size() < 3500) {
    path += R"(", "vfs_peer_handle":"0", "remote_host":"", "vfs_user":"", "vfs_share_path":")";
  }
  std::string connection = sample::kConnection;
  connection.replace(connection.find(R"("jane")"), 6, '"' + path + '"');
  const Trace trace = TraceOf({sample::Event("WIN OPEN", sample::kId, 0, connection)});
  EXPECT_EQ(trace.UnreadableLines(), 1u);
}

TEST(Report, SumsUp) {
  Trace trace;
  for (int i = 0; i < 100; i++) {
    std::string event = sample::OpenEvent("a", sample::kId, i < 3 ? 2 : i < 5 ? 183 : 0);
    event.replace(event.find("7484"), 4, std::to_string((i + 1) * 1000));
    trace.Add(event);
  }
  const OperationSummary open = Summarize(trace).at(0);
  EXPECT_EQ(open.count, 100u);
  EXPECT_EQ(open.errors, 3u) << "183 says that the file was there";
  EXPECT_EQ(open.Percentile(50), 50000);
  EXPECT_EQ(open.Percentile(99), 99000);
  EXPECT_EQ(open.Percentile(100), 100000);
  EXPECT_EQ(Slowest(trace, 2).at(1).micros, 99000);
  EXPECT_NE(TableJson(trace).find("\"p90_ms\": 90.0"), std::string::npos);
  trace.Add(sample::OpenEvent("\xff not UTF-8"));
  EXPECT_NE(SlowestJson(trace, 1000).find("\xef\xbf\xbd not UTF-8"), std::string::npos);
}

}  // namespace
}  // namespace tnwlog
