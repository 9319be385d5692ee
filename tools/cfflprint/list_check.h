/* What is wrong with a cloud file list, found without trusting a byte of it. */
#ifndef CFFLPRINT_LIST_CHECK_H
#define CFFLPRINT_LIST_CHECK_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace cfflprint {

struct Fault {
  uint64_t offset;   /* in bytes, from the start of the list */
  std::string where; /* the name of the field and the number of the entry, which counts from 1 */
  std::string what;
  bool fatal; /* the library does not read or walk the list: it ends the process, or waits */
};

/* Checks every offset, length, count and text of a list file's bytes, in the order of the file. */
std::vector<Fault> check_list(std::span<const uint8_t> bytes);

/* Whether the library can read, walk and print the list. */
bool can_be_walked(const std::vector<Fault>& faults);

}  // namespace cfflprint

#endif
