/*
 * A line for each request: on the terminal, unless it is to be quiet, and in tnwdav.log, whose old
 * part is kept as tnwdav.1.log.
 *
 * Threads: any.
 */
#ifndef TNWDAV_REQUEST_LOG_H
#define TNWDAV_REQUEST_LOG_H

#include <spdlog/logger.h>

#include <chrono>
#include <memory>
#include <string>

#include "exchange.h"

namespace tnwdav {

class RequestLog {
 public:
  /* `folder` is UTF-8, and is there. */
  RequestLog(const std::string& folder, bool quiet);

  /* One request; its line is written at the end of the object's life. */
  class Line {
   public:
    Line(RequestLog& log, const Exchange& exchange)
        : log_(log), exchange_(exchange), begin_(std::chrono::steady_clock::now()) {}
    ~Line();
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;
    /* Why it failed. */
    void tell(const std::string& reason) const { reason_ = reason; }

   private:
    RequestLog& log_;
    const Exchange& exchange_;
    const std::chrono::steady_clock::time_point begin_;
    mutable std::string reason_;
  };

 private:
  std::shared_ptr<spdlog::logger> logger_;
};

}  // namespace tnwdav

#endif
