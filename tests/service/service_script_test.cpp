/*
 * Requests to tarnd.exe from service.txt. A request is answered with the name of its error,
 * "closed" when the service closed the connection instead, and with what the answer says;
 * on=CONNECTION names one that was connected as CONNECTION.
 */
#include <gtest/gtest.h>

#include "raw_client.h"
#include "script.h"
#include "test_folder.h"
#include "tnv_connio_win.h"

namespace {

namespace fs = std::filesystem;
using Payload = RawConnection::Payload;

std::string name_of(int error) { return error == -1 ? "closed" : error_name(error); }

class ServiceScript : public testing::TestWithParam<ScriptCase> {
 protected:
  ServiceScript() {
    EXPECT_EQ(tnv_sock_init(), 0);
    fs::create_directory(cloud(""));
    EXPECT_TRUE(service_.start({{"TARND_REGION_SHIFT", "4"}}));
    EXPECT_EQ(connect("", "/"), "0");
    add_cloud();
    add_process();
    add_texts();
  }

  using Request = std::function<std::string(RawConnection& connection, Args a)>;
  void add(const char* name, const Request& request) {
    commands_[name] = [this, request](Args a) {
      const auto on = a.options.find("on");
      return request(*connections_.at(on != a.options.end() ? on->second : ""), a);
    };
  }
  RawConnection& open_socket(const std::string& name) {
    return *(connections_[name] = std::make_unique<RawConnection>(service_));
  }
  std::string connect(const std::string& name, const std::string& share) {
    return name_of(open_socket(name).connect(share).error());
  }
  fs::path cloud(const std::string& name) const { return folder_.path() / "cloud" / name; }

  void add_cloud();
  void add_process();
  void add_texts();

  const TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::map<std::string, std::unique_ptr<RawConnection>> connections_;
  Commands commands_;
};

/* What other clients do in the cloud. */
void ServiceScript::add_cloud() {
  commands_.add("cloud", [this](Args a) { write_file(cloud(a[0]), a[1]); });
  commands_.add("cloud_folder", [this](Args a) { fs::create_directories(cloud(a[0])); });
}

void ServiceScript::add_process() {
  commands_.add("socket", [this](Args a) { open_socket(a[0]); });
  commands_.add("connect",
                [this](Args a) { return connect(a[0], a.words.size() > 1 ? a[1] : "/"); });
  /* A message of this length, of which just the header comes. */
  add("header", [](RawConnection& c, Args a) {
    tnv_msghdr header = {};
    header.hdr_opcode = TNV_OP_GET_VERSION;
    header.hdr_len = static_cast<ox_u32>(a.number(0));
    return name_of(c.send(&header, sizeof header) ? c.receive().error() : OX_EIO);
  });
  add("receive", [](RawConnection& c, Args) { return name_of(c.receive().error()); });
  add("shutdown", [this](RawConnection& c, Args) {
    c.ask(TNV_OP_SHUTDOWN);
    return std::to_string(service_.wait());
  });
  commands_.add("count", [this](Args a) { return service_.counts().at(a[0]); });
}

/* What the answer says to a request with texts. */
std::string said(uint32_t opcode, const RawAnswer& answer) {
  const tnv_resp& resp = answer.resp;
  if (answer.error() != 0) {
    return name_of(answer.error());
  }
  std::string items;
  for (size_t at = 0; opcode == TNV_OP_WIN_DENUM && at < answer.bulk.size();) {
    const auto& info = reinterpret_cast<const tnw_fileinfo&>(answer.bulk[at]);
    const bool folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0;
    items += (at == 0 ? "" : ", ") + std::string(info.fi_name);
    items += folder ? "/" : " " + std::to_string(info.fi_size);
    at += sizeof info;
  }
  return opcode == TNV_OP_WIN_DENUM  ? items
         : opcode == TNV_OP_WIN_STAT ? std::to_string(resp.u.wstat.wstat_fi.fi_size)
                                     : "0";
}

void ServiceScript::add_texts() {
  const std::pair<const char*, uint32_t> requests[] = {
      {"stat", TNV_OP_WIN_STAT}, {"list", TNV_OP_WIN_DENUM}, {"remove", TNV_OP_WIN_DELETE}};
  for (const auto& [name, opcode] : requests) {
    add(name, [opcode = opcode](RawConnection& connection, Args a) {
      const RawAnswer answer = connection.texts(opcode, a.words);
      EXPECT_TRUE(opcode != TNV_OP_WIN_DENUM || connection.close(answer.id) == answer.error());
      return said(opcode, answer);
    });
  }
  /* raw OPCODE NUMBER... BYTES: the numbers in the place of the lengths. */
  add("raw", [](RawConnection& connection, Args a) {
    const auto fill = [&](Payload& u) {
      for (size_t i = 1; i + 1 < a.words.size(); i++) {
        reinterpret_cast<ox_s32*>(u.bytes)[i - 1] = std::stoi(a[i], nullptr, 0);
      }
    };
    const auto opcode = static_cast<uint32_t>(a.number(0));
    return name_of(connection.ask(opcode, fill, a.words.size() > 1 ? a.words.back() : "").error());
  });
}

TEST_P(ServiceScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, ServiceScript, testing::ValuesIn(script_cases("service")), case_name);

}  // namespace
