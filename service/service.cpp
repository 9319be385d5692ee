#include "service.h"

#include <windows.h>

#include <functional>
#include <set>

#include "ox_logging.h"
#include "wide_text.h"

namespace tarnd {
namespace {

constexpr std::chrono::seconds CALL_LIMIT{60}; /* of one call that somebody waits for */

uint64_t free_space(const std::wstring& folder) {
  ULARGE_INTEGER bytes = {};
  return GetDiskFreeSpaceExW(folder.c_str(), &bytes, nullptr, nullptr) != 0 ? bytes.QuadPart
                                                                            : UINT64_MAX;
}

using FoundFile = std::function<void(const std::wstring& name, bool folder)>;

void for_each_in(const std::wstring& folder, const FoundFile& found_file) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW((folder + L"\\*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    return;
  }
  do {
    found_file(found.cFileName, (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0);
  } while (FindNextFileW(search, &found) != 0);
  FindClose(search);
}

std::wstring place_in(const std::wstring& folder, const std::wstring& name) {
  return std::wstring(folder).append(1, L'\\').append(name);
}

/*
 * The names of the local files. They lie in folders with names of two characters; older services
 * put them into the cache's own.
 */
std::vector<std::wstring> local_files(const std::wstring& cache) {
  std::vector<std::wstring> names;
  std::vector<std::wstring> folders;
  for_each_in(cache, [&](const std::wstring& name, bool folder) {
    const bool ours = !folder || (name.size() == 2 && name != L"..");
    if (ours) {
      (folder ? folders : names).push_back(name);
    }
  });
  for (const std::wstring& folder : folders) {
    const std::wstring lead = folder + L'\\';
    for_each_in(place_in(cache, folder), [&](const std::wstring& name, bool is_folder) {
      if (!is_folder) {
        names.push_back(lead + name);
      }
    });
  }
  return names;
}

/* A database that cannot be read may have accounted for any of the local files: all are kept. */
bool set_aside(const std::wstring& folder, const std::wstring& database) {
  const std::wstring kept = folder + L"\\kept\\";
  const std::wstring mark = std::to_wstring(GetTickCount64()) + L"-";
  const std::wstring inside = folder + L'\\';
  bool moved = true;
  for (const std::wstring& name : local_files(folder)) {
    const std::wstring last = name.substr(name.rfind(L'\\') + 1);
    moved = MoveFileExW((inside + name).c_str(), (kept + last).c_str(), 0) != 0 && moved;
  }
  moved = MoveFileExW(database.c_str(), (kept + mark + L"state.db").c_str(), 0) != 0 && moved;
  MoveFileExW((database + L"-wal").c_str(), (kept + mark + L"state.db-wal").c_str(), 0);
  OX_LOG(OX_ERROR_LEVEL, 0, "The service's database is damaged; it and all local files %s kept",
         moved ? "are" : "could not be");
  return moved;
}

/* Clean files of an earlier run. */
void delete_others(const std::wstring& folder, const std::vector<FileRecord>& records) {
  std::set<std::string> wanted;
  for (const FileRecord& record : records) {
    wanted.insert({record.local, record.sealed.file});
  }
  for (const std::wstring& name : local_files(folder)) {
    std::string text;
    utf8_from_wide(name, &text);
    if (!wanted.contains(text)) {
      DeleteFileW(place_in(folder, name).c_str());
    }
  }
}

}  // namespace

/* ------------------------------------------------------------------ credentials */

Credentials::Credentials(const Options& options)
    : now_(std::make_shared<CloudCredentials>(
          CloudCredentials{options.access_token, options.proxy_server, options.proxy_user,
                           options.proxy_password, std::make_shared<std::atomic<bool>>(false)})) {}

bool Credentials::set_token(const std::string& token) {
  const std::lock_guard guard(lock_);
  auto next = std::make_shared<CloudCredentials>(*now_);
  next->token = token;
  next->refused = std::make_shared<std::atomic<bool>>(false);
  now_ = std::move(next);
  return token != EXPIRED_TOKEN;
}

bool Credentials::authorised() { return now()->token != EXPIRED_TOKEN; }

bool Credentials::refused() { return *now()->refused; }

void Credentials::set_proxy(const std::string& server, const std::string& user,
                            const std::string& password) {
  const std::lock_guard guard(lock_);
  now_ = std::make_shared<CloudCredentials>(
      CloudCredentials{now_->token, server, user, password, now_->refused});
}

std::shared_ptr<const CloudCredentials> Credentials::now() {
  const std::lock_guard guard(lock_);
  return now_;
}

/* ------------------------------------------------------------------ the service */

Service::Service(const Options& opts, std::unique_ptr<Cloud> the_cloud, const std::wstring& cache)
    : options(opts),
      cloud(std::move(the_cloud)),
      folder(cache + L"\\files"),
      credentials(opts),
      limits(opts.cache_size, opts.keep_free, [cache] { return free_space(cache); }),
      transfers(
          *cloud, [this] { return credentials.now(); }, static_cast<unsigned>(opts.transfers)),
      environment{*cloud,
                  store,
                  transfers,
                  counters,
                  [this] { return context(); },
                  folder,
                  opts.region_shift,
                  std::chrono::milliseconds(opts.write_back_wait_ms),
                  [this](uint64_t bytes) { return limits.may_fetch(bytes); },
                  [this](uint64_t bytes) { limits.grow(bytes); }},
      files(environment, limits, opts.user, static_cast<unsigned>(opts.transfers)),
      next_utxid(opts.first_utxid) {}

CloudContext Service::context() {
  CloudContext context;
  context.deadline = std::chrono::steady_clock::now() + CALL_LIMIT;
  context.credentials = credentials.now();
  return context;
}

bool Service::recover() {
  const std::wstring database = folder + L"\\..\\state.db";
  std::string path;
  std::vector<FileRecord> records;
  utf8_from_wide(database, &path);
  CreateDirectoryW((folder + L"\\kept").c_str(), nullptr);
  int err = store.open(path, &records);
  if (err == OX_EINVAL && set_aside(folder, database)) {
    err = store.open(path, &records);
  }
  if (err != 0) {
    OX_LOG(OX_ERROR_LEVEL, err, "Cannot open the service's database %s", path.c_str());
    return false;
  }
  delete_others(folder, records);
  recovered = static_cast<uint32_t>(records.size());
  files.recover(std::move(records));
  return true;
}

void Service::connection_ended(uint64_t connection) {
  for (const uint32_t pid : clients.leave(connection)) {
    const std::vector<std::shared_ptr<OpenFile>> left = files.of_client(pid);
    /* First what others may be refused for, since the rest may take its time. */
    for (const std::shared_ptr<OpenFile>& open : left) {
      files.clean_up(*open);
    }
    for (const std::shared_ptr<OpenFile>& open : left) {
      OX_LOG(OX_WARN_LEVEL, 0, "Process %u left %s open", pid, open->name.c_str());
      if (open->file != nullptr) {
        open->file->detach(&open->part, stopping ? Closing::SERVICE_ENDS : Closing::CLIENT_DIED);
      }
      files.remove(*open);
    }
  }
}

size_t Service::finish() {
  files.uploads().finish(std::chrono::milliseconds(options.shutdown_wait_ms));
  transfers.stop();
  return files.unsaved();
}

}  // namespace tarnd
