/*
 * Requests to tarnd.exe from service.txt. A request is answered with the name of its error,
 * "closed" when the service closed the connection instead, and with what the answer says. FILE is a
 * name that the script gives an open; on=CONNECTION names one that was connected as CONNECTION.
 */
#include <gtest/gtest.h>

#include "raw_client.h"
#include "script.h"
#include "test_folder.h"
#include "tnv_connio_win.h"

namespace {

namespace fs = std::filesystem;
using Payload = RawConnection::Payload;

std::string name_of(int error) {
  return error == -1 ? "closed" : error == TNV_OPEN_EXISTED ? "existed" : error_name(error);
}

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
    add_files();
  }
  ~ServiceScript() override {
    for (const auto& [name, file] : files_) {
      CloseHandle(file.handle());
    }
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
  void add_files();
  std::string open(RawConnection& connection, Args a);
  std::string read(Args a);

  const TestFolder folder_;
  ServiceProcess service_{folder_.path().string()};
  std::map<std::string, std::unique_ptr<RawConnection>> connections_;
  std::map<std::string, RawFile> files_;
  Commands commands_;
};

/* What other clients do in the cloud. */
void ServiceScript::add_cloud() {
  commands_.add("cloud", [this](Args a) { write_file(cloud(a[0]), a[1]); });
  commands_.add("cloud_folder", [this](Args a) { fs::create_directories(cloud(a[0])); });
  commands_.add("read_only", [this](Args a) {
    const bool set = a.number(1) != 0;
    SetFileAttributesW(cloud(a[0]).c_str(), set ? FILE_ATTRIBUTE_READONLY : FILE_ATTRIBUTE_NORMAL);
  });
  commands_.add("content", [this](Args a) {
    return fs::is_directory(cloud(a[0])) ? "folder" : as_word(read_file(cloud(a[0])));
  });
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
    return name_of(answer.error()) + (resp.rhdr.rhdr_tn_unauthd != 0 ? " unauthorised" : "");
  }
  std::string items;
  for (size_t at = 0; opcode == TNV_OP_WIN_DENUM && at < answer.bulk.size();) {
    const auto& info = reinterpret_cast<const tnw_fileinfo&>(answer.bulk[at]);
    const bool folder = (info.fi_attr & FILE_ATTRIBUTE_DIRECTORY) != 0;
    items += (at == 0 ? "" : ", ") + std::string(info.fi_name);
    items += folder ? "/" : " " + std::to_string(info.fi_size);
    at += sizeof info;
  }
  const bool may = resp.u.wcandel.wcandel_check != 0;
  return opcode == TNV_OP_WIN_DENUM       ? items
         : opcode == TNV_OP_WIN_STAT      ? std::to_string(resp.u.wstat.wstat_fi.fi_size)
         : opcode == TNV_OP_WIN_CANDELETE ? may ? "yes" : "no"
                                          : "0";
}

void ServiceScript::add_texts() {
  const std::pair<const char*, uint32_t> requests[] = {{"stat", TNV_OP_WIN_STAT},
                                                       {"list", TNV_OP_WIN_DENUM},
                                                       {"can_delete", TNV_OP_WIN_CANDELETE},
                                                       {"remove", TNV_OP_WIN_DELETE},
                                                       {"rename", TNV_OP_WIN_RENAME},
                                                       {"token", TNV_OP_UPDATETOKEN},
                                                       {"proxy", TNV_OP_WIN_SETPROXY}};
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

std::string ServiceScript::open(RawConnection& connection, Args a) {
  const auto option = [&](const char* name, uint32_t otherwise) {
    return static_cast<uint32_t>(a.option(name, otherwise));
  };
  const RawFile file = connection.open(a[1], {option("access", 7), option("share", 7),
                                              option("disposition", 3), option("flags", 0)});
  if (file.error != 0 && file.error != TNV_OPEN_EXISTED) {
    return name_of(file.error);
  }
  files_[a[0]] = file;
  const tnv_wopen_resp& answer = file.answer;
  const bool mapped = (answer.wopen_resp_tnflags & TNV_FL_MAPPED) != 0;
  EXPECT_EQ(mapped, !file.maps.empty());
  return name_of(file.error) +
         (answer.wopen_resp_fso.fso_isdir != 0
              ? " folder"
              : " " + std::to_string(answer.wopen_resp_stat.st_size)) +
         (mapped ? " mapped" : "");
}

std::string ServiceScript::read(Args a) {
  std::string content(a.number(1), '#');
  ReadFile(files_.at(a[0]).handle(), content.data(), static_cast<DWORD>(content.size()), nullptr,
           nullptr);
  return as_word(content);
}

void ServiceScript::add_files() {
  add("open", [this](RawConnection& c, Args a) { return open(c, a); });
  add("change", [this](RawConnection& c, Args a) {
    return name_of(c.change(files_.at(a[0]), static_cast<uint32_t>(a.number(1)), a[2]));
  });
  commands_.add("read", [this](Args a) { return read(a); });
  add("cache", [this](RawConnection& connection, Args a) {
    const RawAnswer answer =
        connection.region(TNV_OP_CACHE_REGION, files_.at(a[0]), a.number(1), a.number(2));
    const tnv_cache_region_resp& region = answer.resp.u.cache_region;
    return answer.error() != 0
               ? name_of(answer.error())
               : std::to_string(region.cr_soff) + "+" + std::to_string(region.cr_sz) + " of " +
                     std::to_string(region.cr_fsz);
  });
  add("truncate", [this](RawConnection& c, Args a) {
    return name_of(c.truncate(files_.at(a[0]), a.number(1)));
  });
  add("cleanup", [this](RawConnection& c, Args a) {
    return name_of(c.end(TNV_OP_WIN_CLEANUP, files_.at(a[0]).id));
  });
  add("close", [this](RawConnection& c, Args a) {
    return name_of(c.close(files_.at(a[0]).id, a.has("modified") ? uint32_t{TNV_FL_MODIFIED} : 0));
  });
  add("lock", [this](RawConnection& c, Args a) {
    static const std::map<std::string, int> TYPES = {{"lease", TN_SMBLK_LEASE},
                                                     {"shared", TN_SMBLK_SH_BRL},
                                                     {"exclusive", TN_SMBLK_EX_BRL},
                                                     {"unlock", TN_SMBLK_UNLOCK_BRL}};
    return name_of(c.lock(files_.at(a[0]), TYPES.at(a[1]), a.number(2), a.number(3)));
  });
}

TEST_P(ServiceScript, Holds) { play(GetParam(), commands_); }

INSTANTIATE_TEST_SUITE_P(All, ServiceScript, testing::ValuesIn(script_cases("service")), case_name);

}  // namespace
