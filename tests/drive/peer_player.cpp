#include "peer_player.h"

#include <windows.h>

#include <filesystem>
#include <regex>

#include "eventually.h"
#include "line_mask.h"
#include "ox_logging.h"
#include "process_state.h"
#include "tnv_connio_win.h"
#include "tnw_fd.h"
#include "wire_text.h"

namespace fs = std::filesystem;

namespace {

Bytes bytes_of_text(const std::string& text) { return Bytes(text.begin(), text.end()); }

/* Without blanks at the ends of lines, and with long runs of a character as <x*5000>. */
std::string tidied(const std::string& text) {
  std::string tidy;
  for (size_t at = 0; at < text.size();) {
    const size_t run = std::min(text.find_first_not_of(text[at], at), text.size()) - at;
    if (run >= 40) { /* lines that are cut have runs of any length */
      tidy +=
          '<' + std::string(1, text[at]) + '*' + (run < 2000 ? std::to_string(run) : "many") + '>';
    } else if (text[at] != ' ' || (at + run < text.size() && text[at + run] != '\n')) {
      tidy.append(run, text[at]);
    }
    at += run;
  }
  return tidy;
}

/* What an open file is like; its maps are hexadecimal, the cached one and the dirty one. */
std::string state_of(const tnvfd* file) {
  const ox_u8* const maps = file->fdt_rmap;
  const size_t size = file->fdt_rmap_size;
  std::string text =
      "fd " + std::to_string(file->fdt_fd) + ", size " + std::to_string(file->fdt_stat.st_size) +
      ", tnflags " + std::to_string(file->fdt_tnflags) + ", shift " +
      std::to_string(file->fdt_rshift) + ", dmap_size " + std::to_string(file->fdt_dmap_size);
  if (maps == nullptr || file->fdt_dmap != maps + size) {
    return text + (maps == nullptr && file->fdt_dmap == nullptr ? ", no maps" : ", odd maps");
  }
  return text + ", maps " + hex_text(maps, size) + ' ' + hex_text(maps + size, size);
}

}  // namespace

PeerPlayer::PeerPlayer() {
  handles_["memory"] = this;
  handles_["unmapped"] = AtPageEnd("x").at;
  log_.emplace();
  drive_.script = [this](PeerConnection& conn) { answer(conn); };
  add_peer_commands();
  add_local_commands();
  add_start_commands();
}

/* A drive that is gone already is refused. */
PeerPlayer::~PeerPlayer() {
  ox_debug = 1;
  for (const auto& [name, handle] : handles_) {
    if (name == "d" || name == "e") {
      tnw_deinit_force(handle);
    }
  }
}

/* ------------------------------------------------------------------- what is seen */

std::vector<PeerRequest> PeerPlayer::requests() const {
  return drive_.peer ? drive_.peer->requests() : std::vector<PeerRequest>();
}

std::string PeerPlayer::seen() {
  std::string text = drive_.said(*log_);
  const auto all = requests();
  log_.emplace();
  for (size_t i = std::exchange(shown_, all.size()); i < all.size(); i++) {
    text += (text.empty() ? "< " : "\n< ") + request_text(all[i]);
  }
  for (size_t i = 0; i < all.size(); i++) {
    const tnv_msgid_t id = all[i].msg().hdr.hdr_id;
    replace_all(text, '=' + hex_text(id.id, sizeof id.id), "=#" + std::to_string(i + 1));
  }
  replace_all(text, " client=" + std::to_string(GetCurrentProcessId()), " client=OWN");
  replace_all(text, " thread=" + std::to_string(GetCurrentThreadId()), " thread=OWN");
  static const Masks MASKS = {{std::regex(" cache=\\S+"), ""},
                              {std::regex(" host=\"[^\"]+\""), " host=HOST"},
                              {std::regex(" drive=2{32}"), " drive=d"},
                              {std::regex(" drive=4{32}"), " drive=e"}};
  return tidied(ids_.numbered(masked(text, MASKS)));
}

std::string PeerPlayer::expanded(const std::string& text) const {
  std::string whole = text;
  replace_all(whole, "FOLDER", drive_.folder.path().string());
  return whole;
}

/* ------------------------------------------------------------------- the peer */

Arguments PeerPlayer::rule_for(ox_u32 opcode) {
  const std::lock_guard guard(rules_lock_);
  const auto own = rules_.find(wire_operation(opcode).name);
  Arguments rule = own != rules_.end() ? own->second : rules_["any"];
  if (opcode == TNV_OP_WIN_OPEN) {
    rule.options.insert({{"shift", "4"}, {"id", "1"}});
  }
  return rule;
}

/* Of a handle, or "" where the number is none of a file. */
static std::string path_of(HANDLE handle) {
  char path[MAX_PATH] = "";
  GetFinalPathNameByHandleA(handle, path, sizeof path, 0);
  return path;
}

/* A file with access=MASK, perhaps overlapped, or a pipe. */
ox_u64 PeerPlayer::carry(const Arguments& rule) {
  const std::lock_guard guard(rules_lock_);
  const DWORD flags = rule.has("overlapped") ? FILE_FLAG_OVERLAPPED : 0;
  if (rule.has("pipe")) {
    const std::string name = "\\\\.\\pipe\\" + drive_.folder.path().filename().string();
    carried_ = CreateNamedPipeA(name.c_str(), PIPE_ACCESS_DUPLEX | flags, 0, 1, 64, 64, 0, nullptr);
    pipe_ = CreateFileA(name.c_str(), READ_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  } else {
    const auto access = static_cast<ox_u32>(rule.option("access", READ_WRITE));
    carried_ = reinterpret_cast<void*>(
        local_file(drive_.folder / "local", option(rule, "file"), access, flags));
  }
  carried_path_ = path_of(carried_);
  return reinterpret_cast<ox_u64>(carried_);
}

/*
 * stalls: waits for the command "resume" first; delay=MS: so long
 * err=N, utxid=N, unauthorized, length=N: of the header
 * payload="...": instead of fields; raw="...": all that is sent, without a header
 * entries=N: a listing, whose entries have the sizes 0, 1, 2 ...
 * closes, resets: ends the connection
 */
void PeerPlayer::answer(PeerConnection& conn) {
  Arguments rule = rule_for(conn.opcode());
  if (rule.has("stalls")) {
    conn.stall();
  }
  Sleep(static_cast<DWORD>(rule.option("delay", 0)));
  const ox_u64 entries = rule.option("entries", 0);
  if (entries != 0) {
    rule.options["count"] = std::to_string(entries);
  }
  if (rule.options.contains("file") || rule.has("pipe")) {
    rule.options["handle"] = std::to_string(carry(rule));
  }
  const Bytes payload = rule.options.contains("payload")
                            ? bytes_of_text(rule.options["payload"])
                            : answer_record(conn.opcode(), rule.options);
  tnv_resphdr header = conn.header(static_cast<ox_u32>(rule.option("err", 0)),
                                   static_cast<ox_u32>(rule.option("length", payload.size())));
  header.rhdr_utxid = rule.option("utxid", 0);
  header.rhdr_tn_unauthd = rule.has("unauthorized") ? 1 : 0;
  Bytes bulk;
  for (tnw_fileinfo entry = {}; entry.fi_size < entries; entry.fi_size++) {
    bulk = std::move(bulk) + bytes_of(entry);
  }
  bulk = std::move(bulk) + bytes_of_text(rule.options["then"]);
  rule.options.contains("raw") ? conn.send(bytes_of_text(rule.options["raw"]) + bulk)
                               : send_answer(conn, header, payload, bulk);
  rule.has("closes") ? conn.close() : rule.has("resets") ? conn.reset() : void();
}

void PeerPlayer::add_peer_commands() {
  commands_["peer"] = [this](auto& a) {
    const std::lock_guard guard(rules_lock_);
    a[0].empty() ? rules_.clear() : void(rules_[a[0]] = a);
    return "";
  };
  /* Waits until a request has come that was not shown yet. */
  commands_["asked"] = [this](auto& a) {
    const ox_u32 opcode = wire_opcode(a[0]);
    const bool came = eventually([&] {
      const auto all = requests();
      return std::any_of(all.begin() + static_cast<ptrdiff_t>(shown_), all.end(),
                         [&](const PeerRequest& request) { return request.opcode() == opcode; });
    });
    return came ? "" : "it never came";
  };
  commands_["resume"] = [this](auto&) { return drive_.peer->resume(), ""; };
  commands_["hang_up"] = [this](auto&) { return drive_.peer->hang_up(), ""; };
  commands_["ended"] = [this](auto& a) {
    return drive_.peer->wait_for_ended(a.number(0)) ? "" : "not ended";
  };
  commands_["new_peer"] = [this](auto&) { return drive_.peer.reset(), shown_ = 0, ""; };
}

/* ------------------------------------------------------------------- local files */

void PeerPlayer::add_local_commands() {
  commands_["state"] = [this](auto& a) {
    return state_of(static_cast<const tnvfd*>(handle(a, 0)));
  };
  commands_["close_local"] = [this](auto& a) {
    return CloseHandle(static_cast<const tnvfd*>(handle(a, 0))->fdt_ofd) != 0 ? "" : "not open";
  };
  commands_["forget_local"] = [this](auto& a) {
    return static_cast<tnvfd*>(handle(a, 0))->fdt_ofd = INVALID_HANDLE_VALUE, "";
  };
  commands_["memory_of"] = [this](auto& a) {
    MEMORY_BASIC_INFORMATION page = {};
    VirtualQuery(handle(a, 0), &page, sizeof page);
    return page.State == MEM_RESERVE ? "reserved" : "used";
  };
  /* Another handle gets the number of the last one that was carried and has been closed. A thread
   * that waits for the first time may have taken it, and keeps it. */
  commands_["stranger"] = [this](auto&) {
    std::vector<HANDLE> others;
    do {
      others.push_back(CreateEventA(nullptr, FALSE, FALSE, nullptr));
    } while (others.back() != carried_ && others.size() < 1000);
    std::for_each(others.begin(), others.end() - 1, CloseHandle);
    return is_open_handle(carried_) ? "" : "there is none";
  };
  commands_["close_carried"] = [this](auto&) { return CloseHandle(carried_) != 0 ? "" : "no"; };
  commands_["write_pipe"] = [this](auto& a) {
    DWORD written = 0;
    WriteFile(pipe_, a[0].data(), static_cast<DWORD>(a[0].size()), &written, nullptr);
    CloseHandle(pipe_);
    return std::to_string(written);
  };
  commands_["stranger_is"] = [this](auto&) { return is_open_handle(carried_) ? "open" : "closed"; };
  commands_["carried"] = [this](auto&) {
    return path_of(carried_) == carried_path_ ? "open" : "closed";
  };
  /* The response time of the event that was left last. */
  commands_["event_time"] = [this](auto& a) {
    const std::string line = whole_log_.lines().back();
    const size_t at = line.find("\"vfs_response_time\":");
    const bool below = std::stoull(line.substr(at + 20)) < 1000 * a.number(0);
    return (below ? "below " : "not below ") + a[0] + " ms";
  };
  commands_["wait_for_line"] = [this](auto& a) {
    return eventually([&] { return whole_log_.count(a[0]) != 0; }) ? "" : "it never came";
  };
  commands_["lines_with"] = [this](auto& a) { /* as they stand in the log, of the whole case */
                                              return std::to_string(whole_log_.count(text(a, 0)));
  };
}

/* ------------------------------------------------------------------- starts */

/* tnw_init on the record as it stands, for another drive of the service or for the same. */
std::string PeerPlayer::init(const Arguments& a) {
  AtPageEnd record(&drive_.record, sizeof drive_.record);
  if (a.has("other")) {
    set_field(record.as<tnw_tninit>()->tnw_da_drive_id, "44444444-4444-4444-4444-444444444444");
  }
  int err = -1;
  void* const drive = tnw_init(a.has("null") ? nullptr : record.as<tnw_tninit>(), &err);
  if (drive != nullptr && drive == handles_["d"]) {
    return "0 again";
  }
  handles_[option(a, "as", "e")] = drive;
  return std::to_string(err);
}

/* Whether anything grows after the first ten. A thread that goes on keeps a handle, too. */
std::string PeerPlayer::starts(const Arguments& a) {
  const char* asked = getenv("TNW_STARTS");
  const size_t starts = asked != nullptr ? std::stoul(asked) : 24;
  Holding before;
  for (size_t made = 0; made < starts; made++) {
    if (drive_.start() != nullptr) {
      tnw_close(drive_.open("f"), nullptr);
      EXPECT_EQ(tnw_deinit_force(std::exchange(drive_.drive, nullptr)), 0);
    }
    drive_.peer.reset();
    if (made == 10) {
      before = own_holding(8 * 1024 + starts * a.option("keeps", 0));
    }
  }
  shown_ = 0;
  return growth(before, own_holding(0)) + std::to_string(drive_.error);
}

std::string PeerPlayer::purge(const Arguments& a) {
  tnw_purge_opt_t po = {};
  set_field(po.po_workdir, option(a, "workdir", drive_.folder.path().string()));
  set_field(po.po_domain, option(a, "domain", drive_.record.tnw_domain));
  set_field(po.po_username, option(a, "user", drive_.record.tnw_username));
  if (a.options.contains("everything")) {
    memset(&po, option(a, "everything")[0], sizeof po);
  }
  const AtPageEnd options(&po, sizeof po);
  return std::to_string(tnw_purge_cache(a.has("null") ? nullptr : options.as<tnw_purge_opt_t>()));
}

void PeerPlayer::add_start_commands() {
  commands_["start"] = [this](auto& a) {
    handles_[option(a, "as", "d")] = drive_.start();
    return std::to_string(drive_.error);
  };
  commands_["forget_device_id"] = [](auto&) {
    return RegDeleteTreeA(HKEY_CURRENT_USER, "SOFTWARE\\Oxley\\Oxley Drive\\drive.test\\ada"), "";
  };
  commands_["init"] = [this](auto& a) { return init(a); };
  /* starts [keeps=BYTES]: many, each with its end, and what one of them may keep for good */
  commands_["starts"] = [this](auto& a) { return starts(a); };
  /* As the service does when it is ready. */
  commands_["signal_start"] = [this](auto&) {
    return std::to_string(tnv_signal_start(socket_path(drive_.record).data()));
  };
  /* host COMMAND FOLDER: runs a program of the host that Wine runs on */
  commands_["host"] = [this](auto& a) {
    STARTUPINFOA start = {};
    PROCESS_INFORMATION run = {};
    std::string command = a[0];
    const std::string program = "Z:\\bin\\" + command.substr(0, command.find(' '));
    CreateProcessA(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                   text(a, 1).c_str(), &start, &run);
    return "";
  };
  commands_["purge"] = [this](auto& a) { return purge(a); };
}
