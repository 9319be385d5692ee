#include "cloud/webdav/multistatus.h"

#include <cstring>
#include <pugixml.hpp>
#include <string_view>

#include "cloud/webdav/http_rules.h"

namespace tarnd {
namespace {

/* One item is a few hundred bytes; more than this is no answer that we asked for. */
constexpr size_t LONGEST_ELEMENT = size_t{1} << 20;

/* Servers choose the prefix of DAV's own names. */
bool is_named(const pugi::xml_node& node, std::string_view name) {
  std::string_view own = node.name();
  own.remove_prefix(own.find(':') + 1); /* npos + 1: all of it */
  return own == name;
}

pugi::xml_node child(const pugi::xml_node& parent, std::string_view name) {
  return parent.find_child([&](const pugi::xml_node& node) { return is_named(node, name); });
}

bool is_success(const pugi::xml_node& propstat) {
  const std::string_view status = child(propstat, "status").text().get();
  return status.empty() || status.find(" 200") != std::string_view::npos;
}

void take_properties(const pugi::xml_node& properties, DavItem* item) {
  const auto text = [&](std::string_view name) { return child(properties, name).text(); };
  item->folder = item->folder || !child(child(properties, "resourcetype"), "collection").empty();
  item->size = text("getcontentlength").as_ullong(item->size);
  item->tag = text("getetag").as_string(item->tag.c_str());
  item->modified = text("getlastmodified").as_string(item->modified.c_str());
  item->modified_time = time_of_http_date(item->modified);
  const uint64_t created = time_of_http_date(text("creationdate").get());
  item->created_time = created != 0 ? created : item->modified_time;
}

}  // namespace

const char* const PROPFIND_BODY =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?><D:propfind xmlns:D=\"DAV:\"><D:prop>"
    "<D:resourcetype/><D:getcontentlength/><D:getetag/><D:getlastmodified/><D:creationdate/>"
    "</D:prop></D:propfind>";

bool MultistatusReader::fail() {
  broken_ = true;
  return false;
}

bool MultistatusReader::feed(const char* data, size_t size) {
  text_.append(data, size);
  if (root_.empty() && !take_root()) {
    return !broken_;
  }
  return take_items();
}

/* Whether the start tag of the whole is there. */
bool MultistatusReader::take_root() {
  const size_t name = text_.find("multistatus");
  const size_t end = name == std::string::npos ? name : text_.find('>', name);
  if (end == std::string::npos) {
    return text_.size() > LONGEST_ELEMENT ? fail() : false;
  }
  const size_t start = text_.rfind('<', name);
  if (start == std::string::npos) {
    return fail();
  }
  prefix_ = text_.substr(start + 1, name - start - 1);
  root_ = text_.substr(start, end + 1 - start);
  complete_ = root_.ends_with("/>");
  text_.erase(0, end + 1);
  return true;
}

/* Tags are told apart from texts by their '<', which no text has. */
bool MultistatusReader::take_items() {
  const std::string end_of_item = "</" + prefix_ + "response>";
  size_t from = 0;
  for (;;) {
    const size_t end = text_.find(end_of_item, from);
    if (end == std::string::npos) {
      break;
    }
    const size_t after = end + end_of_item.size();
    if (!hand_out(text_.substr(from, after - from))) {
      return false;
    }
    from = after;
  }
  text_.erase(0, from);
  complete_ = complete_ || text_.find("</" + prefix_ + "multistatus>") != std::string::npos;
  return text_.size() <= LONGEST_ELEMENT || fail();
}

bool MultistatusReader::hand_out(const std::string& element) {
  pugi::xml_document document;
  const std::string whole = root_ + element + "</" + prefix_ + "multistatus>";
  if (!document.load_buffer(whole.data(), whole.size(), pugi::parse_default, pugi::encoding_utf8)) {
    return fail();
  }
  const pugi::xml_node response = child(document.document_element(), "response");
  DavItem item;
  item.href = child(response, "href").text().get();
  for (const pugi::xml_node& propstat : response.children()) {
    if (is_named(propstat, "propstat") && is_success(propstat)) {
      take_properties(child(propstat, "prop"), &item);
    }
  }
  return sink_(item);
}

}  // namespace tarnd
