/* The command line as the library composes it, and the environment. */
#include "options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tnv_proto.h"

namespace {

using tarnd::Options;
using testing::HasSubstr;

bool parse(const std::string& line, Options* options, std::string* error) {
  return parse_command_line(tarnd::split_command_line(line), options, error);
}

TEST(Options, TheLibrarysLine) {
  Options options;
  std::string error;
  ASSERT_TRUE(parse(R"(C:\Program Files\drive\tarnd.exe --cfs https://acme.example.com)"
                    R"( --user John Doe --cache "C:\Work Dir\acme.example.com\John Doe")"
                    R"( --addr file:///Z:/a%20folder --confaddr http://conf --tn-devid t-1)"
                    R"( --da-devid d-2 --access-token  --logfile "C:\logs\tarnd.log" --vfs)"
                    R"( --sockdir "C:\sock\" --wgid "w 3" --uid 18446744073709551615)"
                    R"( --proxy-server proxy:80 --proxy-user  --proxy-password )",
                    &options, &error))
      << error;
  EXPECT_EQ(options.user, "John Doe");
  EXPECT_EQ(options.cache, R"(C:\Work Dir\acme.example.com\John Doe)");
  EXPECT_EQ(options.access_token, "");
  EXPECT_EQ(options.logfile, R"(C:\logs\tarnd.log)");
  EXPECT_TRUE(options.vfs);
  EXPECT_EQ(options.proxy_password, "");
  EXPECT_EQ(socket_path(options), R"(C:\sock\\w 3\18446744073709551615.sock)");

  options = {};
  ASSERT_TRUE(parse("tarnd --cache \"\"C:\\c --addr x", &options, &error)) << error;
  EXPECT_EQ(socket_path(options), R"(C:\c\tnvfs.sock)") << "without options of its own";
}

TEST(Options, Environment) {
  Options options;
  std::string error;
  const std::map<std::string, std::string> variables = {{"TARND_UTXID", "7"},
                                                        {"TARND_LATENCY_OPS", "open,denum"},
                                                        {"TARND_CACHE_SIZE", "123"},
                                                        {"TARND_TRANSFERS", "3"}};
  const auto environment = [&](const char* name) -> std::optional<std::string> {
    const auto it = variables.find(name);
    return it == variables.end() ? std::nullopt : std::optional(it->second);
  };
  ASSERT_TRUE(parse_environment(environment, &options, &error)) << error;
  EXPECT_EQ(options.region_shift, 20) << "not set";
  EXPECT_EQ(options.first_utxid, 7u);
  EXPECT_THAT(options.latency_ops, testing::ElementsAre(TNV_OP_WIN_OPEN, TNV_OP_WIN_DENUM));
  ASSERT_TRUE(parse("tarnd --cache c --addr a --cache-size 4000000000000", &options, &error));
  EXPECT_EQ(options.cache_size, 4'000'000'000'000u) << "the command line goes before it";
  EXPECT_EQ(options.transfers, 3u);
}

TEST(Options, WhatIsWrongIsNamed) {
  Options options;
  std::string error;
  for (const auto& [line, complaint] :
       std::map<std::string, std::string>{{"tarnd --cache c --addr a --nonsense", "--nonsense"},
                                          {"tarnd --cache c --addr a --uid 12x", "12x"},
                                          {"tarnd --cache c --addr a --transfers 0", "1 to 64"},
                                          {"tarnd --cache c --addr a --vfs yes", "--vfs"},
                                          {"tarnd --cache c", "--addr"},
                                          {"", "--cache"}}) {
    EXPECT_FALSE(parse(line, &options, &error)) << line;
    EXPECT_THAT(error, HasSubstr(complaint)) << line;
  }
  for (const auto& [name, value] :
       std::multimap<std::string, std::string>{{"TARND_REGION_SHIFT", "63"},
                                               {"TARND_REGION_SHIFT", "-1"},
                                               {"TARND_LATENCY_MS", "60001"},
                                               {"TARND_WRITE_BACK_WAIT", "600001"},
                                               {"TARND_LATENCY_OPS", "open,opne"}}) {
    const auto environment = [&](const char* asked) {
      return asked == name ? std::optional(value) : std::nullopt;
    };
    EXPECT_FALSE(parse_environment(environment, &options, &error)) << name << '=' << value;
    EXPECT_THAT(error, HasSubstr(name));
  }
}

}  // namespace
