/*
 * Long texts that are compared with a file beside the test's program.
 */
#ifndef GOLDEN_TEXT_H
#define GOLDEN_TEXT_H

#include <gtest/gtest.h>

#include <string>

#include "test_folder.h"

/* Expects the content of NAME.txt. After a wanted change, take over what a failure leaves in
 * NAME.new. */
inline void expect_text_of(const std::string& name, const std::string& text) {
  const std::string expected = read_file(beside_test(name + ".txt"));
  EXPECT_EQ(text, expected);
  if (text != expected) {
    write_file(beside_test(name + ".new"), text);
  }
}

#endif
