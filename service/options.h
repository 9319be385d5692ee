/*
 * The service's command line and environment.
 *
 * The command line is the library's: option names of two dashes, each value the next word unless
 * that begins with two dashes, so that an empty value may be left out. Words that follow a value
 * belong to it, joined by one blank, since the library quotes paths only; words before the first
 * option belong to the program's path, which it does not quote either. A quote only groups: a
 * backslash is never an escape, so that a folder may end in one ("C:\work\").
 */
#ifndef SERVICE_OPTIONS_H
#define SERVICE_OPTIONS_H

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace tarnd {

/* All texts are UTF-8. */
struct Options {
  bool help = false;
  bool version = false;
  std::string probe; /* the address of a server that is only tried out */

  std::string cfs; /* the cloud's https address, with the domain */
  std::string user;
  std::string cache; /* the cache directory: required */
  std::string addr;  /* the cloud's address: required */
  std::string confaddr;
  std::string tn_devid;
  std::string da_devid;
  std::string access_token;
  std::string logfile;
  bool vfs = false;
  std::string sockdir;
  std::string wgid;
  uint64_t uid = 0;
  std::string proxy_server;
  std::string proxy_user;
  std::string proxy_password;
  std::string ca; /* the file of an own authority's certificate */

  /* These come from the environment, too: the library's command line has none of them. */
  uint64_t cache_size = 0;                  /* bytes; 0: a tenth of the free space */
  uint64_t keep_free = uint64_t{256} << 20; /* bytes of the disk that no fetch may take */
  uint64_t write_back_wait_ms = 2000;
  uint64_t shutdown_wait_ms = 5000;
  uint64_t transfers = 8; /* at a time, in each direction */
  static constexpr uint64_t BY_THE_CLOUD = UINT64_MAX;
  uint64_t names_fresh_ms = BY_THE_CLOUD; /* for how long the cloud's names are remembered */
  uint64_t connections = 8;               /* to a web server */

  /* From TARND_* environment variables alone. */
  int region_shift = 20;
  uint64_t first_utxid = 0; /* 0: answers carry no transaction id */
  uint32_t latency_ms = 0;
  std::set<uint32_t> latency_ops; /* operation codes; empty: all */
  std::string counts_file;
  std::string faults;   /* the script of a fault cloud */
  int debug_level = -1; /* -1: the library's own */
};

/* The value of an environment variable, if it is set. */
using Environment = std::function<std::optional<std::string>(const char* name)>;

std::vector<std::string> split_command_line(const std::string& line);
/*
 * Both return false with a text in `*error` that names what is wrong. The environment goes first:
 * the command line overrides it.
 */
bool parse_environment(const Environment& environment, Options* options, std::string* error);
bool parse_command_line(const std::vector<std::string>& words, Options* options,
                        std::string* error);

/*
 * The socket's path as the library composes it: the directory (and below it the workgroup's) and
 * "<uid>.sock" or "tnvfs.sock".
 */
std::string socket_folder(const Options& options);
std::string socket_path(const Options& options);

/* What --help prints. */
std::string help_text();

}  // namespace tarnd

#endif
