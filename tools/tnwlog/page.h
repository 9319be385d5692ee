/* A log as a page for a browser. It stands for itself: nothing is loaded from elsewhere. */
#ifndef TNWLOG_PAGE_H
#define TNWLOG_PAGE_H

#include <string>
#include <vector>

namespace tnwlog {

/*
 * Writes the page. A page of before is replaced; any other file that is there is an error, and
 * stays. Of a large log the page draws the last requests, and holds the lines of the failed and the
 * slowest ones; it says so.
 */
void write_page(const std::vector<std::string>& files, const std::string& page);

}  // namespace tnwlog

#endif
