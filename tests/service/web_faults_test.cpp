/* The WebDAV cloud over a server that fails, refuses, or is reached through others. */
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "cloud/cloud_address.h"
#include "memory_cloud.h"
#include "web_front.h"

namespace {

using namespace tarnd;

CloudCounts counts;

std::unique_ptr<Cloud> open_web(const std::string& address, const std::string& ca = "") {
  CloudSettings settings;
  settings.counts = &counts;
  settings.ca_file = ca;
  std::string error;
  auto cloud = open_cloud(address, settings, &error);
  return cloud != nullptr ? std::move(cloud) : throw std::runtime_error(error);
}

class WebFaults : public testing::Test {
 protected:
  WebFaults() { tell_front("token="); }

  CloudContext as(const std::string& token) {
    auto credentials = std::make_shared<CloudCredentials>();
    credentials->token = token;
    CloudContext context;
    context.credentials = credentials;
    return context;
  }
  CloudCode put(const std::string& content, const std::string& version = "") {
    TextSnapshot snapshot(content);
    return cloud_->put({}, "file", {version}, snapshot, &entry_).code;
  }
  CloudCode read(ByteRange range) {
    got_.clear();
    return cloud_
        ->read({}, "file", entry_.version, range,
               [&](const char* data, size_t size) {
                 got_.append(data, size);
                 return 0;
               })
        .code;
  }
  int names() {
    int count = 0;
    cloud_->list({}, "", [&](const CloudEntry&) { return ++count != 0; });
    return count;
  }

  std::unique_ptr<Cloud> cloud_ = open_web(of_servers("TNW_FRONT"));
  CloudEntry entry_;
  std::string got_;
};

/* Each fault alone, with a file there and another content on its way. */
TEST_F(WebFaults, AreMendedOrToldAndLoseNothing) {
  const std::string old(300'000, 'o');
  const std::string fresh(300'000, 'f');
  enum Call { READ, PUT, REMOVE, LIST };
  const struct {
    const char* fault;
    Call call;
    CloudCode code;
  } cases[] = {{"method=GET&cut=1000&times=2", READ, CloudCode::OK},
               {"method=GET&whole=1", READ, CloudCode::OK},
               {"method=GET&status=503&after=1", READ, CloudCode::OK},
               {"method=GET&status=503&after=60", READ, CloudCode::BUSY},
               {"method=GET&status=429", READ, CloudCode::OK},
               {"method=GET&drop=before&times=2", READ, CloudCode::OK},
               {"method=GET&drop=before&times=9", READ, CloudCode::OFFLINE},
               {"method=GET&tag=\"other\"", READ, CloudCode::CHANGED},
               {"method=GET&status=401", READ, CloudCode::UNAUTHORISED},
               {"method=PROPFIND&cut=500", LIST, CloudCode::OK},
               {"method=PUT&status=507", PUT, CloudCode::NO_SPACE},
               {"method=PUT&drop=after", PUT, CloudCode::OK},
               {"method=MOVE&drop=before", PUT, CloudCode::OK},
               {"method=MOVE&drop=after", PUT, CloudCode::OK},
               {"method=MOVE&status=502&times=2", PUT, CloudCode::OK},
               {"method=LOCK&status=503&after=1", PUT, CloudCode::OK},
               {"method=DELETE&drop=after", REMOVE, CloudCode::OK}};
  for (const auto& [fault, call, code] : cases) {
    SCOPED_TRACE(fault);
    ASSERT_EQ(put(old), CloudCode::OK);
    tell_front(fault);
    if (call == READ) {
      EXPECT_EQ(read({1000, 250'000}), code);
      EXPECT_EQ(got_, code == CloudCode::OK ? old.substr(1000, 250'000) : "");
    } else if (call == PUT) {
      EXPECT_EQ(put(fresh, entry_.version), code);
    } else if (call == REMOVE) {
      EXPECT_EQ(cloud_->remove({}, "file", entry_.version).code, code);
    } else {
      EXPECT_EQ(names(), 1);
    }
    tell_front("");
    if (call == REMOVE) {
      EXPECT_EQ(names(), 0);
      continue;
    }
    ASSERT_TRUE(cloud_->status({}, "file", &entry_).ok());
    EXPECT_EQ(read({0, 300'000}), CloudCode::OK);
    EXPECT_EQ(got_, call == PUT && code == CloudCode::OK ? fresh : old);
    EXPECT_EQ(names(), 1) << "nothing is left beside it";
    EXPECT_EQ(cloud_->remove({}, "file", "").code, CloudCode::OK);
  }
}

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

TEST_F(WebFaults, ATokenThatIsRefusedIsMarkedUntilAnotherOneIsTaken) {
  for (const auto& [header, token] :
       {std::pair("Bearer%20good", "good"), std::pair("Basic%20YTpi", "basic:a:b")}) {
    tell_front(std::string("token=") + header);
    const CloudContext bad = as("bad");
    EXPECT_EQ(cloud_->status(bad, "", &entry_).code, CloudCode::UNAUTHORISED);
    EXPECT_TRUE(*bad.credentials->refused);
    EXPECT_EQ(cloud_->status(as("two\r\nlines"), "", &entry_).code, CloudCode::UNAUTHORISED);
    const CloudContext good = as(token);
    EXPECT_TRUE(cloud_->status(good, "", &entry_).ok());
    EXPECT_FALSE(*good.credentials->refused);
  }
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
