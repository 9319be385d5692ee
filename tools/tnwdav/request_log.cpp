#include "request_log.h"

#include <fmt/format.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>

#include <vector>

#include "tools/common/local_file.h"

namespace tnwdav {
namespace {

constexpr size_t FILE_SIZE = size_t{5} * 1024 * 1024;
constexpr size_t OLD_FILES = 1;

/* A client's text on one line, whatever it has sent. */
std::string one_line(std::string_view text) {
  constexpr size_t LONGEST = 300;
  std::string line;
  for (const char c : text.substr(0, LONGEST)) {
    line += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
  }
  return line + (text.size() > LONGEST ? "..." : "");
}

}  // namespace

RequestLog::RequestLog(const std::string& folder, bool quiet) {
  std::vector<spdlog::sink_ptr> sinks = {std::make_shared<spdlog::sinks::rotating_file_sink_mt>(
      tools::code_page_path(folder + "\\tnwdav.log"), FILE_SIZE, OLD_FILES)};
  if (!quiet) {
    sinks.push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
  }
  logger_ = std::make_shared<spdlog::logger>("tnwdav", sinks.begin(), sinks.end());
  logger_->set_pattern("%Y-%m-%d %H:%M:%S.%e %v");
  logger_->flush_on(spdlog::level::info);
}

RequestLog::Line::~Line() {
  const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - begin_;
  const std::string status =
      exchange_.answered() ? std::to_string(static_cast<unsigned>(exchange_.status())) : "---";
  log_.logger_->info("{} {:8.1f} ms {:>9} in {:>9} out  {} {}{}", status, took.count(),
                     exchange_.received(), exchange_.sent(), one_line(exchange_.method()),
                     one_line(exchange_.target()), reason_.empty() ? "" : "  " + one_line(reason_));
}

}  // namespace tnwdav
