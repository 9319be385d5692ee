#include "cloud/fault/fault_script.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <sstream>

namespace tarnd {
namespace {

using Words = std::vector<std::string>;

struct FaultName {
  const char* name;
  Fault fault;
  bool has_when;    /* the word after the calls is WHEN */
  size_t min_times; /* how many words of milliseconds follow, at least and at most */
  size_t max_times;
};

constexpr std::array<FaultName, 7> FAULTS = {{{"latency", Fault::LATENCY, false, 1, 1},
                                              {"busy", Fault::BUSY, true, 0, 1},
                                              {"error", Fault::ERROR_5XX, true, 0, 0},
                                              {"lost", Fault::LOST, true, 0, 0},
                                              {"changed", Fault::CHANGED, true, 0, 0},
                                              {"short", Fault::SHORT, true, 0, 0},
                                              {"offline", Fault::OFFLINE, true, 1, 1}}};

template <typename Number>
bool parse_number(std::string_view text, Number* number) {
  const char* end = text.data() + text.size();
  const auto [rest, err] = std::from_chars(text.data(), end, *number);
  return err == std::errc{} && rest == end;
}

bool parse_time(std::string_view text, std::chrono::milliseconds* time) {
  uint32_t number = 0;
  const bool fine = parse_number(text, &number);
  *time = std::chrono::milliseconds(number);
  return fine;
}

/* "50" or "50-80". */
bool parse_times(std::string_view text, FaultRule* rule) {
  const size_t dash = text.find('-');
  const std::string_view most = dash == std::string_view::npos ? text : text.substr(dash + 1);
  return parse_time(text.substr(0, dash), &rule->least) && parse_time(most, &rule->most) &&
         rule->least <= rule->most;
}

bool parse_when(const std::string& text, FaultRule* rule) {
  if (text.starts_with('#')) {
    return parse_number(std::string_view(text).substr(1), &rule->nth) && rule->nth > 0;
  }
  return parse_number(text, &rule->chance) && rule->chance >= 0 && rule->chance <= 1;
}

bool parse_seconds(std::string_view text, std::chrono::seconds* seconds) {
  uint32_t number = 0;
  const bool fine = parse_number(text, &number);
  *seconds = std::chrono::seconds(number);
  return fine;
}

/* "20-30/60". */
bool parse_window(std::string_view text, FaultRule* rule) {
  const size_t dash = std::min(text.find('-'), text.size());
  const size_t slash = std::min(text.find('/', dash), text.size());
  return slash < text.size() && parse_seconds(text.substr(0, dash), &rule->from) &&
         parse_seconds(text.substr(dash + 1, slash - dash - 1), &rule->to) &&
         parse_seconds(text.substr(slash + 1), &rule->period) && rule->from < rule->to &&
         rule->to <= rule->period;
}

bool parse_calls(const std::string& text, std::set<CloudCall>* calls) {
  std::istringstream names(text);
  for (std::string name; std::getline(names, name, ',');) {
    bool known = false;
    for (size_t i = 0; i < CLOUD_CALLS; i++) {
      if (name == "all" || name == CLOUD_CALL_NAMES.at(i)) {
        calls->insert(static_cast<CloudCall>(i));
        known = true;
      }
    }
    if (!known) {
      return false;
    }
  }
  return !calls->empty();
}

bool parse_fault(const FaultName& fault, const Words& words, FaultRule* rule) {
  const size_t fixed = fault.has_when ? 3 : 2;
  if (words.size() < fixed + fault.min_times || words.size() > fixed + fault.max_times) {
    return false;
  }
  rule->fault = fault.fault;
  rule->least = rule->most = std::chrono::milliseconds(100);
  return parse_calls(words[1], &rule->calls) && (!fault.has_when || parse_when(words[2], rule)) &&
         (words.size() == fixed || parse_times(words[fixed], rule));
}

bool parse_setting(const Words& words, FaultScript* script) {
  if (words.size() != 2) {
    return false;
  }
  return (words[0] == "seed" && parse_number(words[1], &script->seed)) ||
         (words[0] == "rate" && parse_number(words[1], &script->rate));
}

bool parse_rule(const Words& words, FaultScript* script) {
  if (words[0] == "at") {
    const size_t rules = script->rules.size();
    return words.size() > 2 && parse_rule({words.begin() + 2, words.end()}, script) &&
           script->rules.size() > rules && parse_window(words[1], &script->rules.back());
  }
  const auto fault = std::find_if(FAULTS.begin(), FAULTS.end(),
                                  [&](const FaultName& name) { return name.name == words[0]; });
  if (fault == FAULTS.end()) {
    return parse_setting(words, script);
  }
  return parse_fault(*fault, words, &script->rules.emplace_back());
}

}  // namespace

bool FaultRule::holds_at(std::chrono::system_clock::time_point time) const {
  if (period.count() == 0) {
    return true;
  }
  const auto now = time.time_since_epoch() % period;
  return from <= now && now < to;
}

bool parse_fault_script(const std::string& text, FaultScript* script, std::string* error) {
  *script = {};
  std::string lines = text;
  std::replace(lines.begin(), lines.end(), ';', '\n');
  std::istringstream stream(lines);
  for (std::string line; std::getline(stream, line);) {
    std::istringstream rule(line);
    const Words words{std::istream_iterator<std::string>(rule), {}};
    if (words.empty() || words[0].starts_with('#')) {
      continue;
    }
    if (!parse_rule(words, script)) {
      *error = "the fault script does not understand \"" + line + '"';
      return false;
    }
  }
  return true;
}

}  // namespace tarnd
