#include "service.h"

#include "ox_logging.h"
#include "recovery.h"

namespace tarnd {

Credentials::Credentials(const Options& options)
    : token_(options.access_token),
      proxy_{options.proxy_server, options.proxy_user, options.proxy_password} {}

bool Credentials::SetToken(const std::string& token) {
  const std::lock_guard guard(lock_);
  token_ = token;
  return token_ != kExpiredToken;
}

bool Credentials::Authorised() {
  const std::lock_guard guard(lock_);
  return token_ != kExpiredToken;
}

void Credentials::SetProxy(Proxy proxy) {
  const std::lock_guard guard(lock_);
  proxy_ = std::move(proxy);
}

Service::Service(const Options& opts, std::unique_ptr<Cloud> the_cloud, std::wstring cache_files)
    : options(opts),
      cloud(std::move(the_cloud)),
      environment{*cloud, counters, std::move(cache_files), opts.region_shift},
      files(environment),
      credentials(opts),
      next_utxid(opts.first_utxid) {}

void Service::Recover() { recovered = RecoverCache(environment); }

void Service::ConnectionEnded(uint64_t connection) {
  for (const uint32_t pid : clients.Leave(connection)) {
    const std::vector<std::shared_ptr<OpenFile>> left = files.OfClient(pid);
    /* First what others may be refused for, since writing back may take its time. */
    for (const std::shared_ptr<OpenFile>& open : left) {
      files.CleanUp(*open);
    }
    for (const std::shared_ptr<OpenFile>& open : left) {
      OX_LOG(OX_WARN_LEVEL, 0, "Process %u left %s open", pid, open->name.c_str());
      if (open->file != nullptr) {
        open->file->Detach(&open->part, Closing::kClientDied);
      }
      files.Remove(*open);
    }
  }
}

size_t Service::Finish() {
  const size_t unsaved = files.SaveAll();
  files.DiscardSaved();
  return unsaved;
}

}  // namespace tarnd
