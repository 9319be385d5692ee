/*
 * Log lines without what differs from run to run, so that tests can compare the whole of them.
 */
#ifndef LINE_MASK_H
#define LINE_MASK_H

#include <regex>
#include <string>
#include <utility>
#include <vector>

/* Patterns, and what stands in the place of what they match. */
using Masks = std::vector<std::pair<std::regex, std::string>>;
std::string masked(std::string line, const Masks& masks);

/* The line's time, the source's line number and the response time as the words TIME, LINE and
 * USECS. */
std::string masked(const std::string& line);

/* "LEVEL ERRNO USER: text" of a line in either form, the client's own or the portability layer's.
 * The number stands there if the line has one, the user if it tells its connection. Lines without
 * such a prefix, and those of events, stay as they are. */
std::string brief_line(const std::string& line);

#endif
