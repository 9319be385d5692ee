/* What a drive is started with. */
#ifndef TOOLS_DRIVE_OPTIONS_H
#define TOOLS_DRIVE_OPTIONS_H

#include <string>

#include "tnw.h"

namespace CLI {
class App;
}

namespace tools {

/* As given on the command line; UTF-8. */
struct DriveOptions {
  std::string cloud;   /* a folder that plays the cloud, or the address of a WebDAV server */
  std::string work;    /* cache, socket and logs */
  std::string service; /* tarnd.exe */
  std::string share = "/";
  std::string user = "me";
  std::string domain = "drive.local";
  std::string token = "development";
  std::string proxy; /* none when empty */
  std::string proxy_user;
  std::string proxy_password;
  int threads = 4;
};

/* Declares the options that every program with a drive takes; `options` lives as long as `app`. */
void declare_drive_options(CLI::App* app, DriveOptions* options);

/*
 * The start-up record of a drive. Throws a UsageError for a value that it cannot hold or that the
 * library would not pass on whole.
 */
tnw_tninit start_record(const DriveOptions& options);

/* Whose cache to purge. Throws in the same way. */
tnw_purge_opt_t purge_record(const DriveOptions& options);

/* Whether the cloud is a web server and not a folder. */
bool is_web_address(const std::string& cloud);

/* The percent-encoded address of a folder: "file:///Z:/a%20folder". */
std::string file_address(const std::string& folder);

/* Where logs and the cache of the options' user go; absolute. */
std::string log_folder(const DriveOptions& options);
std::string cache_folder(const DriveOptions& options);

}  // namespace tools

#endif
