#include "counters.h"

#include <algorithm>

namespace tarnd {
namespace {

constexpr std::array<const char*, TNV_OP_MAX + 1> kNames = {
    "connect",     "disconnect",  "open",         "denum",        "stat",
    "close",       "rename",      "candelete",    "delete",       "brl",
    "cleanup",     "setproxy",    "cache_region", "dirty_region", "ftruncate",
    "updatetoken", "get_version", "shutdown",     "unknown"};

size_t Index(uint32_t opcode) { return std::min<uint32_t>(opcode, TNV_OP_MAX); }

void AddLine(std::string* text, const char* name, uint64_t value) {
  *text += name;
  *text += ' ' + std::to_string(value) + '\n';
}

}  // namespace

const char* Counters::OperationName(uint32_t opcode) { return kNames[Index(opcode)]; }

uint32_t Counters::OperationOfName(const std::string& name) {
  return static_cast<uint32_t>(std::find(kNames.begin(), kNames.end() - 1, name) - kNames.begin());
}

void Counters::CountRequest(uint32_t opcode) { requests_[Index(opcode)]++; }

std::string Counters::Text() const {
  std::string text;
  uint64_t sum = malformed;
  for (size_t i = 0; i < requests_.size(); i++) {
    AddLine(&text, kNames[i], requests_[i]);
    sum += requests_[i];
  }
  AddLine(&text, "malformed", malformed);
  AddLine(&text, "requests", sum);
  AddLine(&text, "regions_fetched", regions_fetched);
  AddLine(&text, "bytes_fetched", bytes_fetched);
  AddLine(&text, "files_written_back", files_written_back);
  AddLine(&text, "bytes_written_back", bytes_written_back);
  return text;
}

}  // namespace tarnd
