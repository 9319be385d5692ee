/* The WebDAV cloud over a server that fails, refuses, or is reached through others. */
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "cloud/cloud_address.h"
#include "cloud_player.h"
#include "test_folder.h"
#include "web_front.h"

namespace {

using namespace tarnd;

CloudCounts counts;

std::unique_ptr<Cloud> open_web(const std::string& address, const std::string& ca = "",
                                const std::filesystem::path& abilities = {}) {
  CloudSettings settings;
  settings.counts = &counts;
  settings.ca_file = ca;
  settings.abilities_file = abilities.wstring();
  std::string error;
  auto cloud = open_cloud(address, settings, &error);
  return cloud != nullptr ? std::move(cloud) : throw std::runtime_error(error);
}

class WebFaults : public testing::Test {
 protected:
  WebFaults() { tell_front("token="); }

  std::unique_ptr<Cloud> cloud_ = open_web(of_servers("TNW_FRONT"));
  CloudEntry entry_;
};

class WebFaultsScript : public WebFaults, public testing::WithParamInterface<ScriptCase> {};

TEST_P(WebFaultsScript, Holds) {
  CloudPlayer player(*cloud_);
  Commands commands = player.commands();
  commands.add("front", [](Args a) { tell_front(a[0]); });
  commands.add("token", [&](Args a) {
    const auto credentials = std::make_shared<CloudCredentials>();
    credentials->token = a[0];
    player.context.credentials = credentials;
  });
  commands.add("refused", [&](Args) { return bool{*player.context.credentials->refused}; });
  commands["remove"]({{"file"}, {}}); /* of the case before */
  play(GetParam(), commands);
}

INSTANTIATE_TEST_SUITE_P(All, WebFaultsScript, testing::ValuesIn(script_cases("web_faults")),
                         case_name);

TEST_F(WebFaults, ACallEndsInTimeOrWhenItIsCancelled) {
  using Clock = std::chrono::steady_clock;
  using std::chrono::milliseconds;
  tell_front("method=PROPFIND&stall=3&times=9");
  CloudContext late;
  late.deadline = Clock::now() + milliseconds(500);
  EXPECT_EQ(cloud_->status(late, "", &entry_).code, CloudCode::OFFLINE);
  EXPECT_LT(Clock::now() - late.deadline, milliseconds(1000));
  CancelFlag cancel;
  std::thread canceller([&] {
    std::this_thread::sleep_for(milliseconds(300));
    cancel.raise();
  });
  const auto began = Clock::now();
  EXPECT_NE(cloud_->status({.cancel = &cancel}, "", &entry_).code, CloudCode::OK);
  EXPECT_LT(Clock::now() - began, milliseconds(2000));
  canceller.join();
}

/* As when another server has got the address since. */
TEST_F(WebFaults, WhatIsKeptOfAServerAndNotTrueIsTriedOutAgain) {
  const TestFolder folder;
  const std::string kept = folder / "abilities";
  TextSnapshot old(std::string(5000, 'o'));
  const auto before = open_web(of_servers("TNW_RCLONE"), "", kept);
  before->remove({}, "kept", "");
  ASSERT_TRUE(before->put({}, "kept", {}, old, &entry_).ok());
  const std::string truth = read_file(kept);
  const std::string lie = truth.substr(0, truth.rfind(' ')) + " 1111111";
  ASSERT_NE(lines_of(truth)[1], lines_of(lie)[1]);
  TextSnapshot changed(std::string(5000, 'n'), {{7, 2}});
  for (const bool patches : {true, false}) {
    write_file(kept, lie);
    const auto cloud = open_web(of_servers("TNW_RCLONE"), "", kept);
    EXPECT_TRUE(cloud->capabilities().patch);
    const PutCondition condition = {entry_.version};
    EXPECT_EQ(patches ? cloud->patch({}, "kept", condition, changed, &entry_).error
                      : cloud->put({}, "kept", condition, changed, &entry_).error,
              patches ? OX_ENOSYS : 0);
    EXPECT_FALSE(cloud->capabilities().patch);
    EXPECT_EQ(lines_of(read_file(kept))[1].substr(11), lines_of(truth)[1].substr(11));
  }
  EXPECT_TRUE(before->remove({}, "kept", "").ok());
}

TEST_F(WebFaults, OnlyAServerOfTheAuthorityIsTalkedTo) {
  const std::string server = of_servers("TNW_TLS");
  const std::string ca = of_servers("TNW_CA");
  const std::string another = ca.substr(0, ca.rfind('\\')) + "\\own.pem";
  const int before = tell_front("");
  EXPECT_EQ(open_web(server)->status({}, "", &entry_).code, CloudCode::OFFLINE);
  EXPECT_EQ(tell_front(""), before) << "the system knows no such authority";
  EXPECT_EQ(open_web(server, another)->status({}, "", &entry_).code, CloudCode::OFFLINE);
  EXPECT_TRUE(open_web(server, ca)->status({}, "", &entry_).ok());
  EXPECT_THROW(open_web(server, ca + ".key"), std::runtime_error);
}

}  // namespace
