/*
 * The sink below the log facility: spdlog's rotating file logger, or its console logger while
 * there is no file.
 *
 * Nothing here is destroyed when the process ends. Threads of the host may log while the runtime
 * already destroys its statics, spdlog's registry among them. So shared pointers that are never
 * freed hold the loggers, and every line that is written until the end finds them alive.
 *
 * No exception of spdlog leaves this file.
 */
#define SPDLOG_PREVENT_CHILD_FD /* a child that held the log file would block its rotation */
#include <pthread.h>
#include <spdlog/details/file_helper.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

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
#include "ox_native_append.h"
#include "ox_util.h"

namespace {

using RotatingFile = spdlog::sinks::rotating_file_sink<spdlog::details::null_mutex>;

/* A logger that is kept until the process has ended, and the one that it replaced. */
struct KeptLogger {
  std::shared_ptr<spdlog::logger> out;
  KeptLogger* earlier;
};

/* The file logger, once created; the console logger, once the one-time set-up has run. */
std::atomic<KeptLogger*> logger = nullptr;
std::atomic<KeptLogger*> console = nullptr;
pthread_once_t flag = PTHREAD_ONCE_INIT;

/* The pattern shows the text alone, so nobody is asked for the time. */
constexpr spdlog::log_clock::time_point NO_TIME;

void keep(std::atomic<KeptLogger*>& place, std::shared_ptr<spdlog::logger> made) {
  auto* kept = new KeptLogger{std::move(made), place.load(std::memory_order_acquire)};
  place.store(kept, std::memory_order_release);
}

void write_console(spdlog::string_view_t text) {
  const KeptLogger* kept = console.load(std::memory_order_acquire);
  if (kept != nullptr) {
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

/* spdlog's name of the file that was rotated `index` times: "tnvfs.log", "tnvfs.1.log", ... */
spdlog::filename_t rotated_name(const spdlog::filename_t& path, size_t index) {
  return RotatingFile::calc_filename(path, index);
}

/* Removes the file that bears the new name, since Windows renames nothing over another file. */
bool rename_file(const spdlog::filename_t& from, const spdlog::filename_t& to) {
  (void)spdlog::details::os::remove(to);
  return spdlog::details::os::rename(from, to) == 0;
}

/*
 * A rotating file that does not harm the host when it fails, loses no line, and takes no memory for
 * a line.
 *
 * spdlog's own sink gives the names of the files and the limits of the sizes, but does neither the
 * writing nor the rotating: it takes memory for each line above 250 bytes; and when a file cannot
 * be renamed, because a viewer has it open, it empties the log file. Here the log file then goes on
 * growing. The rotation is tried again after each further sixteenth of the maximum size.
 *
 * A file that cannot be written is closed and opened anew, at once and then every ten seconds (an
 * attempt can take 150 ms). Lines that have no file meanwhile go to the console logger. The first
 * failure of any kind is reported there, too.
 *
 * The base class's mutex guards everything.
 */
class ResilientFile final : public spdlog::sinks::base_sink<std::mutex> {
 public:
  /* Throws when the file cannot be opened. */
  ResilientFile(std::string path, size_t max_size, size_t max_files)
      : path_(std::move(path)), max_size_(max_size), max_files_(max_files) {
    line_.reserve(OX_LOG_LINE_SIZE + EOL_SIZE);
    const RotatingFile trial(path_, max_size_, max_files_, false); /* throws for impossible sizes */
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

  /* Has nothing to do: each line is written out at once. */
  void flush_() override {}

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t EOL_SIZE = 2;

  spdlog::file_event_handlers keep_appender() {
    spdlog::file_event_handlers handlers;
    handlers.after_open = [this](const spdlog::filename_t& /*path*/, FILE* stream) {
      appender_ = ox_native_append_to(stream);
      if (appender_ < 0) {
        spdlog::throw_spdlog_ex("Failed opening file " + path_ + " for appending", errno);
      }
    };
    handlers.before_close = [this](const spdlog::filename_t& /*path*/, FILE* /*stream*/) {
      if (appender_ >= 0) {
        close(std::exchange(appender_, -1));
      }
    };
    return handlers;
  }

  void open(bool emptied = false) {
    file_.open(path_, emptied);
    size_ = file_.size();
    is_open_ = true;
  }

  /*
   * Gives each file the name of the one before it, the last one first. After a failure the next
   * attempt goes on at the file that could not be renamed: if it began anew, each attempt would
   * push one more of the older files out.
   */
  bool shift_files() {
    for (; shifting_ > 0; --shifting_) {
      const auto from = rotated_name(path_, shifting_ - 1);
      if (spdlog::details::os::path_exists(from) &&
          !rename_file(from, rotated_name(path_, shifting_))) {
        report_once(("cannot rename " + from).c_str());
        return false;
      }
    }
    shifting_ = max_files_;
    return true;
  }

  void rotate() {
    file_.close();
    is_open_ = false;
    const bool shifted = shift_files();
    open(shifted && max_files_ == 0);
    rotate_at_ = shifted ? max_size_ : size_ + max_size_ / 16;
  }

  bool append(spdlog::string_view_t line) {
    const auto size = static_cast<int>(line.size());
    return ::write(appender_, line.data(), static_cast<unsigned>(size)) == size;
  }

  void write() {
    if (size_ > 0 && size_ + line_.size() > rotate_at_) {
      rotate();
    }
    if (!append({line_.data(), line_.size()})) {
      spdlog::throw_spdlog_ex("Failed writing to file " + path_, errno);
    }
    size_ += line_.size();
  }

  /* True when the step succeeded. When it failed, the file is closed. */
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
    if (Clock::now() < next_attempt_) {
      return false;
    }
    next_attempt_ = Clock::now() + std::chrono::seconds(10);
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
  int appender_ = -1; /* what writes to file_ while it is open */
  spdlog::details::file_helper file_{keep_appender()};
  bool is_open_ = false;         /* false after a failure, until the file could be opened again */
  size_t size_ = 0;              /* bytes of the open file */
  size_t rotate_at_ = max_size_; /* the size that the file may not exceed */
  size_t shifting_ = max_files_; /* the name that the next file to be renamed gets */
  spdlog::memory_buf_t line_;
  Clock::time_point next_attempt_ = Clock::time_point::min();
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
    auto made = spdlog::synchronous_factory::create<ResilientFile>(
        logger_name != nullptr ? logger_name : "", logfile, max_size, max_files);
    made->set_pattern("%v", spdlog::pattern_time_type::local);
    made->flush_on(spdlog::level::off); /* the sink writes each line out */
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
  const KeptLogger* kept = logger.load(std::memory_order_acquire);
  if (kept != nullptr) {
    kept->out->log(NO_TIME, spdlog::source_loc(), spdlog::level::info, spdlog::string_view_t(msg));
  } else {
    write_console(msg);
  }
}

void ox_flush_spdlogger(void) {
  const KeptLogger* kept = logger.load(std::memory_order_acquire);
  if (kept == nullptr) {
    kept = console.load(std::memory_order_acquire);
  }
  if (kept != nullptr) {
    kept->out->flush();
  }
}
