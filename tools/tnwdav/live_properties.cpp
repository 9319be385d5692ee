#include "live_properties.h"

#include <fmt/chrono.h>

#include <algorithm>

#include "dav_path.h"
#include "dav_xml.h"

namespace tnwdav {
namespace {

std::tm calendar_time(uint64_t file_time) {
  constexpr uint64_t TICKS_A_SECOND = 10'000'000;
  constexpr uint64_t SECONDS_1601_TO_1970 = 11'644'473'600;
  const uint64_t seconds = file_time / TICKS_A_SECOND;
  return fmt::gmtime(
      static_cast<time_t>(std::max(seconds, SECONDS_1601_TO_1970) - SECONDS_1601_TO_1970));
}

std::string active_lock(const DavLock& lock) {
  return fmt::format(
      "<D:activelock><D:locktype><D:write/></D:locktype><D:lockscope><D:{}/></D:lockscope>"
      "<D:depth>{}</D:depth>{}<D:timeout>Second-{}</D:timeout>"
      "<D:locktoken><D:href>{}</D:href></D:locktoken>"
      "<D:lockroot><D:href>{}</D:href></D:lockroot></D:activelock>",
      lock.exclusive ? "exclusive" : "shared", lock.deep ? "infinity" : "0", lock.owner,
      lock.timeout.count(), lock.token, address_of_path(lock.path, false));
}

constexpr char SUPPORTED_LOCKS[] =
    "<D:lockentry><D:lockscope><D:exclusive/></D:lockscope><D:locktype><D:write/></D:locktype>"
    "</D:lockentry><D:lockentry><D:lockscope><D:shared/></D:lockscope><D:locktype><D:write/>"
    "</D:locktype></D:lockentry>";

using Locks = std::vector<DavLock>;

bool creation_date(const Item& item, const Locks&, std::string* out) {
  *out = fmt::format("{:%Y-%m-%dT%H:%M:%SZ}", calendar_time(item.created));
  return true;
}
bool content_length(const Item& item, const Locks&, std::string* out) {
  *out = std::to_string(item.size);
  return !item.folder;
}
bool content_type(const Item& item, const Locks&, std::string* out) {
  *out = "application/octet-stream";
  return !item.folder;
}
bool entity_tag(const Item& item, const Locks&, std::string* out) {
  *out = xml_text(tag_of(item));
  return true;
}
bool last_modified(const Item& item, const Locks&, std::string* out) {
  *out = http_date(item.modified);
  return true;
}
bool discovered_locks(const Item&, const Locks& locks, std::string* out) {
  *out = lock_discovery(locks);
  return true;
}
bool resource_type(const Item& item, const Locks&, std::string* out) {
  *out = item.folder ? "<D:collection/>" : "";
  return true;
}
bool supported_locks(const Item&, const Locks&, std::string* out) {
  *out = SUPPORTED_LOCKS;
  return true;
}

}  // namespace

const std::vector<LiveProperty> LIVE_PROPERTIES = {
    {"creationdate", creation_date},    {"getcontentlength", content_length},
    {"getcontenttype", content_type},   {"getetag", entity_tag},
    {"getlastmodified", last_modified}, {"lockdiscovery", discovered_locks},
    {"resourcetype", resource_type},    {"supportedlock", supported_locks},
};

const LiveProperty* find_live_property(std::string_view name) {
  for (const LiveProperty& property : LIVE_PROPERTIES) {
    if (property.name == name) {
      return &property;
    }
  }
  return nullptr;
}

std::string tag_of(const Item& item) {
  return fmt::format("\"{:x}-{:x}\"", item.modified, item.size);
}

std::string http_date(uint64_t file_time) {
  return fmt::format("{:%a, %d %b %Y %H:%M:%S GMT}", calendar_time(file_time));
}

std::string lock_discovery(const Locks& locks) {
  std::string text;
  for (const DavLock& lock : locks) {
    text += active_lock(lock);
  }
  return text;
}

}  // namespace tnwdav
