#include "counters.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr std::array<const char*, TNV_OP_MAX + 1> NAMES = {
    "connect",     "disconnect",  "open",         "denum",        "stat",
    "close",       "rename",      "candelete",    "delete",       "brl",
    "cleanup",     "setproxy",    "cache_region", "dirty_region", "ftruncate",
    "updatetoken", "get_version", "shutdown",     "unknown"};

size_t index(uint32_t opcode) { return std::min<uint32_t>(opcode, TNV_OP_MAX); }

void add_line(std::string* text, const char* name, uint64_t value) {
  *text += name;
  *text += ' ' + std::to_string(value) + '\n';
}

}  // namespace

uint32_t Counters::operation_of_name(const std::string& name) {
  return static_cast<uint32_t>(std::find(NAMES.begin(), NAMES.end() - 1, name) - NAMES.begin());
}

void Counters::count_request(uint32_t opcode) { requests_[index(opcode)]++; }

std::string Counters::text() const {
  std::string text;
  uint64_t sum = malformed;
  for (size_t i = 0; i < requests_.size(); i++) {
    add_line(&text, NAMES[i], requests_[i]);
    sum += requests_[i];
  }
  add_line(&text, "malformed", malformed);
  add_line(&text, "requests", sum);
  add_line(&text, "regions_fetched", regions_fetched);
  add_line(&text, "bytes_fetched", bytes_fetched);
  add_line(&text, "files_written_back", files_written_back);
  add_line(&text, "bytes_written_back", bytes_written_back);
  return text;
}

std::string text_of(const CloudCounts& counts) {
  std::string text;
  for (size_t i = 0; i < CLOUD_CALLS; i++) {
    add_line(&text, (std::string("cloud_") + CLOUD_CALL_NAMES[i]).c_str(), counts.calls[i]);
  }
  add_line(&text, "cloud_calls", counts.all());
  add_line(&text, "cloud_bytes_down", counts.bytes_down);
  add_line(&text, "cloud_bytes_up", counts.bytes_up);
  return text;
}

}  // namespace tarnd
