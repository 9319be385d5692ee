/*
 * The sink below the log facility: spdlog's rotating file logger, or its console logger while
 * there is no file.
 *
 * Nothing here is destroyed at process end. Threads of the host may log while the runtime already
 * tears down its statics (spdlog's registry among them), so the loggers are held by shared
 * pointers that are never freed, and every line written until the end finds them alive.
 *
 * No exception of spdlog leaves this file.
 */
#define SPDLOG_PREVENT_CHILD_FD /* a child that held the log file would block its rotation */
#include <pthread.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "ox_logging.h"
#include "ox_util.h"

namespace {

using rotating_file = spdlog::sinks::rotating_file_sink<spdlog::details::null_mutex>;

/* A logger that is kept until the process has ended, and the one that it took the place of. */
struct kept_logger {
  std::shared_ptr<spdlog::logger> out;
  kept_logger* earlier;
};

/* The file logger, once created; the console logger, once the one-time set-up has run. */
std::atomic<kept_logger*> logger = nullptr;
std::atomic<kept_logger*> console = nullptr;
pthread_once_t flag = PTHREAD_ONCE_INIT;

void keep(std::atomic<kept_logger*>& place, std::shared_ptr<spdlog::logger> made) {
  auto* kept = new kept_logger{std::move(made), place.load(std::memory_order_acquire)};
  place.store(kept, std::memory_order_release);
}

void write_console(spdlog::string_view_t text) {
  if (const kept_logger* kept = console.load(std::memory_order_acquire)) {
    kept->out->log(spdlog::level::info, text);
  }
}

/* Says on the console logger why a log file is not written. */
void report_file(ox_s32 lineno, const char* what) {
  char line[OX_LOG_LINE_SIZE];
  int capacity = OX_LOG_LINE_SIZE;
  const int used = ox_log_prefix(line, OX_ERROR_LEVEL, lineno, __FILE_NAME__, errno, &capacity);
  ox_append(line + used, &capacity, "Cannot write the log file: %s", what);
  write_console(line);
}

/*
 * spdlog's rotating file, kept from harming the host when it fails. Left alone it closes its file
 * before it renames it, and when it cannot open it again its next write goes to a null stream.
 * Here a file that failed is dropped and opened anew, at once and then every ten seconds (an
 * attempt can take 150 ms); the first failure is reported, and lines that have no file meanwhile
 * go to the console logger.
 *
 * The base class's mutex guards everything.
 */
class resilient_file final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /* Throws when the file cannot be opened. */
  resilient_file(std::string path, size_t max_size, size_t max_files)
      : path_(std::move(path)), max_size_(max_size), max_files_(max_files) {
    open();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    if (!write(msg) && !(reopen() && write(msg))) {
      write_console(msg.payload);
    }
  }

  void flush_() override {
    if (file_ == nullptr) {
      return;
    }
    try {
      file_->flush();
    } catch (const std::exception& e) {
      report_once(e.what()); /* a full disk: the stream stays usable for when there is room */
    }
  }

  void set_formatter_(std::unique_ptr<spdlog::formatter> formatter) override {
    formatter_ = std::move(formatter);
    if (file_ != nullptr) {
      file_->set_formatter(formatter_->clone());
    }
  }

 private:
  using clock = std::chrono::steady_clock;

  void open() {
    file_ = std::make_unique<rotating_file>(path_, max_size_, max_files_, false);
    file_->set_formatter(formatter_->clone());
  }

  bool write(const spdlog::details::log_msg& msg) {
    if (file_ == nullptr) {
      return false;
    }
    try {
      file_->log(msg);
      return true;
    } catch (const std::exception& e) {
      report_once(e.what());
      file_.reset();
      return false;
    }
  }

  bool reopen() {
    if (clock::now() < next_attempt_) {
      return false;
    }
    next_attempt_ = clock::now() + std::chrono::seconds(10);
    try {
      open();
      return true;
    } catch (const std::exception& e) {
      report_once(e.what());
      file_.reset();
      return false;
    }
  }

  void report_once(const char* what) {
    if (!reported_) {
      reported_ = true;
      report_file(__LINE__, what);
    }
  }

  const std::string path_;
  const size_t max_size_;
  const size_t max_files_;
  std::unique_ptr<rotating_file> file_; /* null after a failure, until it could be opened again */
  clock::time_point next_attempt_ = clock::time_point::min();
  bool reported_ = false;
};

extern "C" void set_up_once() { ox_spdlog_set_pattern(); }

}  // namespace

void ox_spdlog_set_pattern(void) {
  try {
    spdlog::flush_on(spdlog::level::info);
    spdlog::set_pattern("%v");
    if (console.load(std::memory_order_acquire) == nullptr) {
      keep(console, spdlog::default_logger());
    }
  } catch (const std::exception& e) {
    fprintf(stderr, "Cannot set up logging: %s\n", e.what());
  }
}

void ox_init_spdlogger(const char* logger_name, const char* logfile, size_t max_size,
                       size_t max_files) {
  if (logfile == nullptr || logfile[0] == '\0') {
    return;
  }
  const int saved_errno = errno;
  pthread_once(&flag, set_up_once);
  errno = 0;
  try {
    auto made = spdlog::synchronous_factory::create<resilient_file>(
        logger_name != nullptr ? logger_name : "", logfile, max_size, max_files);
    made->set_pattern("%v", spdlog::pattern_time_type::local);
    made->flush_on(spdlog::level::info);
    keep(logger, std::move(made));
  } catch (const std::exception& e) {
    report_file(__LINE__, e.what());
  }
  errno = saved_errno;
}

void ox_spdlog(char* msg) {
  if (msg == nullptr) {
    return;
  }
  pthread_once(&flag, set_up_once);
  trim_newline(msg);
  if (const kept_logger* kept = logger.load(std::memory_order_acquire)) {
    kept->out->log(spdlog::level::info, spdlog::string_view_t(msg));
  } else {
    write_console(msg);
  }
}

void ox_flush_spdlogger(void) {
  const kept_logger* kept = logger.load(std::memory_order_acquire);
  if (kept == nullptr) {
    kept = console.load(std::memory_order_acquire);
  }
  if (kept != nullptr) {
    kept->out->flush();
  }
}
