/* PROPFIND and PROPPATCH. */
#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <vector>

#include "dav_path.h"
#include "dav_server.h"
#include "live_properties.h"
#include "tools/drive/drive_path.h"

namespace tnwdav {
namespace {

constexpr size_t PIECE = size_t{64} * 1024;
constexpr size_t LONGEST_BODY = size_t{1024} * 1024;

/* One file or folder of an answer, with all that is known of it. */
struct Resource {
  std::string path;
  Item item;
  std::vector<DavLock> locks;
  DeadProperties::List dead;
};

std::string propstat(const std::string& elements, Status status) {
  return elements.empty()
             ? ""
             : fmt::format("<D:propstat><D:prop>{}</D:prop><D:status>{}</D:status></D:propstat>",
                           elements, status_line(status));
}

/* Empty when the resource has no such property. */
std::string live_element(const Resource& resource, const LiveProperty& property) {
  std::string value;
  return property.value(resource.item, resource.locks, &value)
             ? fmt::format("<D:{}>{}</D:{}>", property.name, value, property.name)
             : "";
}

std::string element_of(const Resource& resource, const XmlName& name) {
  for (const DeadProperty& property : resource.dead) {
    if (property.name == name) {
      return property.xml;
    }
  }
  const LiveProperty* live = name.space == "DAV:" ? find_live_property(name.local) : nullptr;
  return live != nullptr ? live_element(resource, *live) : "";
}

std::string all_elements(const Resource& resource, bool only_names) {
  std::string elements;
  for (const LiveProperty& property : LIVE_PROPERTIES) {
    const std::string element = live_element(resource, property);
    elements += only_names && !element.empty() ? fmt::format("<D:{}/>", property.name) : element;
  }
  for (const DeadProperty& property : resource.dead) {
    elements += only_names ? empty_element(property.name) : property.xml;
  }
  return elements;
}

std::string wanted_properties(const Resource& resource, const PropfindRequest& wanted) {
  if (wanted.kind != PropfindRequest::SOME) {
    return propstat(all_elements(resource, wanted.kind == PropfindRequest::NAMES), Status::ok);
  }
  std::string found;
  std::string missing;
  for (const XmlName& name : wanted.names) {
    const std::string element = element_of(resource, name);
    (element.empty() ? missing : found) += element.empty() ? empty_element(name) : element;
  }
  return found.empty() && missing.empty()
             ? propstat(" ", Status::ok)
             : propstat(found, Status::ok) + propstat(missing, Status::not_found);
}

std::string response_of(const Resource& resource, const PropfindRequest& wanted) {
  return fmt::format("<D:response><D:href>{}</D:href>{}</D:response>\n",
                     address_of_path(resource.path, resource.item.folder),
                     wanted_properties(resource, wanted));
}

/* Hands out the resource and, at the depth 1, the members of a folder. */
void for_each_resource(Request& request, const Item& item, Depth depth, auto&& sink) {
  Parts& parts = request.parts;
  std::vector<Item> members;
  std::map<std::string, DeadProperties::List> dead;
  if (item.folder && depth == Depth::ONE) {
    parts.share.list(request.path, [&](const Item& member) { members.push_back(member); });
    dead = parts.properties.of_members(request.key);
  }
  sink(Resource{request.path, item, parts.locks.covering(request.key),
                parts.properties.of(request.key)});
  for (const Item& member : members) {
    const std::string path = tools::join_path(request.path, member.name);
    const std::string key = tools::path_key(path);
    const auto found = dead.find(key);
    sink(Resource{path, member, parts.locks.covering(key),
                  found != dead.end() ? found->second : DeadProperties::List()});
  }
}

/* Properties that the drive tells by itself cannot be changed. */
bool is_protected(const XmlName& name) {
  return name.space == "DAV:" && find_live_property(name.local) != nullptr;
}

std::string answer_to_changes(const Request& request, const Item& item,
                              const std::vector<PropertyChange>& changes, bool refused) {
  std::string done;
  std::string forbidden;
  for (const PropertyChange& change : changes) {
    (is_protected(change.property.name) ? forbidden : done) += empty_element(change.property.name);
  }
  return fmt::format(
      "{}<D:multistatus xmlns:D=\"DAV:\"><D:response><D:href>{}</D:href>{}{}"
      "</D:response></D:multistatus>\n",
      XML_BEGIN, address_of_path(request.path, item.folder),
      propstat(done, refused ? Status::failed_dependency : Status::ok),
      propstat(forbidden, Status::forbidden));
}

}  // namespace

void answer_propfind(Request& request) {
  const PropfindRequest wanted = parse_propfind(request.http.read_body(LONGEST_BODY));
  const Depth depth = request.depth(Depth::WHOLE_TREE);
  const Item item = request.item();
  if (depth == Depth::WHOLE_TREE && item.folder) {
    throw HttpError(Status::forbidden, "a whole tree is not listed", "propfind-finite-depth");
  }
  request.require_conditions(&item);
  std::string text = fmt::format("{}<D:multistatus xmlns:D=\"DAV:\">\n", XML_BEGIN);
  bool begun = false;
  for_each_resource(request, item, depth, [&](const Resource& resource) {
    text += response_of(resource, wanted);
    if (text.size() > PIECE) {
      if (!begun) {
        request.http.begin_answer(Status::multi_status, std::nullopt, XML_TYPE);
        begun = true;
      }
      request.http.send(text);
      text.clear();
    }
  });
  text += "</D:multistatus>\n";
  if (!begun) {
    return request.http.answer(Status::multi_status, text, XML_TYPE);
  }
  request.http.send(text);
  request.http.end_answer();
}

void answer_proppatch(Request& request) {
  const std::vector<PropertyChange> changes = parse_proppatch(request.http.read_body(LONGEST_BODY));
  const Item item = request.item();
  request.require_conditions(&item);
  request.require_tokens_for_change(request.path);
  const bool refused =
      std::any_of(changes.begin(), changes.end(),
                  [](const PropertyChange& change) { return is_protected(change.property.name); });
  if (!refused) {
    request.parts.properties.change(request.key, changes);
  }
  request.http.answer(Status::multi_status, answer_to_changes(request, item, changes, refused),
                      XML_TYPE);
}

}  // namespace tnwdav
