/* The request exchange, the connect handshake and the jobs, against a scripted peer. */
#include <winsock2.h>
/* after winsock2.h */
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cerrno>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_util.h"
#include "process_state.h"
#include "scripted_peer.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_fd.h"
#include "vfstnw_bmap.h"
#include "vfstnw_client.h"

using testing::Each;

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
    ox_free_safe(fde.fdt_rmap);
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
  void prepare(vfs_op opcode) {
    msg = {};
    msg.hdr.hdr_opcode = opcode;
    msg.hdr.hdr_len = sizeof(msg);
    memset(&resp, 0xee, sizeof(resp));
  }
  int exchange(vfs_op opcode = TNV_OP_WIN_STAT) {
    prepare(opcode);
    return tnw_sync_send_msg(&vh, &msg, &resp);
  }
  /* Runs a job as a worker would; it must set the event. Gives the error that it leaves. */
  ox_u32 run(void* (*job)(void*, void*, void*), vfs_op opcode) {
    prepare(opcode);
    EXPECT_EQ(job(&ev, nullptr, &vh), nullptr);
    EXPECT_EQ(WaitForSingleObject(ev.ev_hdl, 0), WAIT_OBJECT_0);
    return resp.rhdr.rhdr_errno;
  }
  ox_u32 open() { return run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN); }
  ox_u32 list() { return run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM); }

  /* The connection is closed, and the next exchange fails without a request: nothing half. */
  void expect_broken() {
    EXPECT_TRUE(vh.vfs_broken);
    EXPECT_TRUE(peer.wait_for_ended(ended + 1));
    const size_t before = peer.requests().size();
    LogCapture next;
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

TEST_F(Exchange, ConnectSendsTheBindingAndKeepsTheAnswer) {
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
  EXPECT_STREQ(vh.vfs_user, "ann");
  EXPECT_STREQ(vh.vfs_domain, "files.example.com");

  const PeerRequest req = peer.requests().at(1);
  const tnv_wconn_msg& conn = req.msg().u.wconn;
  EXPECT_EQ(req.bytes.size(), 506u);
  EXPECT_EQ(conn.wconmsg_share_path_len, 2);
  EXPECT_STREQ(conn.wconmsg_cache_dir, "C:\\cache");
  EXPECT_STREQ(conn.wconmsg_rhost, vh.vfs_rhost);
  EXPECT_NE(conn.wconmsg_rhost[0], '\0');
  EXPECT_EQ(req.msg().hdr.hdr_drvid.id[0], 0x33) << "the binary form";
}

TEST_F(Exchange, AnswersComeInOrderUnderFreshIds) {
  peer.on_request([](PeerConnection& conn) {
    tnv_resphdr hdr = conn.header(conn.opcode(), 3);
    hdr.rhdr_utxid = 1000 + conn.opcode();
    hdr.rhdr_fd2xfer = 5;
    conn.send(bytes_of(hdr) + Bytes(3, 0xff));
  });
  for (const vfs_op op : {TNV_OP_WIN_STAT, TNV_OP_WIN_CLOSE}) {
    prepare(op);
    ASSERT_EQ(tnw_send_msg(&vh, &msg), 0);
    ASSERT_EQ(tnw_recv_response(&vh, &msg, &resp), 0);
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
    LogCapture log;
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

/* A local file whose handle an answer carries into this process. */
HANDLE carried_file() {
  char folder[MAX_PATH + 1];
  char path[MAX_PATH + 1];
  GetTempPathA(sizeof(folder), folder);
  GetTempFileNameA(folder, "opn", 0, path);
  return CreateFileA(path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_DELETE_ON_CLOSE,
                     nullptr);
}

tnv_wopen_resp open_answer(ox_u64 map_size, int shift = 16) {
  tnv_wopen_resp open = {};
  open.wopen_resp_region_shift = shift;
  open.wopen_resp_rmap_size = map_size;
  open.wopen_resp_dmap_size = 3; /* recorded, and without say */
  return open;
}

tnv_wdenum_resp listing_of(ox_u64 count) {
  tnv_wdenum_resp denum = {};
  denum.wde_fi_len = count;
  return denum;
}

TEST_F(Exchange, OpenReceivesBothMaps) {
  for (const ox_u32 success : {0u, 183u}) {
    peer.on_request([=](PeerConnection& conn) {
      tnv_resphdr hdr = conn.header(success, sizeof(tnv_wopen_resp));
      hdr.rhdr_tn_unauthd = static_cast<ox_u8>(success != 0); /* its maps arrive all the same */
      conn.send(bytes_of(hdr) + bytes_of(open_answer(8)) + Bytes(8, 0x0f));
      conn.send(Bytes(8, 0xf0));
    });
    EXPECT_EQ(open(), success);
    ASSERT_NE(fde.fdt_rmap, nullptr);
    EXPECT_EQ(Bytes(fde.fdt_rmap, fde.fdt_rmap + 16), Bytes(8, 0x0f) + Bytes(8, 0xf0));
    EXPECT_EQ(fde.fdt_dmap, fde.fdt_rmap + 8);
    EXPECT_EQ(fde.fdt_rmap_size, 8u);
    EXPECT_EQ(fde.fdt_dmap_size, 3u);
    EXPECT_EQ(fde.fdt_rshift, 16);
    ox_free_safe(fde.fdt_rmap);
    fde.fdt_rmap = nullptr;
  }
}

TEST_F(Exchange, NothingFollowsARefusal) {
  peer.on_request([](PeerConnection& conn) {
    if (conn.opcode() == TNV_OP_WIN_OPEN) {
      return conn.answer(2, open_answer(8));
    }
    conn.answer(2, listing_of(5));
  });
  EXPECT_EQ(open(), 2u);
  EXPECT_EQ(list(), 2u);
  EXPECT_EQ(fde.fdt_rmap, nullptr);
  EXPECT_EQ(fde.fdt_dir.dir_fi, nullptr);
  EXPECT_EQ(exchange(), 0) << "the connection stands";
}

TEST_F(Exchange, AnOpenThatFailsHereClosesTheCarriedFileAndBreaksTheConnection) {
  struct {
    tnv_wopen_resp answer;
    ox_u32 err;
    const char* line;
  } cases[] = {
      {open_answer(8), 133, "Recv failed on sockfd"}, /* one byte is missing */
      {open_answer(VFSTNW_MAX_MAP_SIZE + 1), 8, "\"Failed to allocate memory to rmap/dmap.\""},
      {open_answer(ox_u64{1} << 63), 8, "\"Failed to allocate memory to rmap/dmap.\""},
      {open_answer(8, 63), 133, "region shift 63"},
      {open_answer(8, -1), 133, "region shift -1"},
      {open_answer(8, -2), 133, "region shift -2"},
  };
  cases[5].answer.wopen_resp_fso.fso_isdir = 1; /* what stands there is not a file of ours */
  for (auto& c : cases) {
    SCOPED_TRACE(c.line);
    connect_again();
    const HANDLE file = carried_file();
    c.answer.wopen_resp_handle = reinterpret_cast<ox_u64>(file);
    peer.on_request([&](PeerConnection& conn) {
      conn.answer(0, c.answer);
      conn.send(Bytes(15, 0xff));
      conn.close();
    });
    LogCapture log;
    EXPECT_EQ(open(), c.err);
    EXPECT_EQ(log.count(c.line), 1u);
    EXPECT_EQ(is_open_handle(file), c.answer.wopen_resp_fso.fso_isdir != 0);
    EXPECT_EQ(resp.u.wopen.wopen_resp_handle, 0u) << "or it might be closed again";
    EXPECT_EQ(fde.fdt_rmap, nullptr);
    EXPECT_EQ(fde.fdt_dmap, nullptr);
    expect_broken();
    if (is_open_handle(file)) {
      CloseHandle(file);
    }
  }
}

TEST_F(Exchange, ListingsThatFailAreFreedAndBreakTheConnection) {
  /* The size of so many records is, in 64 bits, that of three. */
  for (const auto& [count, err] : {std::pair{(ox_u64{1} << 61) + 3, 8u}, {3, 133u}}) {
    connect_again();
    peer.on_request([&](PeerConnection& conn) {
      conn.answer(0, listing_of(count));
      conn.send(Bytes(3 * sizeof(tnw_fileinfo) - 1));
      conn.close();
    });
    EXPECT_EQ(list(), err);
    EXPECT_EQ(fde.fdt_dir.dir_fi, nullptr);
    expect_broken();
  }
}

/* ------------------------------------------------------------------- regions and truncation */

class Regions : public Exchange {
 protected:
  Regions() {
    ev.ev_msg = nullptr; /* these jobs make their own */
    ev.ev_resp = nullptr;
    ioreq.io_fde = truncreq.t_fde = &fde;
    ioreq.io_off = 70000;
    ioreq.io_len = 5;
    truncreq.t_nfsz = 100;
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2));
    fde.fdt_dmap = fde.fdt_rmap + 1;
    fde.fdt_rmap_size = 1;
    fde.fdt_rshift = 16;
  }

  /* The three jobs, and what each leaves as its error. */
  int cache() { return run_with(tnw_sync_send_cache_region_msg, &ioreq, &ioreq.io_err); }
  int dirty() { return run_with(tnw_sync_send_dirty_region_msg, &ioreq, &ioreq.io_err); }
  int truncate() { return run_with(tnw_sync_send_ftruncate_msg, &truncreq, &truncreq.t_err); }

  tnw_ioreq ioreq = {};
  tnw_truncreq truncreq = {};

 private:
  int run_with(void* (*job)(void*, void*, void*), void* data, int* err) {
    *err = -5;
    ev.ev_data = data;
    run(job, TNV_OP_MAX);
    return *err;
  }
};

TEST_F(Regions, JobsReportTheAnswerAndTheDeadConnection) {
  EXPECT_EQ(truncate(), 0);
  EXPECT_EQ(peer.requests().back().msg().u.ftruncate.cache_trunc_nfsz, 100u);
  peer.on_request([](PeerConnection& conn) { conn.answer(OX_EIO); });
  for (const int err : {OX_EIO, OX_EOWNERDEAD}) {
    LogCapture log;
    EXPECT_EQ(cache(), err);
    EXPECT_EQ(dirty(), err);
    EXPECT_EQ(truncate(), err);
    EXPECT_EQ(log.count("\"Failed to cache regions off:70000, len:5, trunc: 0\""), 1u);
    EXPECT_EQ(log.count("\"Failed to dirty off:len 70000:5\""), 1u);
    EXPECT_EQ(log.count("\"Failed to truncate to new size: 100\""), 1u);
    tnv_conn_break(&vh);
  }
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

  LogCapture log;
  peer.on_request([](PeerConnection& conn) { conn.answer(22); });
  EXPECT_EQ(vfstnw_get_version(&vh, &version), 22);
  EXPECT_EQ(vfstnw_shutdown(&vh), 22);
  EXPECT_EQ(log.count("\"message\":\"get_version failed\""), 1u);
  EXPECT_EQ(log.count("\"message\":\"shutdown failed\""), 1u);
  tnv_conn_break(&vh);
  EXPECT_EQ(vfstnw_get_version(&vh, &version), OX_EOWNERDEAD);
  EXPECT_EQ(vfstnw_shutdown(&vh), -1);
  EXPECT_EQ(errno, OX_EIO);
}

}  // namespace
