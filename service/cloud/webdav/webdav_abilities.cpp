#include "cloud/webdav/webdav_abilities.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string_view>

namespace tarnd {
namespace {

constexpr std::string_view PART_LEAD = ".tarnd-part-";
constexpr size_t PART_DIGITS = 16;
constexpr const char* WRONG_TAG = "\"not-this-one\"";
constexpr int64_t SECONDS_KEPT = int64_t{24} * 3600;

struct Row {
  const char* text;
  bool WebdavAbilities::*has;
};

/* Their order is that of the flags on disk. */
constexpr std::array<Row, 7> ROWS = {{
    {"a MOVE to a name that is taken is refused when it is to be new",
     &WebdavAbilities::strict_new_names},
    {"a MOVE under a condition on the contents (If) is kept", &WebdavAbilities::tagged_moves},
    {"a LOCK keeps other clients out", &WebdavAbilities::locks},
    {"a MOVE keeps the entity tag", &WebdavAbilities::moves_keep_tag},
    {"a part of a file can be read (Range)", &WebdavAbilities::ranged_get},
    {"a part of a file can be written (Content-Range)", &WebdavAbilities::ranged_put},
    {"names that differ in case only are the same", &WebdavAbilities::case_insensitive},
}};

int64_t seconds_now() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::seconds>(now).count();
}

/* The scratch files of one probe, which go with it. */
class Scratch {
 public:
  Scratch(const CloudContext& context, WebdavServer& server) : context_(context), server_(server) {}
  ~Scratch() {
    for (const std::string& path : {a_, b_, c_}) {
      server_.remove(context_, path);
    }
  }

  CloudResult find(WebdavAbilities* found) {
    CloudResult result = put(a_, "one");
    result = result.ok() ? put(b_, "other") : result;
    if (!result.ok()) {
      return result;
    }
    const auto keeps = [](const CloudResult& move) { return move.code == CloudCode::CHANGED; };
    found->strict_new_names = keeps(server_.move(context_, a_, b_, WebdavServer::Overwrite::NO));
    found->locks = try_locks();
    found->case_insensitive = try_case();
    found->ranged_get = read(b_, "bytes=1-2", 206) == "th";
    found->ranged_put = try_patch();
    try_tags(found);
    return {};
  }

 private:
  CloudResult put(const std::string& path, const std::string& text, const std::string& range = "") {
    return server_.put(
        context_, path, text.size(),
        [&](uint64_t offset, char* buffer, size_t size) {
          std::memcpy(buffer, text.data() + offset, size);
          return 0;
        },
        range);
  }

  std::string tag_of(const std::string& path) {
    DavItem item;
    server_.look(context_, path, &item);
    return item.tag;
  }

  /* The bytes, when the answer has this status. */
  std::string read(const std::string& path, const std::string& range, int status) {
    std::string text;
    HttpAnswer answer;
    server_.get(context_, path, range, &answer, [&](const char* data, size_t size) {
      text.append(data, size);
      return 0;
    });
    return answer.status == status ? text : "";
  }

  bool try_locks() {
    std::string token;
    if (!server_.lock(context_, b_, &token).ok()) {
      return false;
    }
    const bool kept_out = put(b_, "not now").code == CloudCode::BUSY;
    const bool lets_in =
        server_.move(context_, a_, b_, WebdavServer::Overwrite::YES, server_.has_lock(b_, token))
            .ok();
    server_.unlock(context_, b_, token);
    const bool restored = put(a_, "one").ok() && put(b_, "other").ok();
    return kept_out && lets_in && restored;
  }

  bool try_case() {
    std::string upper = b_;
    upper.replace(upper.find("tarnd"), 5, "TARND");
    DavItem item;
    return server_.look(context_, upper, &item).ok();
  }

  /* A server that takes the fragment for the whole is told by the content. */
  bool try_patch() {
    return server_.copy(context_, b_, c_).ok() && put(c_, "XY", "bytes 1-2/5").ok() &&
           put(c_, "Z", "bytes 5-5/6").ok() && read(c_, "", 200) == "oXYerZ";
  }

  /* The last one, since it moves a file away. A server that refuses every tag keeps none, either.
   */
  void try_tags(WebdavAbilities* found) {
    const std::string a = tag_of(a_);
    const std::string b = tag_of(b_);
    const auto move = [&](const std::string& source_tag, const std::string& target_tag) {
      return server_
          .move(context_, a_, b_, WebdavServer::Overwrite::YES,
                server_.has_tag(a_, source_tag) + server_.has_tag(b_, target_tag))
          .code;
    };
    found->tagged_moves = !a.empty() && move(WRONG_TAG, b) == CloudCode::CHANGED &&
                          move(a, WRONG_TAG) == CloudCode::CHANGED && move(a, b) == CloudCode::OK;
    if (!found->tagged_moves) {
      server_.move(context_, a_, b_, WebdavServer::Overwrite::YES);
    }
    found->moves_keep_tag = !a.empty() && tag_of(b_).ends_with(a.substr(a.find('"')));
  }

  const CloudContext& context_;
  WebdavServer& server_;
  const std::string a_ = new_part_path("");
  const std::string b_ = new_part_path("");
  const std::string c_ = new_part_path("");
};

}  // namespace

CloudResult find_abilities(const CloudContext& context, WebdavServer& server,
                           WebdavAbilities* abilities) {
  *abilities = {};
  return harmless(Scratch(context, server).find(abilities));
}

std::string table_of(const WebdavAbilities& abilities) {
  std::string table;
  for (const Row& row : ROWS) {
    table += (abilities.*row.has ? "  yes  " : "  no   ") + std::string(row.text) + '\n';
  }
  return table;
}

/* ------------------------------------------------------------------ on disk */

bool KeptAbilities::load(const std::string& address, WebdavAbilities* abilities) const {
  std::ifstream file{std::filesystem::path(path_)};
  std::string of;
  int64_t found_at = 0;
  std::string flags;
  if (path_.empty() || !std::getline(file, of) || !(file >> found_at >> flags)) {
    return false;
  }
  const int64_t age = seconds_now() - found_at;
  if (of != address || age < 0 || age > SECONDS_KEPT || flags.size() != ROWS.size()) {
    return false;
  }
  for (size_t i = 0; i < ROWS.size(); i++) {
    abilities->*ROWS[i].has = flags[i] == '1';
  }
  return true;
}

void KeptAbilities::save(const std::string& address, const WebdavAbilities& abilities) const {
  if (path_.empty()) {
    return;
  }
  std::ofstream file{std::filesystem::path(path_)};
  file << address << '\n' << seconds_now() << ' ';
  for (const Row& row : ROWS) {
    file << (abilities.*row.has ? '1' : '0');
  }
  file << '\n';
}

std::string new_part_path(const std::string& folder) {
  std::random_device random;
  std::array<char, PART_DIGITS + 1> digits = {};
  snprintf(digits.data(), digits.size(), "%08x%08x", random(), random());
  return folder + (folder.empty() ? "" : "/") + std::string(PART_LEAD) + digits.data();
}

bool is_part_name(const std::string& name) {
  return name.starts_with(PART_LEAD) && name.size() == PART_LEAD.size() + PART_DIGITS;
}

}  // namespace tarnd
