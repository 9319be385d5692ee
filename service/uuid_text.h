/* Identifiers as text. */
#ifndef SERVICE_UUID_TEXT_H
#define SERVICE_UUID_TEXT_H

#include <string>

#include "tnv_proto.h"

namespace tarnd {

/* 36 lower-case characters. */
std::string text_of_id(const cfs_id_t& id);
cfs_id_t new_id();

struct IdLess {
  bool operator()(const cfs_id_t& a, const cfs_id_t& b) const;
};
bool same_id(const cfs_id_t& a, const cfs_id_t& b);

}  // namespace tarnd

#endif
