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

/* Expects a section of FILE.txt: the lines behind "=== SECTION". FILE.new gets all sections that
 * the program has asked for so far; a whole run leaves there what to take over after a wanted
 * change. */
inline void expect_section(const std::string& file, const std::string& section,
                           const std::string& text) {
  static std::string seen;
  seen += "=== " + section + "\n" + text + (text.empty() ? "" : "\n");
  write_file(beside_test(file + ".new"), seen);
  const std::string all = "\n" + read_file(beside_test(file + ".txt")) + "=== ";
  const std::string head = "\n=== " + section + "\n";
  const size_t from = all.find(head);
  ASSERT_NE(from, std::string::npos) << "no section " << section;
  const size_t lines = from + head.size();
  EXPECT_EQ(text + (text.empty() ? "" : "\n"), all.substr(lines, all.find("=== ", lines) - lines))
      << section;
}

#endif
