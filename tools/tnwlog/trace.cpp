#include "trace.h"

#include <algorithm>

namespace tnwlog {
namespace {

/* A request line whose dump is not there any more must not be kept for ever. */
constexpr size_t kMostTexts = 256;
constexpr std::string_view kUnknownPath = "[unknown]";
constexpr std::string_view kNoFile = "00000000-0000-0000-0000-000000000000";

}  // namespace

void Trace::Add(std::string_view line) {
  lines_++;
  ParseLine(line, &line_);
  switch (line_.kind) {
    case LineKind::kRequest:
      return AddRequest(line_);
    case LineKind::kDump:
      return AddDump(line);
    case LineKind::kHeader:
      return AddHeader(line_);
    case LineKind::kEvent:
      return AddEvent(line_);
    case LineKind::kUnreadable:
      unreadable_lines_++;
      return;
    default:
      return;
  }
}

void Trace::AddRequest(const LogLine& line) {
  Operations()[line.operation].request.Match(line.text, &pieces_, line.is_cut);
  std::deque<Unanswered>& texts = texts_[line.operation];
  texts.push_back(
      {line.operation, TimeOf(line.pieces), PathIndex(ValueOf(pieces_, "path")), lines_});
  if (texts.size() > kMostTexts) {
    texts.pop_front();
  }
}

void Trace::AddDump(std::string_view row) {
  const auto request = DumpedRequestOf(row);
  if (!request || texts_[request->operation].empty()) {
    return;
  }
  std::deque<Unanswered>& texts = texts_[request->operation];
  sent_[request->id] = texts.front();
  texts.pop_front();
}

void Trace::AddHeader(const LogLine& line) {
  static const TextPattern& pattern = OtherTexts().front();
  pattern.Match(line.text, &pieces_);
  const uint64_t operation = NumberOf(pieces_, "opcode").value_or(kServiceOperations);
  if (operation >= kServiceOperations) {
    unreadable_lines_++;
    return;
  }
  has_headers_ = true;
  const RequestId id = RequestIdOf(ValueOf(pieces_, "id"));
  const int64_t time = TimeOf(line.pieces);
  const auto sent = sent_.find(id);
  const bool is_known = sent != sent_.end();
  from_headers_[id] = requests_.size();
  requests_.push_back({static_cast<OperationCode>(operation),
                       static_cast<uint32_t>(NumberOf(pieces_, "errno").value_or(0)), time,
                       is_known ? std::max<int64_t>(time - sent->second.time, 0) * 1000 : -1, 0, id,
                       is_known ? sent->second.path : 0, is_known ? sent->second.line : 0});
  if (is_known) {
    sent_.erase(sent);
  }
}

void Trace::AddEvent(const LogLine& line) {
  Request request = {line.operation,
                     static_cast<uint32_t>(NumberOf(line.pieces, "errno").value_or(0)),
                     TimeOf(line.pieces),
                     static_cast<int64_t>(NumberOf(line.pieces, "micros").value_or(0)),
                     NumberOf(line.pieces, "utxid").value_or(0),
                     {},
                     PathOfEvent(line),
                     0};
  const std::string_view id = ValueOf(line.pieces, "id");
  if (id.empty()) {
    requests_.push_back(request);
    return;
  }
  request.id = RequestIdOf(id);
  if (const auto sent = sent_.extract(request.id)) {
    request.line = sent.mapped().line;
  }
  const auto header = from_headers_.find(request.id);
  if (header == from_headers_.end()) {
    requests_.push_back(request);
    return;
  }
  request.line = requests_[header->second].line;
  requests_[header->second] = request;
  from_headers_.erase(header);
}

/* Most events name a file by its id alone; those of its opening and listing name the path too. */
uint32_t Trace::PathOfEvent(const LogLine& line) {
  Operations()[line.operation].event_arguments.Match(line.text, &pieces_, line.is_cut);
  const std::string_view path = ValueOf(pieces_, "path");
  const std::string file(ValueOf(pieces_, "file"));
  if (!path.empty() && path != kUnknownPath) {
    const uint32_t index = PathIndex(path);
    if (!file.empty() && file != kNoFile) {
      paths_of_files_[file] = index;
    }
    return index;
  }
  const auto known = paths_of_files_.find(file);
  return known != paths_of_files_.end() ? known->second : 0;
}

uint32_t Trace::PathIndex(std::string_view path) {
  const auto [place, is_new] =
      path_indexes_.try_emplace(std::string(path), static_cast<uint32_t>(paths_.size()));
  if (is_new) {
    paths_.emplace_back(path);
  }
  return place->second;
}

std::vector<std::pair<RequestId, Unanswered>> Trace::UnansweredRequests() const {
  std::vector<std::pair<RequestId, Unanswered>> all;
  if (has_headers_) {
    all.assign(sent_.begin(), sent_.end());
  }
  std::sort(all.begin(), all.end(),
            [](const auto& a, const auto& b) { return a.second.time < b.second.time; });
  return all;
}

}  // namespace tnwlog
