#include "request_lines.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <set>

#include "log_files.h"
#include "trace.h"

namespace tnwlog {
namespace {

/* The marks of the lines that belong to the request. */
struct Marks {
  std::set<std::string> texts;
  std::set<uint64_t> lines; /* their numbers, from 1 */
};

void add_request(const RequestId& id, uint64_t line, uint64_t utxid, Marks* marks) {
  marks->texts.emplace(text_of(id));
  marks->lines.insert(line);
  if (utxid != 0) {
    marks->texts.insert("\"utxid\":" + std::to_string(utxid) + ',');
  }
}

Marks marks_of(Trace* trace, const std::string& id) {
  uint64_t utxid = 0;
  const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), utxid);
  const bool is_utxid = error == std::errc() && end == id.data() + id.size() && utxid != 0;
  Marks marks;
  if (!is_utxid) {
    marks.texts.insert(id);
  }
  for (const Request& request : trace->take_all()) {
    if (request.has_id() && (is_utxid ? request.utxid == utxid : text_of(request.id) == id)) {
      add_request(request.id, request.line, request.utxid, &marks);
    }
  }
  for (const auto& [sent, request] : trace->unanswered_requests()) {
    if (text_of(sent) == id) {
      add_request(sent, request.line, 0, &marks);
    }
  }
  return marks;
}

}  // namespace

std::vector<std::string> lines_of_request(const std::vector<std::string>& files,
                                          const std::string& id) {
  Trace trace;
  read_lines(files, [&trace](std::string_view line) { trace.add(line); });
  std::string lower = id;
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const Marks marks = marks_of(&trace, lower);

  std::vector<std::string> lines;
  uint64_t number = 0;
  const auto add = [&](std::string_view line) {
    const bool belongs =
        marks.lines.contains(++number) ||
        std::any_of(marks.texts.begin(), marks.texts.end(), [line](const std::string& text) {
          return line.find(text) != std::string_view::npos;
        });
    if (belongs) {
      lines.emplace_back(line);
    }
  };
  read_lines(files, add);
  return lines;
}

}  // namespace tnwlog
