#include "trace.h"

#include <algorithm>

namespace tnwlog {
namespace {

/* The dump of a request may be missing. Its line must not be kept for ever. */
constexpr size_t MOST_TEXTS = 256;
constexpr std::string_view UNKNOWN_PATH = "[unknown]";
constexpr std::string_view NO_SOCKET = "18446744073709551615";
constexpr std::string_view NO_FILE = "00000000-0000-0000-0000-000000000000";

uint32_t error_of(const Match& match) {
  return static_cast<uint32_t>(number_of(match, "errno").value_or(0));
}

}  // namespace

void Trace::add(std::string_view text) {
  lines_++;
  const LogLine& line = parser_.parse(text);
  switch (line.kind) {
    case LineKind::REQUEST:
      return add_request(line);
    case LineKind::DUMPED_REQUEST:
      return add_dumped_request(line);
    case LineKind::HEADER:
      return add_header(line);
    case LineKind::EVENT:
      return add_event(line);
    case LineKind::UNREADABLE:
      unreadable_lines_++;
      return;
    default:
      return;
  }
}

void Trace::add_request(const LogLine& line) {
  operations()[line.operation].request.match(line.text, &match_, line.is_cut);
  std::deque<Unanswered>& texts = texts_[line.operation];
  texts.push_back({line.operation, time_of(line.prefix), std::string(match_["path"]), lines_});
  if (texts.size() > MOST_TEXTS) {
    texts.pop_front();
  }
}

void Trace::add_dumped_request(const LogLine& line) {
  std::deque<Unanswered>& texts = texts_[line.operation];
  if (!texts.empty()) {
    sent_[line.id] = std::move(texts.front());
    texts.pop_front();
  }
}

void Trace::add_header(const LogLine& line) {
  header_pattern().match(line.text, &match_);
  const uint64_t operation = number_of(match_, "opcode").value_or(TNV_OP_MAX);
  if (operation >= TNV_OP_MAX) {
    unreadable_lines_++;
    return;
  }
  has_headers_ = true;
  Request request = {.operation = static_cast<OperationCode>(operation),
                     .error = error_of(match_),
                     .time = time_of(line.prefix),
                     .micros = -1,
                     .utxid = 0,
                     .id = request_id_of(match_["id"]),
                     .path = {},
                     .connection = NO_CONNECTION,
                     .line = 0,
                     .header_line = lines_,
                     .event_line = 0};
  if (auto sent = sent_.extract(request.id)) {
    request.micros = std::max<int64_t>(request.time - sent.mapped().time, 0) * 1000;
    request.path = std::move(sent.mapped().path);
    request.line = sent.mapped().line;
  }
  from_headers_[request.id] = taken_ + answered_.size();
  answered_.push_back(std::move(request));
}

void Trace::add_event(const LogLine& line) {
  const std::string_view id = line.prefix["id"];
  Request request = {.operation = line.operation,
                     .error = error_of(line.prefix),
                     .time = time_of(line.prefix),
                     .micros = static_cast<int64_t>(number_of(line.prefix, "micros").value_or(0)),
                     .utxid = number_of(line.prefix, "utxid").value_or(0),
                     .id = id.empty() ? RequestId() : request_id_of(id),
                     .path = path_of_event(line),
                     .connection = connection_of_event(line),
                     .line = 0,
                     .header_line = 0,
                     .event_line = lines_};
  if (const auto sent = sent_.extract(request.id)) {
    request.line = sent.mapped().line;
  }
  if (const auto header = from_headers_.extract(request.id)) {
    Request& known = answered_[header.mapped() - taken_];
    request.line = known.line;
    request.header_line = known.header_line;
    known = std::move(request);
  } else {
    answered_.push_back(std::move(request));
  }
}

/* Most events name a file by its id alone; those of its opening and listing name the path too. */
std::string Trace::path_of_event(const LogLine& line) {
  operations()[line.operation].event_arguments.match(line.text, &match_, line.is_cut);
  const std::string_view path = match_["path"];
  const std::string file(match_["file"]);
  if (path.empty() || path == UNKNOWN_PATH) {
    const auto known = paths_of_files_.find(file);
    return known != paths_of_files_.end() ? known->second : "";
  }
  if (!file.empty() && file != NO_FILE) {
    paths_of_files_[file] = path;
  }
  return std::string(path);
}

size_t Trace::connection_of_event(const LogLine& line) {
  Connection connection = {std::string(line.prefix["handle"]), std::string(line.prefix["socket"])};
  if (connection.socket == NO_SOCKET) {
    return NO_CONNECTION;
  }
  const auto [place, is_new] = connection_numbers_.try_emplace(connection, connections_.size());
  if (is_new) {
    connections_.push_back(std::move(connection));
  }
  return place->second;
}

std::vector<Request> Trace::take_all() { return take(answered_.size()); }

std::vector<Request> Trace::take_settled() {
  std::vector<Request> requests = take(settled_);
  settled_ = answered_.size();
  return requests;
}

std::vector<Request> Trace::take(size_t count) {
  const auto end = answered_.begin() + static_cast<ptrdiff_t>(count);
  std::vector<Request> requests(std::make_move_iterator(answered_.begin()),
                                std::make_move_iterator(end));
  answered_.erase(answered_.begin(), end);
  taken_ += count;
  settled_ -= std::min(settled_, count);
  std::erase_if(from_headers_, [this](const auto& entry) { return entry.second < taken_; });
  return requests;
}

std::vector<std::pair<RequestId, Unanswered>> Trace::unanswered_requests() const {
  std::vector<std::pair<RequestId, Unanswered>> all;
  if (has_headers_) {
    all.assign(sent_.begin(), sent_.end());
  }
  std::sort(all.begin(), all.end(),
            [](const auto& a, const auto& b) { return a.second.time < b.second.time; });
  return all;
}

}  // namespace tnwlog
