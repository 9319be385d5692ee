/* The command line as the library composes it, the environment, and byte-range locks: rules.txt. */
#include <gtest/gtest.h>

#include "files/range_locks.h"
#include "options.h"
#include "script.h"

namespace {

using namespace tarnd;

class Rules : public testing::TestWithParam<ScriptCase> {
 protected:
  Rules() {
    add_options();
    add_locks();
  }

  void add_options() {
    commands_.add("line", [this](Args a) {
      const auto line = split_command_line(a[0]);
      return parse_command_line(line, &options_, &error_) ? "" : error_;
    });
    commands_.add("environment", [this](Args a) {
      const auto value = [&](const char* name) -> std::optional<std::string> {
        const auto found = a.options.find(name);
        return found == a.options.end() ? std::nullopt : std::optional(found->second);
      };
      return parse_environment(value, &options_, &error_) ? "" : error_;
    });
    commands_.add("user", [this](Args) { return options_.user; });
    commands_.add("cache", [this](Args) { return options_.cache; });
    commands_.add("token", [this](Args) { return as_word(options_.access_token); });
    commands_.add("logfile", [this](Args) { return options_.logfile; });
    commands_.add("vfs", [this](Args) { return options_.vfs; });
    commands_.add("proxy_password", [this](Args) { return as_word(options_.proxy_password); });
    commands_.add("socket", [this](Args) { return socket_path(options_); });
    commands_.add("region_shift", [this](Args) { return options_.region_shift; });
    commands_.add("first_utxid", [this](Args) { return options_.first_utxid; });
    commands_.add("cache_size", [this](Args) { return options_.cache_size; });
    commands_.add("transfers", [this](Args) { return options_.transfers; });
    commands_.add("latency_ops",
                  [this](Args) { return testing::PrintToString(options_.latency_ops); });
  }
  /* lock OPEN PROCESS FIRST LENGTH shared|exclusive */
  void add_locks() {
    const auto owner = [](Args a) {
      return RangeLocks::Owner{a.number(0), static_cast<int32_t>(a.number(1))};
    };
    commands_.add("lock", [=, this](Args a) {
      return error_name(locks_.lock(owner(a), a.number(2), a.number(3), a[4] == "exclusive"));
    });
    commands_.add("unlock", [=, this](Args a) {
      return error_name(locks_.unlock(owner(a), a.number(2), a.number(3)));
    });
    commands_.add("release", [this](Args a) { locks_.release(a.number(0)); });
  }

  Options options_;
  std::string error_;
  RangeLocks locks_;
  Commands commands_;
};

TEST_P(Rules, Hold) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, Rules, testing::ValuesIn(script_cases("rules")), case_name);

}  // namespace
