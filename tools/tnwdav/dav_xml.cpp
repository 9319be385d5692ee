#include "dav_xml.h"

#include <fmt/format.h>

#include <pugixml.hpp>

#include <sstream>

#include "exchange.h"

namespace tnwdav {
namespace {

[[noreturn]] void refuse(const std::string& reason) {
  throw HttpError(Status::bad_request, reason);
}

void parse(const std::string& body, pugi::xml_document* document) {
  const unsigned options = pugi::parse_default | pugi::parse_ws_pcdata;
  const pugi::xml_parse_result result =
      document->load_buffer(body.data(), body.size(), options, pugi::encoding_utf8);
  if (!result || document->document_element().empty()) {
    refuse(std::string("the body is no XML: ") + result.description());
  }
}

/* The value of the nearest declaration of a prefix; null when there is none. */
const char* space_of_prefix(pugi::xml_node node, const std::string& prefix) {
  const std::string declaration = prefix.empty() ? "xmlns" : "xmlns:" + prefix;
  for (; !node.empty(); node = node.parent()) {
    if (const pugi::xml_attribute found = node.attribute(declaration.c_str())) {
      return found.value();
    }
  }
  return nullptr;
}

XmlName name_of(pugi::xml_node node) {
  const std::string_view whole = node.name();
  const size_t colon = whole.find(':');
  const std::string prefix(colon == std::string_view::npos ? "" : whole.substr(0, colon));
  const char* space =
      prefix == "xml" ? "http://www.w3.org/XML/1998/namespace" : space_of_prefix(node, prefix);
  if (!prefix.empty() && (space == nullptr || *space == '\0')) {
    refuse("the prefix \"" + prefix + "\" has no namespace");
  }
  return {space == nullptr ? "" : space,
          std::string(colon == std::string_view::npos ? whole : whole.substr(colon + 1))};
}

bool is_dav(pugi::xml_node node, const char* local) {
  return node.type() == pugi::node_element && name_of(node) == XmlName{"DAV:", local};
}

pugi::xml_node dav_child(pugi::xml_node node, const char* local) {
  return node.find_child([local](pugi::xml_node child) { return is_dav(child, local); });
}

std::vector<pugi::xml_node> elements_of(pugi::xml_node node) {
  std::vector<pugi::xml_node> elements;
  for (const pugi::xml_node child : node.children()) {
    if (child.type() == pugi::node_element) {
      elements.push_back(child);
    }
  }
  return elements;
}

/* Copies the declarations, and the language, from around the element into it. */
std::string self_contained(pugi::xml_node node) {
  for (pugi::xml_node above = node.parent(); !above.empty(); above = above.parent()) {
    for (const pugi::xml_attribute attribute : above.attributes()) {
      const std::string_view name = attribute.name();
      if ((name.starts_with("xmlns") || name == "xml:lang") &&
          node.attribute(attribute.name()).empty()) {
        node.append_copy(attribute);
      }
    }
  }
  std::ostringstream text;
  node.print(text, "", pugi::format_raw);
  return text.str();
}

pugi::xml_node root_of(const pugi::xml_document& document, const char* local) {
  const pugi::xml_node root = document.document_element();
  if (!is_dav(root, local)) {
    refuse(std::string("the body is no ") + local);
  }
  return root;
}

}  // namespace

PropfindRequest parse_propfind(const std::string& body) {
  PropfindRequest request;
  if (body.empty()) {
    return request;
  }
  pugi::xml_document document;
  parse(body, &document);
  const pugi::xml_node root = root_of(document, "propfind");
  const pugi::xml_node prop = dav_child(root, "prop");
  if (!dav_child(root, "propname").empty()) {
    request.kind = PropfindRequest::NAMES;
  } else if (!prop.empty()) {
    request.kind = PropfindRequest::SOME;
    for (const pugi::xml_node element : elements_of(prop)) {
      request.names.push_back(name_of(element));
    }
  } else if (dav_child(root, "allprop").empty()) {
    refuse("the propfind asks for nothing");
  }
  return request;
}

std::vector<PropertyChange> parse_proppatch(const std::string& body) {
  pugi::xml_document document;
  parse(body, &document);
  std::vector<PropertyChange> changes;
  for (const pugi::xml_node part : elements_of(root_of(document, "propertyupdate"))) {
    const bool remove = is_dav(part, "remove");
    if (!remove && !is_dav(part, "set")) {
      continue;
    }
    for (const pugi::xml_node element : elements_of(dav_child(part, "prop"))) {
      const XmlName name = name_of(element);
      changes.push_back({remove, {name, remove ? "" : self_contained(element)}});
    }
  }
  if (changes.empty()) {
    refuse("the propertyupdate changes nothing");
  }
  return changes;
}

LockRequest parse_lockinfo(const std::string& body) {
  pugi::xml_document document;
  parse(body, &document);
  const pugi::xml_node root = root_of(document, "lockinfo");
  const pugi::xml_node scope = dav_child(root, "lockscope");
  const bool shared = !dav_child(scope, "shared").empty();
  if ((!shared && dav_child(scope, "exclusive").empty()) ||
      dav_child(dav_child(root, "locktype"), "write").empty()) {
    refuse("the lockinfo asks for no kind of lock that is known here");
  }
  const pugi::xml_node owner = dav_child(root, "owner");
  return {!shared, owner.empty() ? "" : self_contained(owner)};
}

std::string xml_text(std::string_view text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string empty_element(const XmlName& name) {
  return name.space == "DAV:" ? fmt::format("<D:{}/>", name.local)
                              : fmt::format("<{} xmlns=\"{}\"/>", name.local, xml_text(name.space));
}

}  // namespace tnwdav
