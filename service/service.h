/* What all connections of the service share. */
#ifndef SERVICE_SERVICE_H
#define SERVICE_SERVICE_H

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "cache_limits.h"
#include "clients.h"
#include "cloud/cloud.h"
#include "counters.h"
#include "files/open_files.h"
#include "options.h"
#include "state/state_store.h"
#include "transfer/transfer_engine.h"

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
  /* Whether the cloud refused the token when it was last asked. */
  bool refused();
  void set_proxy(const std::string& server, const std::string& user, const std::string& password);
  /* As they are now. */
  std::shared_ptr<const CloudCredentials> now();

 private:
  std::mutex lock_;
  std::shared_ptr<const CloudCredentials> now_; /* guarded by lock_; never changed, replaced */
};

/* Fixed after creation, but for what is guarded by its own lock or atomic. */
class Service {
 public:
  /* `cache`: the cache directory. */
  Service(const Options& options, std::unique_ptr<Cloud> cloud, const std::wstring& cache);

  /*
   * Reads what the service knows of an earlier run, and begins with an empty cache but for that:
   * false when it cannot. What is left goes up in the background.
   */
  bool recover();
  /* The connection ended; so do the opens of processes that have no other. */
  void connection_ended(uint64_t connection);
  /* For one call of the cloud that somebody waits for. */
  CloudContext context();
  /* Ends the transfers, in time: the number of files whose change goes up after the next start. */
  size_t finish();

  const Options options;
  const std::unique_ptr<Cloud> cloud;
  const std::wstring folder; /* of the local files */
  Counters counters;
  Credentials credentials;
  CacheLimits limits;
  StateStore store;
  TransferEngine transfers;
  const CacheEnvironment environment;
  OpenFiles files;
  Clients clients;
  std::atomic<uint64_t> next_utxid;
  std::atomic<uint32_t> recovered = 0; /* changes that an earlier run left */
  std::atomic<bool> stopping = false;  /* no new connections; the others end when idle */
};

}  // namespace tarnd

#endif
