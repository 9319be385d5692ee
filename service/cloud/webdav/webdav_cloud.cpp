#include "cloud/webdav/webdav_cloud.h"

#include <windows.h>

#include <set>

#include "cloud/path_id.h"
#include "cloud/webdav/http_rules.h"
#include "cloud/webdav/name_spelling.h"
#include "cloud/webdav/part_name.h"
#include "names/folded_path.h"
#include "names/share_path.h"
#include "ox_logging.h"

namespace tarnd {
namespace {

constexpr uint64_t TICKS_A_DAY = uint64_t{24} * 3600 * 10'000'000;
constexpr size_t PARTS_REMOVED_AT_ONCE = 16;

std::string last_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

/* What the answer to a ranged request hands out, once its headers have told what the bytes are. */
class RangeReader {
 public:
  RangeReader(const std::string& version, ByteRange range, const DataSink& sink)
      : version_(version), range_(range), sink_(sink), left_(range.length) {}

  int take(const HttpAnswer& answer, const char* data, size_t size) {
    const bool ranged = answer.status == 206;
    if (!ranged && answer.status != 200) {
      return 0;
    }
    if (!judged_) {
      verdict_ = judge(answer, ranged);
      judged_ = true;
    }
    if (!verdict_.ok()) {
      return verdict_.error;
    }
    const auto past = static_cast<size_t>(std::min<uint64_t>(skip_, size));
    const auto count = static_cast<size_t>(std::min<uint64_t>(left_, size - past));
    skip_ -= past;
    left_ -= count;
    if (const int err = count == 0 ? 0 : sink_(data + past, count)) {
      verdict_ = CloudResult::refused(err);
      return err;
    }
    return left_ != 0 || ranged ? 0 : static_cast<int>(OX_EEXIST); /* only to end the call */
  }

  /* All came, or no more of it is wanted. */
  bool has_ended() const { return left_ == 0 || !verdict_.ok(); }
  CloudResult verdict() const { return verdict_; }

 private:
  /* Servers may answer with the whole, or with another part. */
  CloudResult judge(const HttpAnswer& answer, bool ranged) {
    ContentRange part = {{0, 0}, strtoull(answer.length.c_str(), nullptr, 10)};
    if (ranged &&
        (!parse_content_range(answer.content_range, &part) || part.range.offset != range_.offset)) {
      return CloudResult::of(CloudCode::OFFLINE);
    }
    if (version_of(answer.tag, answer.last_modified, part.size) != version_) {
      return CloudResult::of(CloudCode::CHANGED);
    }
    skip_ = ranged ? 0 : range_.offset;
    return range_.end() > part.size ? CloudResult::refused(OX_EINVAL) : CloudResult{};
  }

  const std::string& version_;
  const ByteRange range_;
  const DataSink& sink_;
  bool judged_ = false;
  CloudResult verdict_;
  uint64_t skip_ = 0; /* bytes of the body before the range */
  uint64_t left_;
};

uint64_t now_as_file_time() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

}  // namespace

CloudEntry entry_of(const DavItem& item, const std::string& path) {
  CloudEntry entry;
  entry.name = last_name(path);
  entry.path = path;
  entry.folder = item.folder;
  entry.size = item.folder ? 0 : item.size;
  entry.attributes = item.folder ? FILE_ATTRIBUTE_DIRECTORY : FILE_ATTRIBUTE_ARCHIVE;
  entry.created = item.created_time;
  entry.accessed = item.modified_time;
  entry.modified = item.modified_time;
  entry.id = id_of_path(path);
  entry.version = item.folder ? "" : version_of(item.tag, item.modified, item.size);
  return entry;
}

std::string version_of(const DavItem& item) {
  return version_of(item.tag, item.modified, item.size);
}

/* ------------------------------------------------------------------ the server */

std::unique_ptr<WebdavCloud> WebdavCloud::open(const std::string& address,
                                               const HttpSettings& settings,
                                               const KeptAbilities& kept, std::string* error) {
  WebAddress parts;
  if (!parse_web_address(address, &parts, error)) {
    return nullptr;
  }
  std::unique_ptr<HttpClient> client = HttpClient::open(parts, settings, error);
  if (client == nullptr) {
    return nullptr;
  }
  return std::unique_ptr<WebdavCloud>(
      new WebdavCloud(std::make_unique<WebdavServer>(parts, std::move(client)), kept));
}

WebdavCloud::WebdavCloud(std::unique_ptr<WebdavServer> server, const KeptAbilities& kept)
    : server_(std::move(server)), kept_(kept) {
  WebdavAbilities known;
  if (kept_.load(server_->address().server() + server_->address().target(""), &known)) {
    use(known);
  }
}

CloudCapabilities WebdavCloud::capabilities() const {
  return {.patch = can_patch_, .case_insensitive = case_insensitive_};
}

/* One thread tries, and the others wait for it. */
CloudResult WebdavCloud::abilities(const CloudContext& context, WebdavAbilities* found) {
  std::unique_lock lock(lock_);
  while (trying_) {
    tried_.wait_for(lock, std::chrono::milliseconds(20));
    const CloudResult may = check(context);
    if (!may.ok()) {
      return may;
    }
  }
  if (found_ != nullptr) {
    *found = *found_;
    return {};
  }
  trying_ = true;
  lock.unlock();
  const CloudResult result = try_out(context, found);
  lock.lock();
  trying_ = false;
  tried_.notify_all();
  if (result.ok()) {
    use(*found);
  }
  return result;
}

CloudResult WebdavCloud::try_out(const CloudContext& context, WebdavAbilities* found) {
  const CloudResult result = find_abilities(context, *server_, found);
  if (result.ok()) {
    OX_LOG(OX_INFO_LEVEL, 0, "The server %s:\n%s", server_->address().server().c_str(),
           table_of(*found).c_str());
    kept_.save(server_->address().server() + server_->address().target(""), *found);
  }
  return result;
}

/* Another server may have the address by now: the next change tries it out again. */
void WebdavCloud::doubt_abilities() {
  const std::lock_guard guard(lock_);
  can_patch_ = false;
  case_insensitive_ = false;
  found_ = nullptr;
}

void WebdavCloud::use(const WebdavAbilities& abilities) {
  can_patch_ = abilities.ranged_put && abilities.tagged_moves;
  case_insensitive_ = abilities.case_insensitive;
  found_ = std::make_unique<const WebdavAbilities>(abilities);
}

/* ------------------------------------------------------------------ looking */

CloudResult WebdavCloud::status(const CloudContext& context, const std::string& path,
                                CloudEntry* entry) {
  DavItem item;
  std::string own_path;
  const CloudResult result = server_->look(context, spelled_for_cloud(path), &item, &own_path);
  if (!result.ok()) {
    return result;
  }
  /* A server that takes all cases for one tells its own; a spelled name stays as it was asked. */
  const std::string own_name = spelled_for_windows(last_name(own_path));
  const bool same = folded_path(own_name) == folded_path(last_name(path));
  *entry = entry_of(item, same && !path.empty() ? join_path(parent_path(path), own_name) : path);
  return result;
}

CloudResult WebdavCloud::list(const CloudContext& context, const std::string& path,
                              const EntrySink& sink) {
  const std::string folder = spelled_for_cloud(path);
  const uint64_t old = now_as_file_time() - TICKS_A_DAY;
  std::set<std::string> folded_names;
  std::vector<std::string> leftovers;
  bool is_file = false;
  const auto take = [&](const std::string& item_path, const DavItem& item) {
    const std::string cloud_name = last_name(item_path);
    if (item_path == folder || parent_path(item_path) != folder) {
      is_file = item_path == folder && !item.folder;
      return !is_file;
    }
    if (is_part_name(cloud_name) && !item.folder) {
      if (item.modified_time < old && leftovers.size() < PARTS_REMOVED_AT_ONCE) {
        leftovers.push_back(item_path);
      }
      return true;
    }
    std::string name = spelled_for_windows(cloud_name);
    if (!folded_names.insert(folded_path(name)).second) {
      name = spelled_apart(cloud_name);
    }
    if (check_name(name) != 0) {
      OX_LOG(OX_WARN_LEVEL, 0, "The name of %s is too long to be shown", item_path.c_str());
      return true;
    }
    return sink(entry_of(item, join_path(path, name)));
  };
  const CloudResult result = server_->list(context, folder, take);
  for (const std::string& leftover : leftovers) {
    server_->remove(context, leftover);
  }
  return is_file ? CloudResult::refused(OX_ENOTDIR) : result;
}

CloudResult WebdavCloud::read(const CloudContext& context, const std::string& path,
                              const std::string& version, ByteRange range, const DataSink& sink) {
  if (range.empty()) {
    return {};
  }
  RangeReader reader(version, range, sink);
  const std::string target = spelled_for_cloud(path);
  const std::string asked =
      "bytes=" + std::to_string(range.offset) + '-' + std::to_string(range.end() - 1);
  HttpAnswer answer;
  CloudResult result =
      server_->get(context, target, asked, &answer,
                   [&](const char* data, size_t size) { return reader.take(answer, data, size); });
  if (reader.has_ended()) {
    return reader.verdict();
  }
  if (answer.status == 416) {
    result = expect(context, target, version);
    return result.ok() ? CloudResult::refused(OX_EINVAL) : result;
  }
  return result.ok() ? CloudResult::of(CloudCode::OFFLINE) : result; /* the body was cut short */
}

/* OK when a file of this version is there; an empty one: when nothing is. */
CloudResult WebdavCloud::expect(const CloudContext& context, const std::string& path,
                                const std::string& version) {
  DavItem item;
  const CloudResult result = server_->look(context, path, &item);
  if (version.empty()) {
    return result.ok()                           ? CloudResult::of(CloudCode::EXISTS)
           : result.code == CloudCode::NOT_FOUND ? CloudResult{}
                                                 : result;
  }
  if (!result.ok() || item.folder) {
    return result.ok() ? CloudResult::refused(OX_EISDIR) : result;
  }
  return version_of(item) == version ? CloudResult{} : CloudResult::of(CloudCode::CHANGED);
}

}  // namespace tarnd
