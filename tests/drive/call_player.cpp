#include "call_player.h"

#include <windows.h>

#include <cstring>
#include <memory>
#include <stdexcept>

#include "tnw_fd.h"
#include "wire_text.h"

namespace {

const std::vector<std::string> DRIVE_CALLS = {
    "create", "findfirst",        "getfileinfo", "rename",         "delete",
    "deinit", "canfilebedeleted", "updatetoken", "set_http_proxy", "deinit_force"};
const std::vector<std::string> FILE_CALLS = {
    "read",       "write",    "setfilesize",      "lockfile",
    "unlockfile", "findnext", "checkfolderempty", "cleanup_file",
    "findclose",  "close"};

/* What a call may write; `bytes` of it. */
template <class T>
class Out {
 public:
  explicit Out(size_t bytes = sizeof(T)) : clean_(bytes, '\x5a'), place_(clean_) {}
  T* at() const { return place_.as<T>(); }
  std::string bytes() const { return {place_.at, clean_.size()}; }
  bool is_touched() const { return bytes() != clean_; }
  /* " VALUE", or nothing when the call left it alone. */
  std::string number() const {
    return is_touched() ? ' ' + std::to_string(static_cast<ox_s64>(*at())) : "";
  }

 private:
  const std::string clean_;
  const AtPageEnd place_;
};

std::string entry_text(const Out<tnw_fileinfo>& entry) {
  const std::string fields = fileinfo_text(*entry.at());
  return !entry.is_touched() ? "" : fields.empty() ? " nothing" : fields;
}

std::string err_text(const Out<int>& err) {
  return err.is_touched() ? std::to_string(*err.at()) : "no code";
}

/* The opener's name, handed out when the script has the word "opener". */
class Opener : Out<char> {
 public:
  explicit Opener(const Arguments& a) : Out(32), wanted_(a.has("opener")) {}
  char* place() const { return wanted_ ? at() : nullptr; }
  std::string text() const {
    return is_touched() ? " opener " + as_word({at(), strnlen(at(), 32)}) : "";
  }

 private:
  const bool wanted_;
};

ox_u32 low(ox_u64 number) { return static_cast<ox_u32>(number); }
ox_u32 high(ox_u64 number) { return static_cast<ox_u32>(number >> 32); }

std::string code_text(int code, const std::string& more = "") {
  return std::to_string(code) + more;
}

ox_u64 number(const Arguments& a, size_t index, ox_u64 otherwise) {
  return isdigit(a[index][0]) != 0 || a[index][0] == '-' ? a.number(index) : otherwise;
}

Arguments without_first(const Arguments& a, size_t count) {
  Arguments rest = a;
  rest.words.erase(rest.words.begin(), rest.words.begin() + static_cast<ptrdiff_t>(count));
  return rest;
}

}  // namespace

/* ------------------------------------------------------------------- arguments */

/* A text at a page's end, or null. */
class CallPlayer::Passed {
 public:
  Passed() = default;
  explicit Passed(const std::string& bytes) : bytes_(std::make_unique<AtPageEnd>(bytes)) {}
  char* at() const { return bytes_ ? bytes_->at : nullptr; }

 private:
  std::unique_ptr<AtPageEnd> bytes_;
};

std::string CallPlayer::text(const Arguments& a, size_t index, const std::string& otherwise) const {
  return expanded(index < a.words.size() ? a[index] : otherwise);
}

std::string CallPlayer::option(const Arguments& a, const std::string& name,
                               const std::string& otherwise) const {
  const auto found = a.options.find(name);
  return found != a.options.end() ? expanded(found->second) : otherwise;
}

CallPlayer::Passed CallPlayer::passed(const Arguments& a, size_t index,
                                      const std::string& otherwise) const {
  const std::string word = text(a, index, otherwise);
  return word == "null" ? Passed() : Passed(word + '\0');
}

/* A name that fills its field has no NUL. */
CallPlayer::Passed CallPlayer::procname(const Arguments& a) const {
  const std::string name = option(a, "proc");
  return name == "null" ? Passed() : Passed(name.size() < 32 ? name + '\0' : name);
}

void* CallPlayer::handle(const Arguments& a, size_t index) const {
  const std::string word = index < a.words.size() ? a[index] : "d";
  const size_t plus = std::min(word.find_first_of("+-", 1), word.size());
  const auto found = handles_.find(word.substr(0, plus));
  if (found != handles_.end()) {
    const std::string offset = word.substr(plus);
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

std::string CallPlayer::create(const Arguments& a) {
  const std::string slot = option(a, "slot");
  const Passed path = passed(a, 1);
  const Out<int> err;
  SetLastError(0);
  void* const file = tnw_create(handle(a, 0), slot.empty() ? nullptr : &slots_[slot], path.at(),
                                low(a.option("access", 3)), low(a.option("share", 7)),
                                low(a.option("disposition", TNW_DISP_OPEN)),
                                low(a.option("flags", 0)), static_cast<int>(a.option("pid", 0)),
                                procname(a).at(), a.has("no_error") ? nullptr : err.at());
  const DWORD last_error = GetLastError();
  handles_[option(a, "as", "f")] = file;
  std::string answer = err_text(err);
  answer += file == nullptr   ? " null"
            : last_error != 0 ? " last error " + std::to_string(last_error)
                              : "";
  return slot.empty() ? answer : answer + (slots_[slot] != nullptr ? ", slot set" : ", slot empty");
}

std::string CallPlayer::read(const Arguments& a) const {
  const ox_u64 len = number(a, 1, 1);
  const Out<char> buffer(low(len)); /* the length is cut to 32 bits */
  const Out<ox_s64> count;
  const Opener opener(a);
  const int code = tnw_read(handle(a, 0), buffer.at(), len, static_cast<ox_off>(number(a, 2, 0)),
                            a.has("uncounted") ? nullptr : count.at(), opener.place());
  const std::string data = buffer.is_touched() ? ' ' + as_word(buffer.bytes()) : "";
  return code_text(code, count.number() + data + opener.text());
}

std::string CallPlayer::write(const Arguments& a) const {
  const AtPageEnd data(text(a, 1, "w"));
  const Out<ox_s64> count;
  const Opener opener(a);
  const int code =
      tnw_write(handle(a, 0), data.at, text(a, 1, "w").size(), static_cast<ox_off>(number(a, 2, 0)),
                a.has("uncounted") ? nullptr : count.at(), opener.place());
  return code_text(code, count.number() + opener.text());
}

void CallPlayer::add_file_calls() {
  commands_["create"] = [this](auto& a) { return create(a); };
  commands_["read"] = [this](auto& a) { return read(a); };
  commands_["write"] = [this](auto& a) { return write(a); };
  commands_["setfilesize"] = [this](auto& a) {
    const ox_u64 size = number(a, 1, 20);
    const Opener opener(a);
    const int code = tnw_setfilesize(handle(a, 0), low(size), high(size), opener.place());
    return code_text(code, opener.text());
  };
  commands_["lockfile"] = [this](auto& a) {
    const ox_u64 off = number(a, 1, 0), len = number(a, 2, 1);
    return code_text(tnw_lockfile(handle(a, 0), low(a.option("flags", 0)), low(off), high(off),
                                  low(len), high(len), static_cast<int>(a.option("pid", 1))));
  };
  commands_["unlockfile"] = [this](auto& a) {
    const ox_u64 off = number(a, 1, 0), len = number(a, 2, 1);
    return code_text(tnw_unlockfile(handle(a, 0), low(off), high(off), low(len), high(len),
                                    static_cast<int>(a.option("pid", 1))));
  };
  commands_["cleanup_file"] = [this](auto& a) { return code_text(tnw_cleanup_file(handle(a, 0))); };
  commands_["close"] = [this](auto& a) {
    const Opener opener(a);
    const int code = tnw_close(handle(a, 0), opener.place());
    return code_text(code, opener.text());
  };
}

std::string CallPlayer::find_first(const Arguments& a) {
  const Passed path = passed(a, 1);
  const Out<tnw_fileinfo> entry;
  const Out<int> err;
  void* const listing =
      tnw_findfirst(handle(a, 0), path.at(), a.has("into_null") ? nullptr : entry.at(),
                    procname(a).at(), a.has("no_error") ? nullptr : err.at());
  handles_[option(a, "as", "listing")] = listing;
  return err_text(err) + (listing == nullptr ? " null" : "") + entry_text(entry);
}

/* The names or, where these are many, how many, of a listing from here on; and the code that ended
 * it. */
std::string CallPlayer::list(const Arguments& a) {
  size_t count = 0;
  int code = 0;
  for (Out<tnw_fileinfo> entry; (code = tnw_findnext(handle(a, 0), entry.at())) == 0; count++) {
    if (entry.at()->fi_size != count + number(a, 1, 0)) {
      return "entry " + std::to_string(count) + " is another one";
    }
  }
  return std::to_string(count) + " entries, then " + std::to_string(code);
}

void CallPlayer::add_folder_calls() {
  commands_["findfirst"] = [this](auto& a) { return find_first(a); };
  commands_["findnext"] = [this](auto& a) {
    const Out<tnw_fileinfo> entry;
    const int code = tnw_findnext(handle(a, 0), a.has("into_null") ? nullptr : entry.at());
    return code_text(code, entry_text(entry));
  };
  commands_["findrest"] = [this](auto& a) { return list(a); };
  commands_["checkfolderempty"] = [this](auto& a) {
    const Out<ox_u8> flag;
    auto* const is_empty = reinterpret_cast<bool*>(a.has("into_null") ? nullptr : flag.at());
    const int code = tnw_checkfolderempty(handle(a, 0), is_empty);
    return code_text(code, flag.number());
  };
  commands_["findclose"] = [this](auto& a) { return code_text(tnw_findclose(handle(a, 0))); };
}

void CallPlayer::add_path_calls() {
  commands_["getfileinfo"] = [this](auto& a) {
    const Passed path = passed(a, 1);
    const Out<tnw_fileinfo> entry;
    const int code = tnw_getfileinfo(handle(a, 0), path.at(), entry.at(), procname(a).at());
    return code_text(code, entry_text(entry));
  };
  commands_["rename"] = [this](auto& a) {
    const Passed from = passed(a, 1), to = passed(a, 2, "q");
    return code_text(tnw_rename(handle(a, 0), from.at(), to.at(), procname(a).at()));
  };
  commands_["delete"] = [this](auto& a) {
    return code_text(tnw_delete(handle(a, 0), passed(a, 1).at(), procname(a).at()));
  };
  commands_["canfilebedeleted"] = [this](auto& a) {
    const Out<ox_u8> may;
    const int code =
        tnw_canfilebedeleted(handle(a, 0), passed(a, 1).at(), reinterpret_cast<bool*>(may.at()));
    return code_text(code, may.number());
  };
}

void CallPlayer::add_drive_calls() {
  commands_["updatetoken"] = [this](auto& a) {
    return code_text(tnw_updatetoken(handle(a, 0), passed(a, 1, "t").at()));
  };
  commands_["set_http_proxy"] = [this](auto& a) {
    return code_text(tnw_set_http_proxy(handle(a, 0), passed(a, 1).at(), passed(a, 2, "").at(),
                                        passed(a, 3, "").at()));
  };
  commands_["deinit"] = [this](auto& a) {
    return code_text(tnw_deinit(handle(a, 0), a.has("force")));
  };
  commands_["deinit_force"] = [this](auto& a) { return code_text(tnw_deinit_force(handle(a, 0))); };
  commands_["instance"] = [this](auto& a) {
    const std::string id = tnw_get_tninstance_id(handle(a, 0));
    const size_t number = instances_.try_emplace(id, instances_.size()).first->second;
    return id.empty() ? "none"
                      : std::to_string(id.size()) + " characters, id " + std::to_string(number);
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
