#include "call_player.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "eventually.h"
#include "ox_logging.h"
#include "page_end.h"
#include "tnw_fd.h"
#include "wire_text.h"

namespace fs = std::filesystem;

namespace {

const std::vector<std::string> DRIVE_CALLS = {"create",           "findfirst",   "getfileinfo",
                                              "rename",           "delete",      "deinit",
                                              "canfilebedeleted", "updatetoken", "set_http_proxy",
                                              "set_answer_limit", "deinit_force"};
const std::vector<std::string> FILE_CALLS = {
    "read",       "write",    "setfilesize",      "lockfile",
    "unlockfile", "findnext", "checkfolderempty", "cleanup_file",
    "findclose",  "close"};

/* tnw_tninit, as put_fields takes it. */
const char RECORD[] =
    "flags:4 min_threads:4 max_threads:4 gap:4 user_id:8 username:64s workdir:5000s "
    "uds_workdir:96s "
    "logdir:5000s sharepath:1024s binpath:5000s regpath:1024s api_addr:128s config_addr:128s "
    "workgroup_id:37s da_device_id:37s da_drive_id:37s tn_device_id:37s authtoken:512s domain:51s "
    "proxy_server:256s proxy_uname:64s proxy_password:512s";

/* Whatever the code page is. */
fs::path path_of(const std::string& text) { return std::u8string(text.begin(), text.end()); }

ox_u32 low(ox_u64 number) { return static_cast<ox_u32>(number); }
ox_u32 high(ox_u64 number) { return static_cast<ox_u32>(number >> 32); }

template <class T>
std::string number_text(const char* at) {
  return std::to_string(*reinterpret_cast<const T*>(at));
}

std::string entry_text(const char* at) {
  const std::string fields = fileinfo_text(*reinterpret_cast<const tnw_fileinfo*>(at));
  return fields.empty() ? "nothing" : fields.substr(1);
}

std::string name_text(const char* at) {
  return as_word(reinterpret_cast<const tnw_fileinfo*>(at)->fi_name);
}

Arguments without_first(const Arguments& a, size_t count) {
  Arguments rest = a;
  rest.words.erase(rest.words.begin(), rest.words.begin() + static_cast<ptrdiff_t>(count));
  return rest;
}

}  // namespace

/* ------------------------------------------------------------------- arguments */

/* One call: what it gets, each at a page's end, and what it gave. */
class CallPlayer::Call {
 public:
  Call(const CallPlayer& player, const Arguments& a) : player_(player), a_(a) {}

  void* handle() const { return player_.handle(a_, 0); }
  bool has(const char* word) const { return a_.has(word); }
  ox_u64 option(const char* name, ox_u64 otherwise) const { return a_.option(name, otherwise); }
  ox_u64 number(size_t index, ox_u64 otherwise) const {
    return isdigit(a_[index][0]) != 0 || a_[index][0] == '-' ? a_.number(index) : otherwise;
  }
  std::string word(size_t index, const std::string& otherwise) const {
    return player_.text(a_, index, otherwise);
  }
  char* bytes(const std::string& bytes) {
    return places_.emplace_back(std::make_unique<AtPageEnd>(bytes))->at;
  }
  char* text(size_t index, const std::string& otherwise = "p") {
    const std::string text = word(index, otherwise);
    return text == "null" ? nullptr : bytes(text + '\0');
  }
  /* A name that fills its field has no NUL. */
  char* procname() {
    const std::string name = player_.option(a_, "proc");
    return name == "null" ? nullptr : bytes(name.size() < 32 ? name + '\0' : name);
  }

  /* Places that the call may write to. What it wrote is shown in the order of their making. */
  using Show = std::string (*)(const char* at);
  char* out(size_t size, const Show& show) {
    outs_.push_back({bytes(std::string(size, UNTOUCHED)), size, show});
    return outs_.back().at;
  }
  ox_s64* count() {
    return has("uncounted") ? nullptr : reinterpret_cast<ox_s64*>(out(8, number_text<ox_s64>));
  }
  bool* flag() {
    return has("into_null") ? nullptr : reinterpret_cast<bool*>(out(1, number_text<ox_u8>));
  }
  /* With the word "name_only" its name alone is shown. */
  tnw_fileinfo* entry() {
    const Show show = has("name_only") ? name_text : entry_text;
    return has("into_null") ? nullptr
                            : reinterpret_cast<tnw_fileinfo*>(out(sizeof(tnw_fileinfo), show));
  }
  int* error() {
    return has("no_error") ? nullptr : reinterpret_cast<int*>(out(4, number_text<int>));
  }
  /* The opener's name, handed out when the script has the word "opener". */
  char* opener() {
    return !has("opener") ? nullptr : out(32, [](const char* at) {
      return "opener " + as_word({at, strnlen(at, 32)});
    });
  }
  char* buffer(size_t size) { return out(size, nullptr); }
  std::string outputs() const {
    std::string text;
    for (const Out& out : outs_) {
      const std::string now(out.at, out.size);
      if (now != std::string(out.size, UNTOUCHED)) {
        text += ' ' + (out.show != nullptr ? out.show(out.at) : as_word(now));
      }
    }
    return text;
  }

 private:
  static constexpr char UNTOUCHED = '\x5a';
  struct Out {
    char* at;
    size_t size;
    Show show;
  };

  const CallPlayer& player_;
  const Arguments& a_;
  std::vector<std::unique_ptr<AtPageEnd>> places_;
  std::vector<Out> outs_;
};

std::string CallPlayer::text(const Arguments& a, size_t index, const std::string& otherwise) const {
  return expanded(index < a.words.size() ? a[index] : otherwise);
}

std::string CallPlayer::option(const Arguments& a, const std::string& name,
                               const std::string& otherwise) const {
  const auto found = a.options.find(name);
  return found != a.options.end() ? expanded(found->second) : otherwise;
}

void* CallPlayer::handle(const Arguments& a, size_t index) const {
  const std::string word = index < a.words.size() ? a[index] : "d";
  const size_t plus = std::min(word.find_first_of("+-", 1), word.size());
  const std::string offset = word.substr(plus);
  const auto found = handles_.find(word.substr(0, plus));
  if (found != handles_.end()) {
    return static_cast<char*>(found->second) + (offset == "-entry"
                                                    ? -static_cast<ptrdiff_t>(sizeof(tnvfd))
                                                : offset.empty() ? 0
                                                                 : std::stoi(offset));
  }
  return word == "null" ? nullptr : reinterpret_cast<void*>(std::stoull(word, nullptr, 0));
}

std::string CallPlayer::answer_of(const std::string& name, const Arguments& a) const {
  const auto command = commands_.find(name);
  return command != commands_.end() ? command->second(a)
                                    : throw std::runtime_error("no command " + name);
}

/* ------------------------------------------------------------------- the calls */

void CallPlayer::add(const std::string& name, int (*call)(Call&)) {
  commands_[name] = [this, call](const Arguments& a) {
    Call c(*this, a);
    const int code = call(c);
    return std::to_string(code) + c.outputs();
  };
}

std::string CallPlayer::create(const Arguments& a) {
  Call c(*this, a);
  const std::string slot = option(a, "slot");
  SetLastError(0);
  void* const file = tnw_create(
      c.handle(), slot.empty() ? nullptr : &slots_[slot], c.text(1), low(c.option("access", 3)),
      low(c.option("share", 7)), low(c.option("disposition", TNW_DISP_OPEN)),
      low(c.option("flags", 0)), static_cast<int>(c.option("pid", 0)), c.procname(), c.error());
  const DWORD last_error = GetLastError();
  handles_[option(a, "as", "f")] = file;
  std::string answer = c.has("no_error") ? "no code" : c.outputs().substr(1);
  answer += file == nullptr   ? " null"
            : last_error != 0 ? " last error " + std::to_string(last_error)
                              : "";
  return slot.empty() ? answer : answer + (slots_[slot] != nullptr ? ", slot set" : ", slot empty");
}

void CallPlayer::add_file_calls() {
  commands_["create"] = [this](auto& a) { return create(a); };
  add("read", [](Call& c) {
    const ox_u64 len = c.number(1, 1);
    ox_s64* const count = c.count();
    char* const buffer = c.buffer(low(len)); /* the length is cut to 32 bits */
    return tnw_read(c.handle(), buffer, len, static_cast<ox_off>(c.number(2, 0)), count,
                    c.opener());
  });
  add("write", [](Call& c) {
    const std::string data = c.word(1, "w");
    ox_s64* const count = c.count();
    return tnw_write(c.handle(), c.bytes(data), data.size(), static_cast<ox_off>(c.number(2, 0)),
                     count, c.opener());
  });
  add("setfilesize", [](Call& c) {
    const ox_u64 size = c.number(1, 20);
    return tnw_setfilesize(c.handle(), low(size), high(size), c.opener());
  });
  add("lockfile", [](Call& c) {
    const ox_u64 off = c.number(1, 0), len = c.number(2, 1);
    return tnw_lockfile(c.handle(), low(c.option("flags", 0)), low(off), high(off), low(len),
                        high(len), static_cast<int>(c.option("pid", 1)));
  });
  add("unlockfile", [](Call& c) {
    const ox_u64 off = c.number(1, 0), len = c.number(2, 1);
    return tnw_unlockfile(c.handle(), low(off), high(off), low(len), high(len),
                          static_cast<int>(c.option("pid", 1)));
  });
  add("cleanup_file", [](Call& c) { return tnw_cleanup_file(c.handle()); });
  add("close", [](Call& c) { return tnw_close(c.handle(), c.opener()); });
}

std::string CallPlayer::find_first(const Arguments& a) {
  Call c(*this, a);
  int* const error = c.error();
  void* const listing = tnw_findfirst(c.handle(), c.text(1), c.entry(), c.procname(), error);
  handles_[option(a, "as", "listing")] = listing;
  return (c.has("no_error") ? " no code" : "") + c.outputs() + (listing == nullptr ? " null" : "");
}

void CallPlayer::add_folder_calls() {
  commands_["findfirst"] = [this](auto& a) { return find_first(a).substr(1); };
  add("findnext", [](Call& c) { return tnw_findnext(c.handle(), c.entry()); });
  add("checkfolderempty", [](Call& c) { return tnw_checkfolderempty(c.handle(), c.flag()); });
  add("findclose", [](Call& c) { return tnw_findclose(c.handle()); });
  /* The entries from here on, whose sizes are numbers in order, and the code that ends them. */
  commands_["findrest"] = [this](auto& a) {
    tnw_fileinfo entry = {};
    const ox_u64 first = a.number(1);
    ox_u64 next = first;
    int code = tnw_findnext(handle(a, 0), &entry);
    for (; code == 0 && entry.fi_size == next; next++) {
      code = tnw_findnext(handle(a, 0), &entry);
    }
    return std::to_string(next - first) + " entries, then " + std::to_string(code);
  };
}

void CallPlayer::add_path_calls() {
  add("getfileinfo",
      [](Call& c) { return tnw_getfileinfo(c.handle(), c.text(1), c.entry(), c.procname()); });
  add("rename",
      [](Call& c) { return tnw_rename(c.handle(), c.text(1), c.text(2, "q"), c.procname()); });
  add("delete", [](Call& c) { return tnw_delete(c.handle(), c.text(1), c.procname()); });
  add("canfilebedeleted",
      [](Call& c) { return tnw_canfilebedeleted(c.handle(), c.text(1), c.flag()); });
}

void CallPlayer::add_drive_calls() {
  commands_["record"] = [this](auto& a) { return set_record(a); };
  add("updatetoken", [](Call& c) { return tnw_updatetoken(c.handle(), c.text(1, "t")); });
  add("set_http_proxy", [](Call& c) {
    return tnw_set_http_proxy(c.handle(), c.text(1), c.text(2, ""), c.text(3, ""));
  });
  add("set_answer_limit", [](Call& c) {
    return tnw_set_answer_limit(c.handle(), static_cast<ox_u32>(c.number(1, 0)));
  });
  add("deinit", [](Call& c) { return tnw_deinit(c.handle(), c.has("force")); });
  add("deinit_force", [](Call& c) { return tnw_deinit_force(c.handle()); });
  commands_["instance"] = [this](auto& a) {
    return shortened(as_word(tnw_get_tninstance_id(handle(a, 0))));
  };
}

/* Fields without their prefix. "pad=95" fills texts to so many characters. */
std::string CallPlayer::set_record(const Arguments& a) {
  if (a.options.contains("everything")) {
    memset(&record(), option(a, "everything")[0], sizeof record());
    set_field(record().tnw_logdir, expanded("FOLDER\\log"));
    record().tnw_flags = TNW_INIT_NO_RETRY;
  }
  auto fields = a.options;
  for (auto& [name, value] : fields) {
    value = expanded(value);
    const size_t size = std::max<size_t>(a.option("pad", 0), value.size());
    value.append(size - value.size(), 'd');
  }
  return put_fields(RECORD, fields, &record()), "";
}

/* ------------------------------------------------------------------- files past the drive */

void CallPlayer::add_files() {
  commands_["file"] = [this](auto& a) {
    const fs::path path = path_of(text(a, 0, "FOLDER\\local"));
    if (!fs::exists(path)) {
      return std::string("none");
    }
    const auto size = fs::file_size(path);
    const std::string content = size < 1000 ? shortened(read_file(path)) : "";
    return size < 1000 ? std::to_string(content.size()) + ' ' + as_word(content)
                       : std::to_string(size);
  };
  commands_["is_free"] =
      [this](auto& a) { /* nobody has it open */
                        const HANDLE alone =
                            CreateFileA(text(a, 0, "FOLDER\\local").c_str(), GENERIC_READ, 0,
                                        nullptr, OPEN_EXISTING, 0, nullptr);
                        return alone != INVALID_HANDLE_VALUE && CloseHandle(alone) != 0 ? "free"
                                                                                        : "in use";
      };
  commands_["put"] = [this](auto& a) {
    const fs::path path = path_of(text(a, 0));
    fs::create_directories(path.parent_path());
    write_file(path, text(a, 1));
    return "";
  };
  commands_["read_only"] = [this](auto& a) {
    return SetFileAttributesA(text(a, 0).c_str(), FILE_ATTRIBUTE_READONLY) != 0 ? "" : "no";
  };
  commands_["writable"] = [this](auto& a) {
    return SetFileAttributesA(text(a, 0).c_str(), FILE_ATTRIBUTE_NORMAL) != 0 ? "" : "no";
  };
  commands_["until_there"] = [this](auto& a) {
    return eventually([&] { return fs::exists(text(a, 0)); }) ? "" : "it never came";
  };
  commands_["until_gone"] = [this](auto& a) {
    return eventually([&] { return !fs::exists(text(a, 0)); }) ? "" : "it stays";
  };
  commands_["mkdir"] = [this](auto& a) { return fs::create_directories(path_of(text(a, 0))), ""; };
  commands_["debug"] = [](auto& a) { return ox_debug = static_cast<int>(a.number(0)), ""; };
  commands_["env"] = [this](auto& a) {
    return SetEnvironmentVariableA(a[0].c_str(), text(a, 1).c_str()), "";
  };
}

/* ------------------------------------------------------------------- ways to call */

/* Each of the calls with each of the handles; the answers with the calls that gave them, and with
 * the handles where not all gave the same. */
std::string CallPlayer::call_all(const std::vector<std::string>& calls, const Arguments& a) {
  std::vector<std::pair<std::string, std::string>> found; /* an answer, and who gave it */
  const auto note = [&](const std::string& answer, const std::string& who) {
    const auto same = std::find_if(found.begin(), found.end(),
                                   [&](const auto& old) { return old.first == answer; });
    same == found.end() ? void(found.emplace_back(answer, who)) : void(same->second += ' ' + who);
  };
  for (const std::string& call : calls) {
    std::vector<std::string> answers;
    for (const std::string& word : a.words) {
      const std::string answer = answer_of(call, {{word}, {{"as", "nobody"}}});
      answers.push_back(answer + '\n' + seen());
    }
    const bool all_same = std::count(answers.begin(), answers.end(), answers[0]) ==
                          static_cast<ptrdiff_t>(answers.size());
    for (size_t i = 0; i < (all_same ? 1 : answers.size()); i++) {
      note(answers[i], all_same ? call : call + '(' + a[i] + ')');
    }
  }
  std::string all;
  for (const auto& [answer, who] : found) {
    all += who + ": " + answer.substr(0, answer.find_last_not_of('\n') + 1) + '\n';
  }
  return all;
}

void CallPlayer::add_ways_to_call() {
  commands_["drivecalls"] = [this](auto& a) { return call_all(DRIVE_CALLS, a); };
  commands_["filecalls"] = [this](auto& a) { return call_all(FILE_CALLS, a); };
  commands_["quietly"] = [this](auto& a) {
    const std::string answer = answer_of(a[0], without_first(a, 1));
    seen();
    return answer;
  };
  /* begin NAME COMMAND ... on another thread, whose answer is that of end NAME */
  commands_["begin"] = [this](auto& a) {
    begun_[a[0]] =
        std::async(std::launch::async, [this, a] { return answer_of(a[1], without_first(a, 2)); });
    return "";
  };
  commands_["still"] =
      [this](auto& a) { /* goes on */
                        const auto state = begun_.at(a[0]).wait_for(std::chrono::milliseconds(100));
                        return state == std::future_status::timeout ? "goes on" : "has ended";
      };
  commands_["end"] = [this](auto& a) { return begun_.at(a[0]).get(); };
}

CallPlayer::CallPlayer() {
  add_file_calls();
  add_folder_calls();
  add_path_calls();
  add_drive_calls();
  add_files();
  add_ways_to_call();
}

void CallPlayer::play_case(const ScriptCase& script_case) {
  Commands all;
  for (const auto& [name, command] : commands_) {
    const bool goes_on = name == "begin";
    all[name] = [this, command = command, goes_on](const Arguments& a) {
      const std::string answer = command(a);
      const std::string more = goes_on ? "" : seen();
      const std::string text = answer + (answer.empty() || more.empty() ? "" : "\n") + more;
      return text.substr(0, text.find_last_not_of('\n') + 1);
    };
  }
  play(script_case, all);
}
