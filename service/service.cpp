#include "service.h"

#include "files/recovery.h"
#include "ox_logging.h"

namespace tarnd {

Credentials::Credentials(const Options& options)
    : token_(options.access_token),
      proxy_{options.proxy_server, options.proxy_user, options.proxy_password} {}

bool Credentials::set_token(const std::string& token) {
  const std::lock_guard guard(lock_);
  token_ = token;
  return token_ != EXPIRED_TOKEN;
}

bool Credentials::authorised() {
  const std::lock_guard guard(lock_);
  return token_ != EXPIRED_TOKEN;
}

void Credentials::set_proxy(Proxy proxy) {
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

void Service::recover() { recovered = recover_cache(environment); }

void Service::connection_ended(uint64_t connection) {
  for (const uint32_t pid : clients.leave(connection)) {
    const std::vector<std::shared_ptr<OpenFile>> left = files.of_client(pid);
    /* First what others may be refused for, since writing back may take its time. */
    for (const std::shared_ptr<OpenFile>& open : left) {
      files.clean_up(*open);
    }
    for (const std::shared_ptr<OpenFile>& open : left) {
      OX_LOG(OX_WARN_LEVEL, 0, "Process %u left %s open", pid, open->name.c_str());
      if (open->file != nullptr) {
        open->file->detach(&open->part, Closing::CLIENT_DIED);
      }
      files.remove(*open);
    }
  }
}

size_t Service::finish() {
  const size_t unsaved = files.save_all();
  files.discard_saved();
  return unsaved;
}

}  // namespace tarnd
