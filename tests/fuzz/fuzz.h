/*
 * What the fuzz targets share. A target is one function that gets arbitrary bytes; it must neither
 * crash nor break what it requires. libFuzzer calls it with bytes of its own making, and replay.cpp
 * with those of the corpus.
 */
#ifndef TESTS_FUZZ_H
#define TESTS_FUZZ_H

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/* Ends the process, which libFuzzer and a debugger show with the place of the call. */
inline void require(bool holds) {
  if (!holds) {
    abort();
  }
}

inline std::string_view text_of(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/* Takes the text up to the next line end, which goes, too. */
inline std::string take_line(std::string_view* rest) {
  const std::string line(rest->substr(0, rest->find('\n')));
  rest->remove_prefix(std::min(line.size() + 1, rest->size()));
  return line;
}

#endif
