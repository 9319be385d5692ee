/* The lines of one request. */
#ifndef TNWLOG_REQUEST_LINES_H
#define TNWLOG_REQUEST_LINES_H

#include <string>
#include <vector>

namespace tnwlog {

/*
 * All lines of the files that belong to the request: that name its id or its transaction id, and
 * the one that tells that it is sent. `id` is either of the two. Dumps are left out.
 */
std::vector<std::string> lines_of_request(const std::vector<std::string>& files,
                                          const std::string& id);

}  // namespace tnwlog

#endif
