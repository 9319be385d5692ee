/*
 * Wire records as text, "name=value name=value", by their fields. Fields that are zero are left
 * out.
 */
#ifndef WIRE_TEXT_H
#define WIRE_TEXT_H

#include <map>
#include <string>

#include "scripted_peer.h"

/*
 * A layout: each field as NAME:SIZE and a letter: none for a number, s for a text, h for bytes, m
 * for the id of a request. Sizes are in bytes.
 */
struct WireOperation {
  const char* name;
  std::string request;  /* behind the header */
  std::string response; /* behind the header; empty where none of its fields is used */
};

/* The operation of an opcode. */
const WireOperation& wire_operation(ox_u32 opcode);
/* The opcode of a name. */
ox_u32 wire_opcode(const std::string& name);

/* Bytes behind the layout that are not zero are shown as "behind". */
std::string fields_text(const std::string& layout, const Bytes& record);
/* Sets these fields, numbers and texts; the bytes of ids may be cut. Names that the layout does not
 * have are not looked at: whether it had one of them. */
bool put_fields(const std::string& layout, const std::map<std::string, std::string>& fields,
                void* record);
/* An answer with these fields; empty without one. */
Bytes answer_record(ox_u32 opcode, const std::map<std::string, std::string>& fields);

std::string hex_text(const ox_u8* bytes, size_t size);
/* A request with its trailing texts, and the file information of the client. */
std::string request_text(const PeerRequest& request);
std::string fileinfo_text(const tnw_fileinfo& info);

#endif
