/*
 * A line of the log, against spdlog with the same file, flushed after each line, too.
 */
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include "ox_logging.h"
#include "parts.h"

void log_rows(Bench& bench) {
  constexpr char ROW[] = "ox_log, 200 bytes";
  if (!bench.wants(ROW)) {
    return;
  }
  constexpr size_t FILE_SIZE = 52428800, FILES = 10;
  const std::string text(196, 'x');
  ox_init_logging("bench", (bench.folder() + "/ox.log").c_str(), nullptr, "a");
  auto logger = spdlog::rotating_logger_mt("peer", bench.folder() + "/spd.log", FILE_SIZE, FILES);
  logger->set_pattern("%v");
  logger->flush_on(spdlog::level::info);
  bench.pair(
      ROW,
      [&](benchmark::State& state) {
        for (auto _ : state) {
          ox_log("%s %d\n", text.c_str(), 100);
        }
      },
      [&](benchmark::State& state) {
        for (auto _ : state) {
          logger->info("{} {}", text, 100);
        }
      });
}
