#include "trace.h"

#include <gtest/gtest.h>

#include "report.h"
#include "sample_lines.h"

namespace tnwlog {
namespace {

void add(Trace* trace, const std::vector<std::string>& lines) {
  for (const std::string& line : lines) {
    trace->add(line);
  }
}

Trace trace_of(const std::vector<std::string>& lines) {
  Trace trace;
  add(&trace, lines);
  return trace;
}

std::string shown(const std::vector<Request>& requests) {
  std::string text;
  for (const Request& request : requests) {
    text += std::string(operations()[request.operation].name) + ' ' +
            std::to_string(request.micros) + ' ' + std::to_string(request.error) + ' ' +
            request.path + '\n';
  }
  return text;
}

const std::vector<std::string> SENT_OPEN = {sample::open_request("docs/a.txt"), sample::DUMP_BEGIN,
                                            sample::DUMP_ROW, sample::DUMP_TEXT, sample::DUMP_END};

TEST(Trace, PutsRequestsTogether) {
  Trace trace = trace_of(SENT_OPEN);
  EXPECT_TRUE(trace.unanswered_requests().empty()) << "answers may not be logged at all";
  add(&trace,
      {sample::HEADER, sample::open_event("docs/a.txt"), sample::CACHE_REGION, sample::READ});
  const std::vector<Request> requests = trace.take_all();
  EXPECT_EQ(shown(requests),
            "OPEN 7484 0 docs/a.txt\n"
            "CACHE_REGION 7484 0 docs/a.txt\n"
            "READ 1250 5 docs/a.txt\n");
  EXPECT_EQ(requests[0].line, 1u);
  EXPECT_EQ(text_of(requests[0].id), sample::ID);
  EXPECT_EQ(trace.unreadable_lines(), 0u);

  add(&trace, SENT_OPEN);
  ASSERT_EQ(trace.unanswered_requests().size(), 1u);
  EXPECT_EQ(text_of(trace.unanswered_requests()[0].first), sample::ID);
}

TEST(Trace, HandsOutWhatIsSettledAndForgetsIt) {
  Trace trace = trace_of(SENT_OPEN);
  trace.add(sample::HEADER);
  EXPECT_TRUE(trace.take_settled().empty());
  trace.add(sample::READ);
  EXPECT_EQ(shown(trace.take_settled()), "OPEN 8000 0 docs/a.txt\n") << "from two lines' distance";
  add(&trace, SENT_OPEN);
  add(&trace, {sample::HEADER, sample::open_event("docs/a.txt")});
  EXPECT_EQ(shown(trace.take_settled()), "READ 1250 5 \n");
  EXPECT_EQ(shown(trace.take_settled()), "OPEN 7484 0 docs/a.txt\n");
  EXPECT_TRUE(trace.take_all().empty());
}

TEST(Trace, TakesOnlyADumpsFirstRowForARequest) {
  Trace trace = trace_of({sample::open_request("a"), " a row", sample::DUMP_ROW, sample::HEADER});
  EXPECT_EQ(shown(trace.take_all()), "OPEN -1 0 \n");
}

TEST(Trace, ReadsPathsThatLookLikeFields) {
  for (const std::string path :
       {R"(C:\new "folder"\x", "region_shift":1, "y)", R"(", "vfs_errno":5, "vfs_args":{"fd":1)",
        "a, accmode 0x1, shmode 0x1, cdisp = 0x3, flags 0x40, len 17, drive_id 0, proc_name x)",
        R"(","region_shift":20}, "fso":{"id":"9440395a-1a09-8608-8047-12a0f011ab12"}})", "<P:path>",
        "\xff\xfe\x01 %s", ""}) {
    EXPECT_EQ(shown(trace_of({sample::open_event(path)}).take_all()), "OPEN 7484 0 " + path + "\n");
    Trace trace = trace_of(
        {sample::open_request(path), sample::DUMP_BEGIN, sample::DUMP_ROW, sample::HEADER});
    EXPECT_EQ(shown(trace.take_all()), "OPEN 8000 0 " + path + "\n");
  }
}

TEST(Trace, ReadsCutLines) {
  const std::string path(5000, 'p');
  const std::string event = sample::open_event(path).substr(0, 4095);
  const std::string request = sample::open_request(path).substr(0, 4095);
  Trace trace = trace_of({request, sample::DUMP_BEGIN, sample::DUMP_ROW, sample::HEADER, event});
  const std::vector<Request> requests = trace.take_all();
  ASSERT_EQ(requests.size(), 1u);
  EXPECT_EQ(requests[0].micros, 7484);
  EXPECT_EQ(requests[0].line, 1u);
  EXPECT_EQ(requests[0].path, path.substr(0, event.size() - event.find("ppp")));
}

TEST(Trace, CountsWhatItCannotReadAndGoesOn) {
  const std::string event = sample::open_event("a");
  Trace trace = trace_of({"junk", std::string("\0\x01{", 3), "{", "[", event.substr(0, 300),
                          sample::client("text").substr(0, 60), event.substr(40), "", event});
  EXPECT_EQ(trace.unreadable_lines(), 7u);
  EXPECT_EQ(trace.lines(), 9u);
  EXPECT_EQ(trace.take_all().size(), 1u);
}

/* A line that fits in very many ways must not take for ever. */
TEST(Trace, GivesUpOnLinesMadeToBeSlow) {
  std::string path;
  while (path.size() < 3500) {
    path += R"(", "vfs_peer_handle":"0", "remote_host":"", "vfs_user":"", "vfs_share_path":")";
  }
  std::string connection = sample::CONNECTION;
  connection.replace(connection.find(R"("jane")"), 6, '"' + path + '"');
  const Trace trace = trace_of({sample::event("WIN OPEN", sample::ID, 0, connection)});
  EXPECT_EQ(trace.unreadable_lines(), 1u);
}

TEST(Report, SumsUp) {
  Trace trace;
  for (int i = 0; i < 100; i++) {
    const std::string path = i < 99 ? "a" : "\xff not UTF-8";
    std::string event = sample::open_event(path, sample::ID, i < 3 ? 2 : i < 5 ? 183 : 0);
    event.replace(event.find("7484"), 4, std::to_string((i + 1) * 1000));
    trace.add(event);
  }
  Report report(3);
  for (const Request& request : trace.take_all()) {
    report.add(request);
  }
  const OperationSummary open = report.table(trace).at(TNV_OP_WIN_OPEN);
  EXPECT_EQ(open.count, 100u);
  EXPECT_EQ(open.errors, 3u) << "183 says that the file was there";
  EXPECT_EQ(open.percentile(50), 50000);
  EXPECT_EQ(open.percentile(99), 99000);
  EXPECT_EQ(open.percentile(100), 100000);
  EXPECT_EQ(report.slowest().size(), 3u);
  EXPECT_EQ(std::next(report.slowest().begin())->first, 99000);
  EXPECT_NE(table_json(report, trace).find("\"p90_ms\": 90.0"), std::string::npos);
  EXPECT_NE(slowest_json(report, trace).find("\xef\xbf\xbd not UTF-8"), std::string::npos);
}

}  // namespace
}  // namespace tnwlog
