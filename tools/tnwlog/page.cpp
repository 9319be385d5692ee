#include "page.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>
#include <unordered_map>

#include "log_files.h"
#include "new_file.h"
#include "page_text.h"
#include "report_json.h"

namespace tnwlog {
namespace {

/* A browser draws these without delay. The page of so many is about 30 MB long. */
constexpr size_t MOST_REQUESTS = 200'000;
/* A request has up to three lines, together about 1.3 KB. */
constexpr size_t MOST_WITH_LINES = 10'000;

using Requests = std::vector<Request>;
using LineTexts = std::map<uint64_t, std::string>; /* by number */

/* The requests whose lines the page holds: the failed ones first, then the slowest. */
std::vector<const Request*> with_lines(const Requests& requests) {
  std::vector<const Request*> all;
  all.reserve(requests.size());
  for (const Request& request : requests) {
    all.push_back(&request);
  }
  const size_t count = std::min(all.size(), MOST_WITH_LINES);
  std::partial_sort(all.begin(), all.begin() + static_cast<ptrdiff_t>(count), all.end(),
                    [](const Request* a, const Request* b) {
                      return std::pair(a->failed(), a->micros) > std::pair(b->failed(), b->micros);
                    });
  all.resize(count);
  return all;
}

LineTexts read_texts(const std::vector<std::string>& files, const Requests& requests) {
  LineTexts texts;
  for (const Request* request : with_lines(requests)) {
    texts[request->line];
    texts[request->header_line];
    texts[request->event_line];
  }
  texts.erase(0);
  uint64_t number = 0;
  auto next = texts.begin();
  read_lines(files, [&](std::string_view line) {
    if (++number; next != texts.end() && next->first == number) {
      (next++)->second = line;
    }
  });
  return texts;
}

template <typename Get>
Json column(const Requests& requests, Get get) {
  Json values = Json::array();
  for (const Request& request : requests) {
    values.push_back(get(request));
  }
  return values;
}

/* Texts that come up often, each once. */
class Texts {
 public:
  size_t number_of(const std::string& text) {
    const auto [place, is_new] = numbers_.try_emplace(text, texts_.size());
    if (is_new) {
      texts_.push_back(text);
    }
    return place->second;
  }
  const Json& all() const { return texts_; }

 private:
  Json texts_ = Json::array();
  std::unordered_map<std::string, size_t> numbers_;
};

int64_t first_time(const Requests& requests) {
  int64_t first = std::numeric_limits<int64_t>::max();
  for (const Request& request : requests) {
    first = std::min(first, request.time - std::max<int64_t>(request.micros, 0) / 1000);
  }
  return requests.empty() ? 0 : first;
}

Json connection_number(const Request& request) {
  return request.connection == NO_CONNECTION ? Json(-1) : Json(request.connection);
}

/* Lists of equal length, one value a request: a record of each would be three times as long. */
Json columns_of(const Requests& requests, int64_t first, Texts* paths) {
  using R = Request;
  return {
      {"operation", column(requests, [](const R& r) { return Json(r.operation); })},
      {"end", column(requests, [first](const R& r) { return Json(r.time - first); })},
      {"micros", column(requests, [](const R& r) { return Json(r.micros); })},
      {"error", column(requests, [](const R& r) { return Json(r.error); })},
      {"failed", column(requests, [](const R& r) { return Json(r.failed() ? 1 : 0); })},
      {"connection", column(requests, connection_number)},
      {"path", column(requests, [paths](const R& r) { return Json(paths->number_of(r.path)); })},
      {"id", column(requests, [](const R& r) { return Json(r.has_id() ? text_of(r.id) : ""); })},
      {"sent_line", column(requests, [](const R& r) { return Json(r.line); })},
      {"header_line", column(requests, [](const R& r) { return Json(r.header_line); })},
      {"event_line", column(requests, [](const R& r) { return Json(r.event_line); })},
  };
}

Json operation_names() {
  Json names = Json::array();
  for (const Operation& operation : operations()) {
    names.push_back(operation.name);
  }
  return names;
}

Json connections_of(const Trace& trace) {
  Json connections = Json::array();
  for (const Connection& connection : trace.connections()) {
    connections.push_back({{"handle", connection.handle}, {"socket", connection.socket}});
  }
  return connections;
}

/* The names of the log's files are left out: the page of a redacted log holds no names. */
Json data_of(const std::vector<std::string>& files) {
  Trace trace;
  read_lines(files, [&trace](std::string_view line) { trace.add(line); });
  Requests requests = trace.take_all();
  Report report;
  for (const Request& request : requests) {
    report.add(request);
  }
  const size_t left_out = requests.size() - std::min(requests.size(), MOST_REQUESTS);
  requests.erase(requests.begin(), requests.begin() + static_cast<ptrdiff_t>(left_out));

  const int64_t first = first_time(requests);
  Texts paths;
  Json columns = columns_of(requests, first, &paths);
  return {{"report", json_of(report, trace)},
          {"operations", operation_names()},
          {"first_call", TNV_OP_MAX}, /* the operations from here on are calls as a whole */
          {"connections", connections_of(trace)},
          {"first", first},
          {"left_out", left_out},
          {"most_with_lines", MOST_WITH_LINES},
          {"requests", std::move(columns)},
          {"paths", paths.all()},
          {"lines", Json(read_texts(files, requests))}};
}

/* No text of the log can end the script in which the data stands: a '<' is only in texts. */
std::string without_markup(const std::string& json) {
  std::string safe;
  safe.reserve(json.size());
  for (const char c : json) {
    c == '<' ? safe.append("\\u003c") : safe.append(1, c);
  }
  return safe;
}

void check_place(const std::string& page) {
  std::ifstream there(path_of(page), std::ios::binary);
  const std::string_view lead = PAGE_BEFORE_DATA.substr(0, PAGE_BEFORE_DATA.find("</title>"));
  std::string begin(lead.size(), '\0');
  if (there &&
      (!there.read(begin.data(), static_cast<std::streamsize>(begin.size())) || begin != lead)) {
    throw std::runtime_error(page + ": is there already, and is no page of tnwlog");
  }
}

}  // namespace

void write_page(const std::vector<std::string>& files, const std::string& page) {
  check_place(page);
  const std::string data = without_markup(dump(data_of(files), -1));
  NewFile file(page);
  file.stream() << PAGE_BEFORE_DATA << data << PAGE_BEHIND_DATA;
  file.commit();
}

}  // namespace tnwlog
