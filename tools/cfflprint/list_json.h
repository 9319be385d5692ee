/* A cloud file list, and what is wrong with one, as JSON. */
#ifndef CFFLPRINT_LIST_JSON_H
#define CFFLPRINT_LIST_JSON_H

#include <string>
#include <vector>

#include "list_check.h"
#include "tn_cffl.h"

namespace cfflprint {

/* Bytes of names that are no UTF-8 become U+FFFD. The list must be one that can be walked. */
std::string list_json(const cfs_cffl* list);
std::string faults_json(const std::string& path, const std::vector<Fault>& faults);

}  // namespace cfflprint

#endif
