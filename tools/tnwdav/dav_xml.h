/*
 * The XML of requests, with namespaces, and what answers are made of. Texts that are no XML, or
 * none with good namespaces, are refused with 400.
 */
#ifndef TNWDAV_DAV_XML_H
#define TNWDAV_DAV_XML_H

#include <compare>
#include <string>
#include <string_view>
#include <vector>

namespace tnwdav {

struct XmlName {
  std::string space; /* "DAV:" */
  std::string local;
  auto operator<=>(const XmlName&) const = default;
};

struct PropfindRequest {
  enum Kind { ALL, NAMES, SOME };
  Kind kind = ALL;
  std::vector<XmlName> names; /* of SOME */
};
/* An empty body asks for all. */
PropfindRequest parse_propfind(const std::string& body);

/* A property as an element that needs no declaration from around it. */
struct DeadProperty {
  XmlName name;
  std::string xml;
};

struct PropertyChange {
  bool remove = false;
  DeadProperty property; /* without xml in a removal */
};
std::vector<PropertyChange> parse_proppatch(const std::string& body);

struct LockRequest {
  bool exclusive = true;
  std::string owner; /* the whole element, or empty */
};
LockRequest parse_lockinfo(const std::string& body);

std::string xml_text(std::string_view text);
/* "<D:getetag/>" for a name of WebDAV, else an element that declares its namespace. */
std::string empty_element(const XmlName& name);

inline constexpr std::string_view XML_TYPE = "application/xml; charset=utf-8";
inline constexpr std::string_view XML_BEGIN = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n";

}  // namespace tnwdav

#endif
