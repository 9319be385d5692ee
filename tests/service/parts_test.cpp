/* Parts of the service that need no running one: a script for each. */
#include "private_access.h"
/* after windows.h */
#include <gtest/gtest.h>
#include <sddl.h>

#include <algorithm>
#include <iterator>

#include "cache_limits.h"
#include "files/range_locks.h"
#include "names/conflict_name.h"
#include "options.h"
#include "script.h"

namespace {

using namespace tarnd;

class Parts : public testing::TestWithParam<ScriptCase> {
 protected:
  Parts() {
    add_options();
    add_locks();
    add_access_and_names();
    add_limits();
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
  /* What a security descriptor, as text, gives the user S-1-5-21-1-2-3-1001. */
  static std::string access(Args a) {
    void* descriptor = nullptr;
    EXPECT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorA(a[0].c_str(), SDDL_REVISION_1,
                                                                     &descriptor, nullptr));
    const Access access = access_in(descriptor, L"S-1-5-21-1-2-3-1001");
    LocalFree(descriptor);
    return access == Access::USER_ONLY    ? "user only"
           : access == Access::OTHERS_TOO ? "others too"
                                          : "other owner";
  }
  void add_access_and_names() {
    commands_["access"] = access;
    commands_.add("conflict_name", [](Args a) {
      return conflict_name(a[0], a[1], a[2], static_cast<int>(a.number(3)));
    });
  }
  void add_limits() {
    commands_.add("free_space", [this](Args a) { free_space_ = a.number(0); });
    commands_.add("limits", [this](Args a) {
      limits_.emplace(a.option("size", 0), a.option("keep_free", 0),
                      [this] { return free_space_; });
    });
    commands_.add("may_fetch", [this](Args a) { return limits_->may_fetch(a.number(0)); });
    commands_.add("over", [this](Args a) { return limits_->over(a.number(0), limits_->grown()); });
    commands_.add("grow", [this](Args a) {
      limits_->grow(a.number(0));
      return limits_->may_be_over();
    });
  }

  Options options_;
  std::string error_;
  RangeLocks locks_;
  uint64_t free_space_ = 0;
  std::optional<CacheLimits> limits_;
  Commands commands_;
};

TEST_P(Parts, Work) { play(GetParam(), commands_); }

std::vector<ScriptCase> all_cases() {
  std::vector<ScriptCase> all;
  for (const char* script :
       {"options", "range_locks", "access", "cache_limits", "conflict_names"}) {
    std::ranges::copy(script_cases(script), std::back_inserter(all));
  }
  return all;
}

INSTANTIATE_TEST_SUITE_P(All, Parts, testing::ValuesIn(all_cases()), case_name);

}  // namespace
