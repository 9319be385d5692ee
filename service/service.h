/* What all connections of the service share. */
#ifndef SERVICE_SERVICE_H
#define SERVICE_SERVICE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "clients.h"
#include "cloud/cloud.h"
#include "counters.h"
#include "files/open_files.h"
#include "options.h"

namespace tarnd {

/* The user's token and the proxy. Any thread. */
class Credentials {
 public:
  explicit Credentials(const Options& options);

  /* The reference cloud takes every token but this one. */
  static constexpr const char* EXPIRED_TOKEN = "expired";

  /* Both answer whether the token is one that the cloud accepts. */
  bool set_token(const std::string& token);
  bool authorised();

  struct Proxy {
    std::string server;
    std::string user;
    std::string password;
  };
  void set_proxy(Proxy proxy);

 private:
  std::mutex lock_; /* guards the fields */
  std::string token_;
  Proxy proxy_;
};

/* Fixed after creation, but for what is guarded by its own lock or atomic. */
class Service {
 public:
  Service(const Options& options, std::unique_ptr<Cloud> cloud, std::wstring cache_files);

  /*
   * Writes back what a killed service left in the cache directory; call before any client is there.
   */
  void recover();
  /* The connection ended; so do the opens of processes that have no other. */
  void connection_ended(uint64_t connection);
  /* Writes back what waits and empties the cache: the number of files that could not be saved. */
  size_t finish();

  const Options options;
  const std::unique_ptr<Cloud> cloud;
  Counters counters;
  const CacheEnvironment environment;
  OpenFiles files;
  Clients clients;
  Credentials credentials;
  std::atomic<uint64_t> next_utxid;
  std::atomic<uint32_t> recovered = 0; /* files written back at the start */
  std::atomic<bool> stopping = false;  /* no new connections; the others end when idle */
};

}  // namespace tarnd

#endif
