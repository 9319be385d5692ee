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
#include <spdlog/details/file_helper.h>
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
 * A rotating file that neither harms the host when it fails nor takes memory for a line.
 *
 * spdlog's rotating sink does the rotating and nothing else: one is made for a moment whenever the
 * file is to be rotated. Left alone it takes memory for each line above 250 bytes, and a rotation
 * that fails leaves it with a null stream for its next write. Lines are written here, out of one
 * buffer that holds the longest.
 *
 * A file that failed is dropped and opened anew, at once and then every ten seconds (an attempt can
 * take 150 ms); the first failure is reported, and lines that have no file meanwhile go to the
 * console logger.
 *
 * The base class's mutex guards everything.
 */
class resilient_file final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /* Throws when the file cannot be opened. */
  resilient_file(std::string path, size_t max_size, size_t max_files)
      : path_(std::move(path)), max_size_(max_size), max_files_(max_files) {
    line_.reserve(OX_LOG_LINE_SIZE + eol_size);
    rotating_file(path_, max_size_, max_files_, false); /* refuses sizes that cannot be */
    open();
  }

 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    line_.clear();
    formatter_->format(msg, line_);
    if (!(is_open_ && attempt([this] { write(); })) &&
        !(reopen() && attempt([this] { write(); }))) {
      write_console(msg.payload);
    }
  }

  /* Every line was written out as it came. */
  void flush_() override {}

 private:
  using clock = std::chrono::steady_clock;
  static constexpr size_t eol_size = 2;

  void open() {
    file_.open(path_);
    size_ = file_.size();
    is_open_ = true;
  }

  void rotate() {
    file_.close();
    is_open_ = false;
    rotating_file(path_, max_size_, max_files_, true);
    open();
  }

  void write() {
    if (size_ > 0 && size_ + line_.size() > max_size_) {
      rotate();
    }
    file_.write(line_);
    file_.flush(); /* a full disk shows here, where the line can still go elsewhere */
    size_ += line_.size();
  }

  /* Whether it went well; the file is dropped when not. */
  template <typename Step>
  bool attempt(Step step) {
    try {
      step();
      return true;
    } catch (const std::exception& e) {
      report_once(e.what());
      file_.close();
      is_open_ = false;
      return false;
    }
  }

  bool reopen() {
    if (clock::now() < next_attempt_) {
      return false;
    }
    next_attempt_ = clock::now() + std::chrono::seconds(10);
    return attempt([this] { open(); });
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
  spdlog::details::file_helper file_;
  bool is_open_ = false; /* not after a failure, until it could be opened again */
  size_t size_ = 0;      /* bytes of the open file */
  spdlog::memory_buf_t line_;
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
