/* What the drive is started with. */
#ifndef TNWSH_OPTIONS_H
#define TNWSH_OPTIONS_H

#include <string>

#include "common.h"
#include "progress.h"
#include "tnw.h"

namespace tnwsh {

/* As given on the command line; UTF-8. */
struct Options {
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
  ProgressMode progress = ProgressMode::AUTO;
};

/*
 * The start-up record of a drive. Throws a UsageError for a value that it cannot hold or that the
 * library would not pass on whole.
 */
tnw_tninit start_record(const Options& options);

/* Whose cache to purge. Throws in the same way. */
tnw_purge_opt_t purge_record(const Options& options);

/* Whether the cloud is a web server and not a folder. */
bool is_web_address(const std::string& cloud);

/* The percent-encoded address of a folder: "file:///Z:/a%20folder". */
std::string file_address(const std::string& folder);

/* Where logs and the cache of the options' user go; absolute. */
std::string log_folder(const Options& options);
std::string cache_folder(const Options& options);

}  // namespace tnwsh

#endif
