/* The request exchange, the connect handshake and the jobs, against a scripted peer. */
#include <winsock2.h>
/* after winsock2.h */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cerrno>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_tpool.h"
#include "ox_util.h"
#include "process_state.h"
#include "scripted_peer.h"
#include "test_folder.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_dll/tnw_exchange.h"
#include "tnw_fd.h"
#include "vfstnw_bmap.h"
#include "vfstnw_client.h"

using testing::Each;

static size_t failing_size; /* allocations of this size fail; 0: none */
static bool events_fail = false;
static int events_made = 0;

static HANDLE WINAPI create_or_fail(SECURITY_ATTRIBUTES* security, BOOL manual, BOOL set,
                                    const char* name) {
  /* Looked up each time: a static would be guarded by a lock, which makes an event. */
  const auto system_create = reinterpret_cast<decltype(&CreateEventA)>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "CreateEventA")));
  if (events_fail) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  events_made++;
  return system_create(security, manual, set, name);
}

/* The linker takes these in the place of the library's and the import library's. */
extern "C" {
decltype(&CreateEventA) __imp_CreateEventA = create_or_fail;
void* __real_ox_zalloc(size_t size);
void* __wrap_ox_zalloc(size_t size) {
  return size == failing_size && size != 0 ? nullptr : __real_ox_zalloc(size);
}
}

namespace {

constexpr char DEVICE_ID[] = "0f0e0d0c-0b0a-0908-0706-050403020100";

/* A connected record, a work item with its event, and what most tests ask of them. */
class Exchange : public testing::Test {
 protected:
  Exchange() {
    ev.ev_msg = &msg;
    ev.ev_resp = &resp;
    ev.ev_data = &fde;
    ev.ev_hdl = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    for (ox_rwlock_t* lock : {&fde.fdt_rmap_lock, &fde.fdt_dmap_lock}) {
      ox_init_rwlock(lock);
    }
    EXPECT_EQ(connect("share"), 0);
  }
  ~Exchange() override {
    tnv_conn_break(&vh);
    ox_free_safe(vh.vfs_share_path);
    vfstnw_remove_bmaps(&fde);
    CloseHandle(ev.ev_hdl);
  }

  int connect(const char* share) {
    return tnw_vfs_connect(&vh, "files.example.com", "ann", "C:\\cache", peer.path(), share,
                           DEVICE_ID, "00112233-4455-6677-8899-aabbccddeeff");
  }
  /* The same once more, with a peer that answers to it. */
  void connect_again() {
    peer.on_request(ScriptedPeer::answer_success);
    ASSERT_EQ(connect("again"), 0);
    ended++;
  }
  int exchange(vfs_op opcode = TNV_OP_WIN_STAT) {
    msg = {};
    msg.hdr.hdr_opcode = opcode;
    msg.hdr.hdr_len = sizeof(msg);
    memset(&resp, 0xee, sizeof(resp));
    return tnw_sync_send_msg(&vh, &msg, &resp);
  }
  /* Runs a job as a worker would; it must set the event. Gives the error that it leaves. */
  ox_u32 run(ox_job_func_t job, vfs_op opcode) {
    msg = {};
    msg.hdr.hdr_opcode = opcode;
    msg.hdr.hdr_len = sizeof(msg);
    ev.ev_granted = false;
    EXPECT_EQ(job(&ev, nullptr, &vh), nullptr);
    EXPECT_EQ(WaitForSingleObject(ev.ev_hdl, 0), WAIT_OBJECT_0);
    return resp.rhdr.rhdr_errno;
  }
  ox_u32 open() { return run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN); }
  ox_u32 list() { return run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM); }

  /* The connection is closed, and the next exchange fails without a request: nothing half. */
  void expect_broken() {
    EXPECT_TRUE(peer.wait_for_ended(ended + 1));
    const size_t before = peer.requests().size();
    const LogCapture next;
    EXPECT_EQ(exchange(), OX_EOWNERDEAD);
    EXPECT_EQ(errno, OX_EOWNERDEAD);
    EXPECT_EQ(next.count("\"vfs_socket_fd\":" + std::to_string(vh.vfs_fd) + ","), 1u);
    EXPECT_EQ(next.count("opcode 4, len 504. Requesting client to reinitialize."), 1u);
    EXPECT_THAT(bytes_of(resp), Each(0));
    EXPECT_EQ(peer.requests().size(), before);
  }

  ScriptedPeer peer;
  size_t ended = 0; /* connections that were replaced */
  vfs_handle vh = {};
  tnv_msg msg = {};
  tnv_resp resp = {};
  tnvfd fde = {};
  tnw_evwi ev = {};
};

/* ------------------------------------------------------------------- the exchange */

/* What CONNECT sends: golden_test and bad_input_test of the whole client. */
TEST_F(Exchange, ConnectKeepsTheAnswerAndClosesAnEarlierSocket) {
  tnv_conn_resp answer = {};
  answer.conresp_shandle = 0x1122334455667788;
  answer.conresp_stid = 99;
  answer.connresp_sfid.id[15] = 0xab;
  peer.on_request([=](PeerConnection& conn) { conn.answer(0, answer); });
  ASSERT_EQ(connect("x"), 0);
  EXPECT_TRUE(peer.wait_for_ended(1)) << "the first socket is closed";
  EXPECT_EQ(vh.vfs_peer_handle, reinterpret_cast<void*>(answer.conresp_shandle));
  EXPECT_EQ(vh.vfs_peer_tid, 99u);
  EXPECT_EQ(vh.vfs_share_fid.id[15], 0xab);
  EXPECT_STREQ(vh.vfs_share_path, "x");
  EXPECT_STREQ(vh.vfs_domain, "files.example.com");
  const PeerRequest req = peer.requests().at(1);
  EXPECT_EQ(req.bytes.size(), 506u);
  EXPECT_EQ(req.msg().u.wconn.wconmsg_share_path_len, 2);
  EXPECT_STREQ(req.msg().u.wconn.wconmsg_rhost, vh.vfs_rhost);
}

TEST_F(Exchange, AnswersComeInOrderUnderFreshIds) {
  peer.on_request([](PeerConnection& conn) {
    tnv_resphdr hdr = conn.header(conn.opcode(), 3);
    hdr.rhdr_utxid = 1000 + conn.opcode();
    hdr.rhdr_fd2xfer = 5;
    conn.send(bytes_of(hdr) + Bytes(3, 0xff));
  });
  for (const vfs_op op : {TNV_OP_WIN_STAT, TNV_OP_WIN_CLOSE}) {
    ASSERT_EQ(exchange(op), 0);
    EXPECT_EQ(resp.rhdr.rhdr_errno, static_cast<ox_u32>(op));
    EXPECT_EQ(resp.rhdr.rhdr_fd2xfer, -1);
    EXPECT_EQ(vh.vfs_utxid, 1000u + op);
    EXPECT_EQ(Bytes(resp.u.bytes, resp.u.bytes + 5), (Bytes{0xff, 0xff, 0xff, 0, 0}));
  }
  const auto reqs = peer.requests();
  EXPECT_NE(bytes_of(reqs[1].msg().hdr.hdr_id), bytes_of(reqs[2].msg().hdr.hdr_id));
  EXPECT_EQ(bytes_of(reqs[2].msg().hdr.hdr_id), bytes_of(msg.hdr.hdr_id))
      << "the id that goes out is the one the caller reads";

  peer.on_request([](PeerConnection& conn) { conn.answer(0, Bytes(1168, 0xff)); });
  ASSERT_EQ(exchange(), 0);
  EXPECT_THAT(resp.u.bytes, Each(0xff)) << "the longest payload";
}

/* A header that promises `len` bytes, with marks that must not reach the caller. */
Bytes marked_header(const PeerConnection& conn, ox_u32 len) {
  tnv_resphdr hdr = conn.header(2, len);
  hdr.rhdr_tn_unauthd = 1;
  hdr.rhdr_utxid = 77;
  return bytes_of(hdr);
}

TEST_F(Exchange, WhatIsNoWholeAnswerGives133NowAndForEver) {
  const char* const header = "Could not receive response header for message id ";
  const char* const payload =
      "\"Could not receive response payload. Requesting client to reinitialize.\"";
  struct {
    const char* name;
    std::function<Bytes(const PeerConnection&)> answer;
    const char* line;
  } const cases[] = {
      {"nothing", [](auto&) { return Bytes(); }, header},
      {"half a header", [](auto&) { return Bytes(24, 0xff); }, header},
      {"half a payload", [](auto& conn) { return marked_header(conn, 100) + Bytes(99); }, payload},
      {"too long", [](auto& conn) { return marked_header(conn, 1169) + Bytes(1169); }, payload},
      {"garbage", [](auto&) { return Bytes(4000, 0xff); }, payload},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    connect_again();
    peer.on_request([&](PeerConnection& conn) {
      conn.send(c.answer(conn));
      conn.close();
    });
    const LogCapture log;
    EXPECT_EQ(exchange(), OX_EOWNERDEAD);
    EXPECT_EQ(errno, OX_EOWNERDEAD);
    EXPECT_EQ(log.count(c.line), 1u);
    EXPECT_THAT(bytes_of(resp), Each(0)) << "never half an answer";
    EXPECT_EQ(vh.vfs_utxid, 0u);
    expect_broken();
  }
  EXPECT_EQ(open(), 133u);
  EXPECT_EQ(list(), 133u);
}

/* ------------------------------------------------------------------- OPEN and DENUM */

Bytes open_answer(ox_u64 map_size, int shift = 16, ox_u32 isdir = 0) {
  tnv_wopen_resp open = {};
  open.wopen_resp_region_shift = shift;
  open.wopen_resp_rmap_size = map_size;
  open.wopen_resp_dmap_size = 3; /* recorded, and not used */
  open.wopen_resp_fso.fso_isdir = isdir;
  return bytes_of(open);
}

Bytes listing_of(ox_u64 count) {
  tnv_wdenum_resp denum = {};
  denum.wde_fi_len = count;
  return bytes_of(denum);
}

/* Answers to OPEN or DENUM, with maps or listings that can be taken and that cannot. */
TEST_F(Exchange, MapsAndListings) {
  const char* const maps = "\"Failed to allocate memory to rmap/dmap.\"";
  const char* const listing = "\"Failed to allocate memory to cffl.\"";
  constexpr size_t three = 3 * sizeof(tnw_fileinfo);
  const struct {
    const char* name;
    ox_u32 service_err;
    Bytes answer;   /* the larger one is that of OPEN */
    size_t follows; /* bytes that the peer sends behind it */
    size_t no_memory;
    ox_u32 err;
    bool stands; /* the connection goes on */
    const char* line;
  } cases[] = {
      {"maps", 183, open_answer(8), 16, 0, 183, true, nullptr},
      {"refused open", 2, open_answer(8), 0, 0, 2, true, nullptr},
      {"refused listing", 2, listing_of(5), 0, 0, 2, true, nullptr},
      {"no maps", 0, open_answer(0, 63), 0, 0, 0, true, nullptr}, /* and so no use for a shift */
      {"half a map", 0, open_answer(8), 15, 0, 133, false, "Recv failed on sockfd"},
      {"no such size", 0, open_answer(VFSTNW_MAX_MAP_SIZE + 1), 15, 0, 8, false, maps},
      {"a size that wraps", 0, open_answer(ox_u64{1} << 63), 15, 0, 8, false, maps},
      {"shift 63", 0, open_answer(8, 63), 15, 0, 133, false, "region shift 63"},
      {"shift -1", 0, open_answer(8, -1), 15, 0, 133, false, "region shift -1"},
      {"folder", 0, open_answer(8, -2, 1), 15, 0, 133, false, "region shift -2"},
      {"no memory", 0, open_answer(20000), 40000, 40000, 8, true, maps},
      {"no memory for half", 0, open_answer(20000), 39999, 40000, 133, false, maps},
      {"half a listing", 0, listing_of(3), three - 1, 0, 133, false, "Recv failed on sockfd"},
      {"no such count", 0, listing_of(TNW_MAX_LISTING + 1), three, 0, 8, false, listing},
      {"a count that wraps", 0, listing_of((ox_u64{1} << 61) + 3), three, 0, 8, false, listing},
      {"no memory to list", 0, listing_of(3), three, three, 8, true, listing},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    connect_again();
    const bool opens = c.answer.size() == sizeof(tnv_wopen_resp);
    const TestFolder folder;
    write_file(folder.path() / "f", "");
    const HANDLE file =
        CreateFileA((folder / "f").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    Bytes answer = c.answer;
    if (opens) {
      memcpy(answer.data() + offsetof(tnv_wopen_resp, wopen_resp_handle), &file, sizeof(file));
    }
    peer.on_request([&](PeerConnection& conn) {
      if (conn.opcode() == TNV_OP_WIN_STAT) {
        return conn.answer();
      }
      conn.answer(c.service_err, answer);
      conn.send(Bytes(c.follows, 0xff));
      if (!c.stands) {
        conn.close();
      }
    });
    const LogCapture log;
    failing_size = c.no_memory;
    EXPECT_EQ(opens ? open() : list(), c.err);
    failing_size = 0;
    EXPECT_EQ(c.line == nullptr ? log.lines().size() : log.count(c.line),
              c.line == nullptr ? 0 : 1);
    const bool closes = opens && c.service_err == 0 && c.err != 0;
    const bool maps_taken = c.err == TNV_OPEN_EXISTED;
    /* Not asked of the handle: another thread may have got its number by now. */
    const HANDLE again =
        CreateFileA((folder / "f").c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    EXPECT_EQ(again == INVALID_HANDLE_VALUE, !closes || resp.u.wopen.wopen_resp_fso.fso_isdir != 0);
    if (again != INVALID_HANDLE_VALUE) {
      CloseHandle(again);
    }
    EXPECT_EQ(resp.u.wopen.wopen_resp_handle == 0, closes || !opens) << "nobody closes it again";
    EXPECT_EQ(ev.ev_granted, c.no_memory != 0 && c.stands);
    EXPECT_EQ(fde.fdt_rmap != nullptr, maps_taken);
    EXPECT_EQ(fde.fdt_dmap, maps_taken ? fde.fdt_rmap + 8 : nullptr);
    EXPECT_EQ(fde.fdt_dmap_size, maps_taken || c.err == 0 ? 3u : 0u)
        << "recorded without maps, too";
    EXPECT_EQ(fde.fdt_rshift, maps_taken ? 16 : 0);
    EXPECT_EQ(fde.fdt_dir.dir_fi, nullptr);
    vfstnw_remove_bmaps(&fde);
    if (c.stands) {
      EXPECT_EQ(exchange(), 0) << "the next answer is found";
    } else {
      expect_broken();
    }
    CloseHandle(file);
  }
}

/* ------------------------------------------------------------------- regions and truncation */

TEST_F(Exchange, RegionJobsReportTheAnswerAndTheDeadConnection) {
  ev.ev_resp = &resp; /* these jobs make their own messages */
  fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2));
  fde.fdt_dmap = fde.fdt_rmap + 1;
  fde.fdt_rmap_size = 1;
  tnw_ioreq ioreq = {-5, &fde, 4, 3, false, 0, false};
  tnw_truncreq truncreq = {-5, &fde, 100};
  const struct {
    ox_job_func_t job;
    void* data;
    ox_s32* err;
  } jobs[] = {{tnw_sync_send_cache_region_msg, &ioreq, &ioreq.io_err},
              {tnw_sync_send_dirty_region_msg, &ioreq, &ioreq.io_err},
              {tnw_sync_send_ftruncate_msg, &truncreq, &truncreq.t_err}};
  for (const int err : {0, int{OX_EIO}, int{OX_EOWNERDEAD}}) {
    peer.on_request([=](PeerConnection& conn) { conn.answer(static_cast<ox_u32>(err)); });
    if (err == OX_EOWNERDEAD) {
      tnv_conn_break(&vh);
    }
    const LogCapture log;
    for (const auto& j : jobs) {
      ioreq.io_off = 4 + err; /* not dirty yet */
      *j.err = -5;
      ev.ev_data = j.data;
      run(j.job, TNV_OP_MAX);
      EXPECT_EQ(*j.err, err);
    }
    const std::string off = std::to_string(4 + err);
    const size_t failures = err != 0;
    EXPECT_EQ(log.count("\"Failed to cache regions off:" + off + ", len:3, trunc: 0\""), failures);
    EXPECT_EQ(log.count("\"Failed to dirty off:len " + off + ":3\""), failures);
    EXPECT_EQ(log.count("\"Failed to truncate to new size: 100\""), failures);
  }
}

/* ------------------------------------------------------------------- through a pool */

TEST(Queueing, AnExchangeThatCannotBeginIsNotWaitedFor) {
  tnw_tninstance tni = {};
  tni.tni_tpool = ox_tpool_create_external("calls", nullptr, nullptr, 0, 0, 0, 1);
  const auto exchange = [&] {
    tnv_msg msg = {};
    msg.hdr.hdr_len = TNV_MSG_FIXED;
    tnv_resp resp = {};
    tnw_exchange(&tni, tnw_async_send_msg, &msg, &resp, nullptr);
    return static_cast<int>(resp.rhdr.rhdr_errno);
  };
  events_fail = true;
  EXPECT_EQ(exchange(), OX_ENOMEM);
  events_fail = false;
  EXPECT_EQ(tni.tni_tpool->tp_qlen, 0u);
  tni.tni_tpool->tp_flags |= OX_TPOOL_FL_DRAIN; /* refuses every thread but its own workers */
  EXPECT_EQ(exchange(), OX_EINVAL);
  const size_t handle_before = fresh_handle();
  const int made_before = events_made;
  for (int i = 0; i < 10; i++) {
    EXPECT_EQ(exchange(), OX_EINVAL);
  }
  EXPECT_EQ(events_made, made_before + 10);
  EXPECT_EQ(fresh_handle(), handle_before) << "each event is closed";
  ox_destroy_tpool(tni.tni_tpool, 0);
}

/* ------------------------------------------------------------------- version and shut-down */

TEST_F(Exchange, VersionAndShutdown) {
  peer.on_request([](PeerConnection& conn) {
    tnv_get_version_resp version;
    memset(&version, 0x41, sizeof(version));
    conn.answer(0, version);
  });
  ox_get_version_t version = {};
  EXPECT_EQ(vfstnw_get_version(&vh, &version), 0);
  EXPECT_THAT(bytes_of(version), Each(0x41));
  tnv_msg bare = {};
  bare.hdr.hdr_opcode = TNV_OP_GET_VERSION;
  bare.hdr.hdr_len = 504;
  bare.hdr.hdr_id = peer.requests().back().msg().hdr.hdr_id;
  EXPECT_EQ(peer.requests().back().bytes, bytes_of(bare));
  tnv_conn_break(&vh);
  EXPECT_EQ(vfstnw_get_version(&vh, &version), OX_EOWNERDEAD);
  EXPECT_EQ(vfstnw_shutdown(&vh), -1);
  EXPECT_EQ(errno, OX_EIO);
}

}  // namespace
