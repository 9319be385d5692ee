#include "options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>

#include "counters.h"

namespace tarnd {
namespace {

struct TextOption {
  const char* name;
  std::string Options::*field;
};

constexpr std::array<TextOption, 16> TEXT_OPTIONS = {{
    {"--cfs", &Options::cfs},
    {"--user", &Options::user},
    {"--cache", &Options::cache},
    {"--addr", &Options::addr},
    {"--confaddr", &Options::confaddr},
    {"--tn-devid", &Options::tn_devid},
    {"--da-devid", &Options::da_devid},
    {"--access-token", &Options::access_token},
    {"--logfile", &Options::logfile},
    {"--sockdir", &Options::sockdir},
    {"--wgid", &Options::wgid},
    {"--proxy-server", &Options::proxy_server},
    {"--proxy-user", &Options::proxy_user},
    {"--proxy-password", &Options::proxy_password},
    {"--ca", &Options::ca},
    {"--probe", &Options::probe},
}};

struct NumberOption {
  const char* name;
  const char* variable; /* of the environment; null: there is none */
  uint64_t Options::*field;
  uint64_t min;
  uint64_t max;
};

constexpr uint64_t LONGEST_WAIT_MS = 600'000;
constexpr std::array<NumberOption, 8> NUMBER_OPTIONS = {{
    {"--uid", nullptr, &Options::uid, 0, UINT64_MAX},
    {"--cache-size", "TARND_CACHE_SIZE", &Options::cache_size, 0, UINT64_MAX},
    {"--keep-free", "TARND_KEEP_FREE", &Options::keep_free, 0, UINT64_MAX},
    {"--write-back-wait", "TARND_WRITE_BACK_WAIT", &Options::write_back_wait_ms, 0,
     LONGEST_WAIT_MS},
    {"--shutdown-wait", "TARND_SHUTDOWN_WAIT", &Options::shutdown_wait_ms, 0, LONGEST_WAIT_MS},
    {"--transfers", "TARND_TRANSFERS", &Options::transfers, 1, 64},
    {"--names-fresh", "TARND_NAMES_FRESH", &Options::names_fresh_ms, 0, LONGEST_WAIT_MS},
    {"--connections", "TARND_CONNECTIONS", &Options::connections, 1, 64},
}};

struct FlagOption {
  const char* name;
  bool Options::*field;
};

constexpr std::array<FlagOption, 3> FLAG_OPTIONS = {{
    {"--vfs", &Options::vfs},
    {"--help", &Options::help},
    {"--version", &Options::version},
}};

bool is_option(const std::string& word) { return word.starts_with("--"); }

template <typename Number>
bool parse_number(const std::string& text, Number max, Number* number) {
  const char* end = text.data() + text.size();
  const auto [rest, err] = std::from_chars(text.data(), end, *number);
  return err == std::errc{} && rest == end && *number <= max;
}

template <typename Table>
auto find_option(const Table& table, const std::string& name) {
  return std::find_if(table.begin(), table.end(),
                      [&](const auto& option) { return name == option.name; });
}

/* An empty text leaves the option as it is. */
bool take_number(const NumberOption& option, const char* name, const std::string& text,
                 Options* options, std::string* error) {
  uint64_t number = 0;
  if (text.empty()) {
    return true;
  }
  if (parse_number<uint64_t>(text, option.max, &number) && number >= option.min) {
    options->*(option.field) = number;
    return true;
  }
  *error = std::string(name) + " wants a number from " + std::to_string(option.min) + " to " +
           std::to_string(option.max) + ", not \"" + text + '"';
  return false;
}

/* One option with the words that follow it. */
bool take_option(const std::string& name, const std::string& value, Options* options,
                 std::string* error) {
  if (const auto text = find_option(TEXT_OPTIONS, name); text != TEXT_OPTIONS.end()) {
    options->*(text->field) = value;
    return true;
  }
  if (const auto flag = find_option(FLAG_OPTIONS, name); flag != FLAG_OPTIONS.end()) {
    *error = value.empty() ? "" : name + " takes no value";
    return options->*(flag->field) = value.empty();
  }
  if (const auto number = find_option(NUMBER_OPTIONS, name); number != NUMBER_OPTIONS.end()) {
    return take_number(*number, number->name, value, options, error);
  }
  *error = "unknown option " + name;
  return false;
}

bool parse_operations(const std::string& text, std::set<uint32_t>* operations, std::string* error) {
  std::istringstream names(text);
  for (std::string name; std::getline(names, name, ',');) {
    const uint32_t opcode = Counters::operation_of_name(name);
    if (opcode == TNV_OP_MAX) {
      *error = "TARND_LATENCY_OPS: no operation is called \"" + name + '"';
      return false;
    }
    operations->insert(opcode);
  }
  return true;
}

}  // namespace

std::vector<std::string> split_command_line(const std::string& line) {
  std::vector<std::string> words;
  bool quoted = false;
  bool in_word = false;
  for (const char c : line) {
    const bool blank = (c == ' ' || c == '\t') && !quoted;
    if (!blank && !in_word) {
      words.emplace_back();
    }
    in_word = !blank;
    if (c == '"') {
      quoted = !quoted;
    } else if (!blank) {
      words.back() += c;
    }
  }
  return words;
}

bool parse_command_line(const std::vector<std::string>& words, Options* options,
                        std::string* error) {
  auto word = std::find_if(words.begin(), words.end(), is_option);
  while (word != words.end()) {
    const std::string& name = *word++;
    std::string value;
    for (bool first = true; word != words.end() && !is_option(*word); first = false) {
      value += (first ? "" : " ") + *word++;
    }
    if (!take_option(name, value, options, error)) {
      return false;
    }
  }
  if (options->help || options->version || !options->probe.empty()) {
    return true;
  }
  *error = options->cache.empty() ? "--cache is missing" : "--addr is missing";
  return !options->cache.empty() && !options->addr.empty();
}

bool parse_environment(const Environment& environment, Options* options, std::string* error) {
  const auto number = [&](const char* name, auto max, auto* field) {
    const std::optional<std::string> text = environment(name);
    if (!text || text->empty() || parse_number<decltype(max)>(*text, max, field)) {
      return true;
    }
    *error = std::string(name) + " wants a number up to " + std::to_string(max) + ", not \"" +
             *text + '"';
    return false;
  };
  for (const NumberOption& option : NUMBER_OPTIONS) {
    if (option.variable != nullptr &&
        !take_number(option, option.variable, environment(option.variable).value_or(""), options,
                     error)) {
      return false;
    }
  }
  options->ca = environment("TARND_CA").value_or("");
  options->counts_file = environment("TARND_COUNTS").value_or("");
  options->faults = environment("TARND_FAULTS").value_or("");
  return number("TARND_REGION_SHIFT", 62, &options->region_shift) &&
         number("TARND_UTXID", UINT64_MAX, &options->first_utxid) &&
         number("TARND_LATENCY_MS", uint32_t{60000}, &options->latency_ms) &&
         number("TARND_DEBUG", 5, &options->debug_level) &&
         parse_operations(environment("TARND_LATENCY_OPS").value_or(""), &options->latency_ops,
                          error) &&
         (options->region_shift >= 0 || (*error = "TARND_REGION_SHIFT is negative", false));
}

std::string socket_folder(const Options& options) {
  const std::string& root = options.sockdir.empty() ? options.cache : options.sockdir;
  return options.wgid.empty() ? root : root + '\\' + options.wgid;
}

std::string socket_path(const Options& options) {
  const std::string name = options.uid == 0 ? "tnvfs.sock" : std::to_string(options.uid) + ".sock";
  return socket_folder(options) + '\\' + name;
}

}  // namespace tarnd
