/*
 * The client's calls by many threads at once, over a service that answers from this process: files,
 * listings, shared handles, a second drive that comes and goes, and connections that break. What
 * is read is what was written; the rest is the sanitizer's to see.
 */
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <array>
#include <atomic>
#include <random>

#include "test_folder.h"
#include "tnw_fdtable.h"
#include "tnw_start.h"

namespace {

constexpr size_t CONNECTIONS = 4;
constexpr unsigned FILES = 3;
constexpr ox_u64 MAP_SIZE = 8; /* for 64 regions of 4 KiB */
constexpr size_t PIECE = 500;  /* each of 8 threads has its own in each region */

/* Answers each connection on a thread of its own, until break_all(). */
class Service {
 public:
  explicit Service(const TestFolder& folder)
      : folder_(folder), listener_(socket(AF_UNIX, SOCK_STREAM, 0)) {
    sockaddr_un address = {AF_UNIX, {}};
    path().copy(address.sun_path, sizeof address.sun_path - 1);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, CONNECTIONS);
    for (std::atomic<int>& fd : fds_) {
      threads_.emplace_back([&] { serve(fd = accept(listener_, nullptr, nullptr)); });
    }
  }
  ~Service() {
    break_all();
    for (std::thread& thread : threads_) {
      thread.join();
    }
    for (const int fd : fds_) {
      close(fd);
    }
    close(listener_);
  }
  std::string path() const { return folder_ / "s.sock"; }
  void break_all() {
    for (const int fd : fds_) {
      shutdown(fd, SHUT_RDWR);
    }
  }

 private:
  static bool take(int fd, void* to, size_t size) {
    return size == 0 || recvfrom(fd, to, size, MSG_WAITALL, nullptr, nullptr) == ssize_t(size);
  }
  void serve(int fd) {
    std::vector<char> request(TNV_MSG_FIXED + 1000);
    const auto& msg = *reinterpret_cast<const tnv_msg*>(request.data());
    char* text = request.data() + TNV_MSG_FIXED;
    while (take(fd, request.data(), TNV_MSG_FIXED) &&
           take(fd, text, msg.hdr.hdr_len - TNV_MSG_FIXED)) {
      const std::string answer = answer_to(msg, text);
      sendto(fd, answer.data(), answer.size(), MSG_NOSIGNAL, nullptr, 0);
    }
  }
  std::string answer_to(const tnv_msg& msg, const char* text) {
    tnv_resp resp = {};
    resp.rhdr.rhdr_id = msg.hdr.hdr_id;
    resp.rhdr.rhdr_utxid = ++utxid_;
    resp.rhdr.rhdr_opcode = msg.hdr.hdr_opcode;
    resp.rhdr.rhdr_len = sizeof resp.u;
    size_t bulk = 0;
    if (msg.hdr.hdr_opcode == TNV_OP_WIN_OPEN) {
      /* Past the sanitizer, which knows no way from here to the thread that gets the file. */
      const long file =
          syscall(SYS_openat, AT_FDCWD, (folder_ / text).c_str(), O_RDWR | O_CREAT, 0600);
      resp.u.wopen.wopen_resp_handle = static_cast<ox_u64>(file);
      resp.u.wopen.wopen_resp_region_shift = 12;
      resp.u.wopen.wopen_resp_rmap_size = MAP_SIZE;
      resp.u.wopen.wopen_resp_tnflags = TNV_FL_MAPPED;
      bulk = 2 * MAP_SIZE;
    } else if (msg.hdr.hdr_opcode == TNV_OP_WIN_DENUM) {
      resp.u.wdenum.wde_fi_len = 3;
      bulk = 3 * sizeof(tnw_fileinfo);
    } else if (msg.hdr.hdr_opcode == TNV_OP_CACHE_REGION) {
      resp.u.cache_region.cr_sz = msg.u.cache_region.cache_read_len;
      resp.u.cache_region.cr_clear = msg.u.cache_region.cache_read_off > 40 * 4096 ? 1 : 0;
    }
    return std::string(reinterpret_cast<const char*>(&resp), sizeof resp) + std::string(bulk, '\0');
  }

  const TestFolder& folder_;
  const int listener_;
  std::atomic<ox_u64> utxid_ = 0;
  std::array<std::atomic<int>, CONNECTIONS> fds_ = {};
  std::vector<std::thread> threads_;
};

/* Writes and reads; the resizes end behind all that. */
void use_file(void* file, unsigned thread, bool works) {
  std::minstd_rand random(thread);
  for (int i = 0; i < 150; i++) {
    const auto at = static_cast<ox_off>(random() % 48 * 4096 + thread * PIECE);
    std::string out(PIECE, static_cast<char>('a' + random() % 26));
    std::string in(PIECE, '\0');
    ox_s64 count = 0;
    const bool passed = tnw_write(file, out.data(), PIECE, at, &count, nullptr) == 0 &&
                        tnw_read(file, in.data(), PIECE, at, &count, nullptr) == 0;
    EXPECT_TRUE(passed ? in == out : !works);
    if (i % 8 == 0) {
      tnw_setfilesize(file, static_cast<ox_u32>(50 + random() % 20) * 4096, 0, nullptr);
    }
  }
}

void* open_file(void* drive, void** contexts, unsigned number) {
  return tnw_create(drive, &contexts[number], std::to_string(number).c_str(),
                    TNW_ACC_READ | TNW_ACC_WRITE, 7, TNW_DISP_OPEN_IF, 0, 77, "test", nullptr);
}

/* Opens, uses and closes files, whose contexts the threads share, and lists a folder. */
void use_drive(void* drive, void** contexts, unsigned thread, bool works) {
  for (unsigned i = 0; i < 20; i++) {
    void* file = open_file(drive, contexts, i % FILES);
    tnw_fileinfo info;
    void* listing = tnw_findfirst(drive, "", &info, "test", nullptr);
    while (listing != nullptr && tnw_findnext(listing, &info) == 0) {
    }
    tnw_findclose(listing);
    if (i % 10 == 0) {
      use_file(file, thread, works);
    }
    tnw_getfileinfo(drive, "", &info, "test");
    tnw_set_answer_limit(drive, 60000 + i);
    EXPECT_TRUE(tnw_close(file, nullptr) == 0 || !works);
  }
}

/*
 * All of it at once: threads with handles of their own, and threads that share one. The handles
 * that stay open keep the contexts: no open may use a slot while the last close of its file runs.
 */
void use_all(tnw_tninstance* tni, void* drive, bool works) {
  void* contexts[FILES] = {};
  void* kept[FILES] = {};
  for (unsigned i = 0; i < FILES; i++) {
    kept[i] = open_file(drive, contexts, i);
  }
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; i++) {
    threads.emplace_back([&, i] { use_drive(drive, contexts, i, works); });
    threads.emplace_back([&, i] { use_file(kept[0], 4 + i, works); });
  }
  for (int i = 0; i < 200; i++) {
    tnw_drive_handle other = {};
    tnw_add_handle(tni, &other);
    std::this_thread::yield();
    tnw_remove_handle(tni, &other);
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (void* file : kept) {
    tnw_close(file, nullptr);
  }
}

}  // namespace

TEST(NativeClient, TakesCallsOfManyThreads) {
  const TestFolder folder;
  Service service(folder);
  DllMain(nullptr, DLL_PROCESS_ATTACH, nullptr);
  ox_rwlock_excl(&tnw_glock); /* the start of a drive, whose steps demand it */
  tnw_tninstance* tni = tnw_alloc_tninstance();
  tnw_tninit init = {};
  init.tnw_min_threads = init.tnw_max_threads = CONNECTIONS;
  service.path().copy(tni->tni_sock, sizeof tni->tni_sock);
  ASSERT_EQ(ox_init_tpool(), 0);
  ASSERT_EQ(tnw_create_pool(tni, &init), 0);
  ASSERT_EQ(tnw_tp_init_vfshandle(tni, "/", "6f1f2f1e-4b7a-4d0b-9a5c-7a3c5d2e8b10"), 0);
  ASSERT_EQ(tnw_alloc_fdtable(tnw_connection(tni, 0), &tni->tni_files), 0);
  tnw_drive_handle drive = {};
  tnw_add_handle(tni, &drive);
  tnw_add_tninstance(&tnw_tninstances, tni);
  ox_rwunlock(&tnw_glock);

  use_all(tni, &drive, true);
  std::thread weather([&] {
    Sleep(20);
    service.break_all();
  });
  use_all(tni, &drive, false);
  weather.join();

  ox_rwlock_excl(&tnw_glock);
  tnw_remove_tninstance(&tnw_tninstances, tni);
  tnw_remove_handle(tni, &drive);
  tnw_tp_deinit_vfshandle(tni);
  ox_destroy_tpool(tni->tni_tpool, OX_TPOOL_FL_DRAIN);
  tnw_free_tninstance(tni);
  ox_rwunlock(&tnw_glock);
  DllMain(nullptr, DLL_PROCESS_DETACH, nullptr);
}
