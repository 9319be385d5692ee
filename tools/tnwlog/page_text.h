/*
 * The page of --html without its data. The script page/page_text makes it of the files beside it
 * when tnwlog is built.
 */
#ifndef TNWLOG_PAGE_TEXT_H
#define TNWLOG_PAGE_TEXT_H

#include <string_view>

namespace tnwlog {

/* Behind the first one comes the data, as JSON without a '<'. */
extern const std::string_view PAGE_BEFORE_DATA;
extern const std::string_view PAGE_BEHIND_DATA;

}  // namespace tnwlog

#endif
