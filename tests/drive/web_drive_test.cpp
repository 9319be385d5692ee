/*
 * A drive on a web server that goes away, is busy, refuses the token or is behind a proxy, from a
 * script.
 */
#include <gtest/gtest.h>
#include <windows.h>

#include "eventually.h"
#include "real_player.h"
#include "web_front.h"

namespace {

int requests_of_proxy() {
  int requests = 0;
  for (const std::string& line : lines_of(read_file(of_servers("TNW_PROXY_LOG")))) {
    requests += line.find("Request") != std::string::npos ? 1 : 0;
  }
  return requests;
}

/* FRONT_AT in texts is where the front listens, which can also be a proxy. */
class WebPlayer : public RealPlayer {
 public:
  WebPlayer() : RealPlayer("FRONT") {
    tell_front("token=");
    commands_["front"] = [](auto& a) { return tell_front(a[0]), ""; };
    commands_["until_file"] = [this](auto& a) {
      const bool came =
          eventually([&] { return read_file(text(a, 0)) == a[1]; }, std::chrono::seconds(40));
      return came ? "" : "it never came";
    };
    /* The server itself, not its front, for the next start. */
    commands_["behind_proxy"] = [this](auto&) {
      const std::string folder = drive_.cloud.filename().string() + '/';
      set_field(drive_.record.tnw_api_addr, of_servers("TNW_RCLONE") + folder);
      set_field(drive_.record.tnw_proxy_server, of_servers("TNW_PROXY"));
      set_field(drive_.record.tnw_proxy_uname, "ada");
      set_field(drive_.record.tnw_proxy_password, "secret");
      return "";
    };
    /* Who got requests since it was asked last. */
    commands_["asked"] = [this](auto&) {
      const int proxy = std::exchange(proxy_, requests_of_proxy());
      const int front = std::exchange(front_, tell_front(""));
      return std::string(proxy_ > proxy ? "proxy" : "") + (front_ > front ? "front" : "");
    };
  }

 protected:
  std::string expanded(const std::string& text) const override {
    std::string whole = RealPlayer::expanded(text);
    const std::string front = of_servers("TNW_FRONT");
    const std::string port = front.substr(front.rfind(':'));
    replace_all(whole, "FRONT_AT", "localhost" + port.substr(0, port.size() - 1));
    return whole;
  }

 private:
  int proxy_ = requests_of_proxy(), front_ = tell_front("");
};

class WebDrive : public testing::TestWithParam<ScriptCase> {};

TEST_P(WebDrive, Plays) { WebPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Web, WebDrive, testing::ValuesIn(script_cases("web_drive")), case_name);

}  // namespace
