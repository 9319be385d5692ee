/* The request exchange, the connect handshake and the jobs, against a scripted peer. */
#include <winsock2.h>
// after winsock2.h
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <cerrno>
#include <thread>

#include "log_capture.h"
#include "ox_errno.h"
#include "ox_util.h"
#include "scripted_peer.h"
#include "tnv_connio_win.h"
#include "tnw_connect.h"
#include "tnw_fd.h"
#include "vfstnw_bmap.h"
#include "vfstnw_client.h"

using testing::Each;

namespace {

constexpr char DRIVE_ID[] = "00112233-4455-6677-8899-aabbccddeeff";
constexpr char DEVICE_ID[] = "0f0e0d0c-0b0a-0908-0706-050403020100";

/* An unused range of the response: a clear one is all zero. */
bool is_clear(const tnv_resp& resp) { return bytes_of(resp) == bytes_of(tnv_resp{}); }

/* A connected record, a work item with its event, and what most tests ask of them. */
class Exchange : public testing::Test {
 protected:
  Exchange() {
    vh.vfs_fd = -1;
    ev.ev_msg = &msg;
    ev.ev_resp = &resp;
    ev.ev_data = &fde;
    ev.ev_hdl = CreateEventA(nullptr, FALSE, FALSE, nullptr);
    fde.fdt_fd = 7;
    for (ox_rwlock_t* lock : {&fde.fdt_rmap_lock, &fde.fdt_dmap_lock}) ox_init_rwlock(lock);
  }

  ~Exchange() override {
    tnv_conn_break(&vh);
    ox_free_safe(vh.vfs_share_path);
    ox_free_safe(fde.fdt_rmap);
    ox_free_safe(fde.fdt_dir.dir_fi);
    CloseHandle(ev.ev_hdl);
  }

  int connect(const char* share = "x", const char* drive_id = DRIVE_ID) {
    return tnw_vfs_connect(&vh, "files.example.com", "ann", "C:\\cache", peer.path(), share,
                           DEVICE_ID, drive_id);
  }
  void prepare(vfs_op opcode) {
    msg = {};
    msg.hdr.hdr_opcode = opcode;
    msg.hdr.hdr_len = sizeof(msg);
    memset(&resp, 0, sizeof(resp));
  }
  int exchange(vfs_op opcode) {
    prepare(opcode);
    return tnw_sync_send_msg(&vh, &msg, &resp);
  }
  /* Runs a job as a worker would; it must set the event. */
  void run(void* (*job)(void*, void*, void*)) {
    EXPECT_EQ(job(&ev, nullptr, &vh), nullptr);
    EXPECT_EQ(WaitForSingleObject(ev.ev_hdl, 0), WAIT_OBJECT_0);
  }
  void run(void* (*job)(void*, void*, void*), vfs_op opcode) {
    prepare(opcode);
    run(job);
  }
  /* What the first answer of `script` meets is a broken connection: now and for good. */
  void expect_broken() {
    EXPECT_EQ(vh.vfs_fd, -1);
    const size_t before = peer.requests().size();
    LogCapture next;
    EXPECT_EQ(exchange(TNV_OP_WIN_STAT), OX_EOWNERDEAD);
    EXPECT_EQ(errno, OX_EOWNERDEAD);
    EXPECT_EQ(next.count("Could not send messages id "), 1u);
    EXPECT_EQ(next.count("opcode 4, len 504. Requesting client to reinitialize."), 1u);
    EXPECT_TRUE(is_clear(resp));
    EXPECT_TRUE(peer.wait_for_ended(1));
    EXPECT_EQ(peer.requests().size(), before);
  }

  ScriptedPeer peer;
  LogCapture log;
  vfs_handle vh = {};
  tnv_msg msg = {};
  tnv_resp resp = {};
  tnvfd fde = {};
  tnw_evwi ev = {};
};

/* ------------------------------------------------------------------- CONNECT */

TEST_F(Exchange, ConnectSendsTheBindingAndKeepsTheAnswer) {
  tnv_conn_resp answer = {};
  answer.conresp_shandle = 0x1122334455667788;
  answer.conresp_stid = 99;
  answer.connresp_sfid.id[15] = 0xab;
  peer.on_request([=](PeerConnection& conn) { conn.answer(0, answer); });
  ASSERT_EQ(connect(), 0);
  EXPECT_EQ(vh.vfs_peer_handle, reinterpret_cast<void*>(answer.conresp_shandle));
  EXPECT_EQ(vh.vfs_peer_tid, 99u);
  EXPECT_EQ(vh.vfs_share_fid.id[15], 0xab);
  EXPECT_STREQ(vh.vfs_share_path, "x");
  EXPECT_STREQ(vh.vfs_user, "ann");
  EXPECT_STREQ(vh.vfs_domain, "files.example.com");

  const PeerRequest req = peer.requests().at(0);
  const tnv_wconn_msg& conn = req.msg().u.wconn;
  EXPECT_EQ(req.bytes.size(), 506u);
  EXPECT_EQ(conn.wconmsg_share_path_len, 2);
  EXPECT_EQ(req.text(), "x");
  EXPECT_EQ(conn.wconmsg_pid, GetCurrentThreadId());
  EXPECT_STREQ(conn.wconmsg_devid, DEVICE_ID);
  EXPECT_STREQ(conn.wconmsg_user, "ann");
  EXPECT_STREQ(conn.wconmsg_cache_dir, "C:\\cache");
  EXPECT_STREQ(conn.wconmsg_rhost, vh.vfs_rhost);
  EXPECT_NE(conn.wconmsg_rhost[0], '\0');
  EXPECT_EQ(req.msg().hdr.hdr_drvid.id[0], 0x33) << "the binary form";
}

TEST_F(Exchange, ConnectWithoutADriveIdLeavesItZero) {
  ASSERT_EQ(connect("share", "no uuid"), 0);
  EXPECT_THAT(peer.requests().at(0).msg().hdr.hdr_drvid.id, Each(0));
}

TEST_F(Exchange, RefusedConnectGivesTheAnswer) {
  peer.on_request([](PeerConnection& conn) { conn.answer(13); });
  EXPECT_EQ(connect(), 13);
  EXPECT_EQ(log.count("\"errno\":13"), 1u);
  EXPECT_EQ(log.count("\"message\":\"Could not Connect to Tarn.\""), 1u);
}

TEST_F(Exchange, ConnectWhoseExchangeFailsGivesTheTransportsError) {
  peer.on_request([](PeerConnection& conn) { conn.close(); });
  EXPECT_EQ(connect(), OX_EOWNERDEAD);
  expect_broken();
}

TEST_F(Exchange, ConnectAgainClosesTheFirstSocket) {
  ASSERT_EQ(connect(), 0);
  ASSERT_EQ(connect("another"), 0);
  EXPECT_TRUE(peer.wait_for_ended(1)) << "the first socket";
  EXPECT_STREQ(vh.vfs_share_path, "another");
  EXPECT_EQ(exchange(TNV_OP_WIN_STAT), 0);
}

/* ------------------------------------------------------------------- the exchange */

TEST_F(Exchange, AnswersComeInOrderUnderFreshIds) {
  peer.on_request([](PeerConnection& conn) {
    tnv_resphdr hdr = conn.header(conn.opcode());
    hdr.rhdr_utxid = 1000 + conn.opcode();
    hdr.rhdr_fd2xfer = 5;
    conn.send(bytes_of(hdr));
  });
  connect();
  for (const vfs_op op : {TNV_OP_WIN_STAT, TNV_OP_WIN_CLOSE, TNV_OP_WIN_BRL}) {
    ASSERT_EQ(exchange(op), 0);
    EXPECT_EQ(resp.rhdr.rhdr_errno, static_cast<ox_u32>(op));
    EXPECT_EQ(resp.rhdr.rhdr_fd2xfer, -1);
    EXPECT_EQ(vh.vfs_utxid, 1000u + op);
  }
  const auto reqs = peer.requests();
  EXPECT_NE(bytes_of(reqs[1].msg().hdr.hdr_id), bytes_of(reqs[2].msg().hdr.hdr_id));
  EXPECT_EQ(bytes_of(reqs[3].msg().hdr.hdr_id), bytes_of(msg.hdr.hdr_id))
      << "the id that goes out is the one the caller reads";
}

TEST_F(Exchange, ShortPayloadLeavesTheRestZero) {
  connect();
  peer.on_request([](PeerConnection& conn) { conn.answer(0, Bytes(3, 0xff)); });
  prepare(TNV_OP_WIN_STAT);
  ASSERT_EQ(tnw_send_msg(&vh, &msg), 0);
  memset(&resp, 0xee, sizeof(resp));
  ASSERT_EQ(tnw_recv_response(&vh, &msg, &resp), 0);
  EXPECT_EQ(Bytes(resp.u.bytes, resp.u.bytes + 5), (Bytes{0xff, 0xff, 0xff, 0, 0}));
  EXPECT_EQ(resp.u.bytes[1167], 0);
}

struct BadAnswer {
  friend void PrintTo(const BadAnswer& bad, std::ostream* out) { *out << bad.name; }

  const char* name;
  ScriptedPeer::Script script;
  const char* line;
};

class DeadConnection : public Exchange, public testing::WithParamInterface<BadAnswer> {};

TEST_P(DeadConnection, Gives133NowAndForEver) {
  ASSERT_EQ(connect(), 0);
  peer.on_request(GetParam().script);
  EXPECT_EQ(exchange(TNV_OP_WIN_STAT), OX_EOWNERDEAD);
  EXPECT_EQ(errno, OX_EOWNERDEAD);
  EXPECT_EQ(log.count(GetParam().line), 1u);
  EXPECT_TRUE(is_clear(resp)) << "never half an answer";
  EXPECT_EQ(vh.vfs_utxid, 0u);
  expect_broken();
}

TEST_P(DeadConnection, ReadsAsAnEmptySuccessFromThePlainJob) {
  ASSERT_EQ(connect(), 0);
  peer.on_request(GetParam().script);
  run(tnw_async_send_msg, TNV_OP_WIN_CLOSE);
  EXPECT_TRUE(is_clear(resp));
  expect_broken();
}

const char* const HEADER_LINE = "Could not receive response header for message id ";
const char* const PAYLOAD_LINE =
    "\"Could not receive response payload. Requesting client to reinitialize.\"";

/* A header that promises `len` bytes, with marks that must not reach the caller. */
Bytes marked_header(const PeerConnection& conn, ox_u32 len) {
  tnv_resphdr hdr = conn.header(2, len);
  hdr.rhdr_tn_unauthd = 1;
  hdr.rhdr_utxid = 77;
  return bytes_of(hdr);
}

INSTANTIATE_TEST_SUITE_P(
    Each, DeadConnection,
    testing::Values(BadAnswer{"NoAnswer", [](PeerConnection& conn) { conn.close(); }, HEADER_LINE},
                    BadAnswer{"Aborted", [](PeerConnection& conn) { conn.reset(); }, HEADER_LINE},
                    BadAnswer{"HalfAHeader",
                              [](PeerConnection& conn) {
                                conn.send(Bytes(24, 0xff));
                                conn.close();
                              },
                              HEADER_LINE},
                    BadAnswer{"HalfAPayload",
                              [](PeerConnection& conn) {
                                conn.send(marked_header(conn, 100) + Bytes(99, 0xff));
                                conn.close();
                              },
                              PAYLOAD_LINE},
                    BadAnswer{"PayloadTooLong",
                              [](PeerConnection& conn) {
                                conn.send(marked_header(conn, 1169) + Bytes(1169, 0xff));
                              },
                              PAYLOAD_LINE},
                    BadAnswer{"Garbage", [](PeerConnection& conn) { conn.send(Bytes(4000, 0xff)); },
                              PAYLOAD_LINE}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(Exchange, LongestPayloadIsTaken) {
  connect();
  peer.on_request([](PeerConnection& conn) { conn.answer(0, Bytes(1168, 0xff)); });
  ASSERT_EQ(exchange(TNV_OP_WIN_STAT), 0);
  EXPECT_THAT(resp.u.bytes, Each(0xff));
}

/* ------------------------------------------------------------------- OPEN */

/* A local file whose handle an answer carries into this process. */
HANDLE carried_file() {
  char folder[MAX_PATH + 1];
  char path[MAX_PATH + 1];
  GetTempPathA(sizeof(folder), folder);
  GetTempFileNameA(folder, "opn", 0, path);
  return CreateFileA(path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_FLAG_DELETE_ON_CLOSE,
                     nullptr);
}

bool is_open(HANDLE handle) {
  DWORD flags;
  return GetHandleInformation(handle, &flags) != 0;
}

tnv_wopen_resp open_answer(ox_u64 map_size, int shift = 16) {
  tnv_wopen_resp open = {};
  open.wopen_resp_region_shift = shift;
  open.wopen_resp_rmap_size = map_size;
  open.wopen_resp_dmap_size = 3; /* recorded, and without say */
  return open;
}

TEST_F(Exchange, OpenReceivesBothMaps) {
  connect();
  for (const ox_u32 success : {0u, 183u}) {
    peer.on_request([=](PeerConnection& conn) {
      tnv_resp answer = {};
      answer.rhdr = conn.header(success, sizeof(tnv_wopen_resp));
      answer.rhdr.rhdr_tn_unauthd = success != 0; /* its maps arrive all the same */
      conn.send(bytes_of(answer.rhdr) + bytes_of(open_answer(8)) + Bytes(8, 0x0f));
      conn.send(Bytes(8, 0xf0));
    });
    run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN);
    EXPECT_EQ(resp.rhdr.rhdr_errno, success);
    ASSERT_NE(fde.fdt_rmap, nullptr);
    EXPECT_EQ(Bytes(fde.fdt_rmap, fde.fdt_rmap + 16), Bytes(8, 0x0f) + Bytes(8, 0xf0));
    EXPECT_EQ(fde.fdt_dmap, fde.fdt_rmap + 8);
    EXPECT_EQ(fde.fdt_rmap_size, 8u);
    EXPECT_EQ(fde.fdt_dmap_size, 3u);
    EXPECT_EQ(fde.fdt_rshift, 16);
    ox_free_safe(fde.fdt_rmap);
    fde.fdt_rmap = nullptr;
  }
  peer.on_request(ScriptedPeer::answer_success);
  EXPECT_EQ(exchange(TNV_OP_WIN_STAT), 0) << "the connection stands where the maps ended";
}

TEST_F(Exchange, OpenWithoutMapsReadsNone) {
  connect();
  for (const auto& [err, size] : {std::pair{2u, 8u}, {0u, 0u}}) {
    peer.on_request([=](PeerConnection& conn) { conn.answer(err, open_answer(size)); });
    run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN);
    EXPECT_EQ(resp.rhdr.rhdr_errno, err);
    EXPECT_EQ(fde.fdt_rmap, nullptr);
    EXPECT_EQ(fde.fdt_dmap, nullptr);
    EXPECT_EQ(exchange(TNV_OP_WIN_STAT), 0);
  }
}

struct BadOpen {
  friend void PrintTo(const BadOpen& bad, std::ostream* out) { *out << bad.name; }

  const char* name;
  tnv_wopen_resp open;
  size_t sent; /* bytes of maps */
  ox_u32 err;
  const char* line;
};

class FailedOpen : public Exchange, public testing::WithParamInterface<BadOpen> {};

TEST_P(FailedOpen, ClosesTheCarriedFileAndBreaksTheConnection) {
  const BadOpen& bad = GetParam();
  connect();
  const HANDLE file = carried_file();
  ASSERT_TRUE(is_open(file));
  peer.on_request([=](PeerConnection& conn) {
    tnv_wopen_resp open = bad.open;
    open.wopen_resp_handle = reinterpret_cast<ox_u64>(file);
    conn.answer(0, open);
    conn.send(Bytes(bad.sent, 0xff));
    conn.close();
  });
  run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN);
  EXPECT_EQ(resp.rhdr.rhdr_errno, bad.err);
  EXPECT_EQ(log.count(bad.line), 1u);
  EXPECT_FALSE(is_open(file));
  EXPECT_EQ(resp.u.wopen.wopen_resp_handle, 0u) << "or it might be closed again";
  EXPECT_EQ(fde.fdt_rmap, nullptr);
  EXPECT_EQ(fde.fdt_dmap, nullptr);
  expect_broken();
}

INSTANTIATE_TEST_SUITE_P(
    Each, FailedOpen,
    testing::Values(BadOpen{"HalfTheMaps", open_answer(8), 15, 133, "Recv failed on sockfd"},
                    BadOpen{"MapTooLarge", open_answer(VFSTNW_MAX_MAP_SIZE + 1), 100, 8,
                            "\"Failed to allocate memory to rmap/dmap.\""},
                    BadOpen{"TwiceTheSizeOverflows", open_answer(ox_u64{1} << 63), 100, 8,
                            "\"Failed to allocate memory to rmap/dmap.\""},
                    BadOpen{"ShiftTooLarge", open_answer(8, 63), 16, 133, "region shift 63"},
                    BadOpen{"ShiftNegative", open_answer(8, -1), 16, 133, "region shift -1"}),
    [](const auto& tested) { return tested.param.name; });

TEST_F(Exchange, FailedOpenOfAFolderClosesNoHandle) {
  connect();
  const HANDLE file = carried_file();
  peer.on_request([=](PeerConnection& conn) {
    tnv_wopen_resp open = open_answer(8, 63);
    open.wopen_resp_fso.fso_isdir = 1;
    open.wopen_resp_handle = reinterpret_cast<ox_u64>(file);
    conn.answer(0, open);
  });
  run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN);
  EXPECT_EQ(resp.rhdr.rhdr_errno, 133u);
  EXPECT_TRUE(is_open(file)) << "what stands there is not a file of ours";
  CloseHandle(file);
}

TEST_F(Exchange, OpenAndListingOnADeadConnection) {
  connect();
  tnv_conn_break(&vh);
  run(tnw_sync_send_open_msg, TNV_OP_WIN_OPEN);
  EXPECT_EQ(resp.rhdr.rhdr_errno, 133u);
  EXPECT_EQ(log.count("\"Failed to send open message.\""), 1u);
  run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM);
  EXPECT_EQ(resp.rhdr.rhdr_errno, 133u);
  EXPECT_EQ(log.count("\"Failed to send directory enumeration message.\""), 1u);
}

/* ------------------------------------------------------------------- DENUM */

tnv_wdenum_resp listing_of(ox_u64 count) {
  tnv_wdenum_resp denum = {};
  denum.wde_fso.fso_isdir = 1;
  denum.wde_fi_len = count;
  return denum;
}

TEST_F(Exchange, ListingIsReceivedWhole) {
  connect();
  peer.on_request([](PeerConnection& conn) {
    tnw_fileinfo fi[3] = {};
    for (int i = 0; i < 3; i++) fi[i].fi_size = static_cast<ox_u64>(i) + 10;
    conn.answer(0, listing_of(3));
    conn.send(bytes_of(fi));
  });
  run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM);
  EXPECT_EQ(resp.rhdr.rhdr_errno, 0u);
  EXPECT_EQ(fde.fdt_oaccmode, 1u);
  EXPECT_EQ(fde.fdt_fso.fso_isdir, 1u);
  ASSERT_NE(fde.fdt_dir.dir_fi, nullptr);
  EXPECT_EQ(fde.fdt_dir.dir_fi[2].fi_size, 12u);
  EXPECT_EQ(fde.fdt_dir.dir_fi_len, 0u) << "the caller stores it";
}

TEST_F(Exchange, EmptyAndRefusedListingsReadNothing) {
  connect();
  for (const auto& [err, count] : {std::pair{0u, 0u}, {2u, 5u}}) {
    peer.on_request([=](PeerConnection& conn) { conn.answer(err, listing_of(count)); });
    run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM);
    EXPECT_EQ(resp.rhdr.rhdr_errno, err);
    EXPECT_EQ(fde.fdt_dir.dir_fi, nullptr);
    EXPECT_EQ(exchange(TNV_OP_WIN_STAT), 0);
  }
}

TEST_F(Exchange, ListingsThatFailAreFreedAndBreakTheConnection) {
  struct {
    ox_u64 count;
    ox_u32 err;
    size_t lines;
  } const bad[] = {
      {(ox_u64{1} << 32) + 3, 8, 1}, {ox_u64{1} << 31, 8, 1}, {~ox_u64{0}, 8, 1}, {3, 133, 0}};
  for (const auto& [count, err, lines] : bad) {
    peer.on_request(ScriptedPeer::answer_success);
    ASSERT_EQ(connect(), 0);
    peer.on_request([=](PeerConnection& conn) {
      conn.answer(0, listing_of(count));
      conn.send(Bytes(3 * sizeof(tnw_fileinfo) - 1));
      conn.close();
    });
    LogCapture now;
    run(tnw_sync_send_denum_msg, TNV_OP_WIN_DENUM);
    EXPECT_EQ(resp.rhdr.rhdr_errno, err) << count;
    EXPECT_EQ(now.count("\"Failed to allocate memory to cffl.\""), lines);
    EXPECT_EQ(fde.fdt_dir.dir_fi, nullptr);
    expect_broken();
  }
}

/* ------------------------------------------------------------------- regions and truncation */

class Regions : public Exchange {
 protected:
  void SetUp() override {
    connect();
    ev.ev_msg = nullptr; /* these jobs make their own */
    ev.ev_resp = nullptr;
    ioreq.io_fde = truncreq.t_fde = &fde;
    ioreq.io_off = 70000;
    ioreq.io_len = 5;
    ioreq.io_curfsz = 1;
    truncreq.t_nfsz = 100;
    fde.fdt_rmap = static_cast<ox_u8*>(ox_zalloc(2));
    fde.fdt_dmap = fde.fdt_rmap + 1;
    fde.fdt_rmap_size = 1;
    fde.fdt_rshift = 16;
  }

  /* The three jobs, and what each leaves as its error. */
  void run_cache() { run_with(tnw_sync_send_cache_region_msg, &ioreq); }
  void run_dirty() { run_with(tnw_sync_send_dirty_region_msg, &ioreq); }
  void run_truncate() { run_with(tnw_sync_send_ftruncate_msg, &truncreq); }

  tnw_ioreq ioreq = {};
  tnw_truncreq truncreq = {};

 private:
  void run_with(void* (*job)(void*, void*, void*), void* data) {
    ioreq.io_err = truncreq.t_err = -5;
    ev.ev_data = data;
    run(job);
  }
};

TEST_F(Regions, JobsReportSuccess) {
  peer.on_request([](PeerConnection& conn) {
    tnv_cache_region_resp region = {};
    region.cr_sz = 5;
    region.cr_fsz = 70005;
    conn.answer(0, region);
  });
  run_cache();
  EXPECT_EQ(ioreq.io_err, 0);
  EXPECT_TRUE(ioreq.io_has_curfsz);
  EXPECT_EQ(ioreq.io_curfsz, 70005u);
  ioreq.io_off = 0;
  peer.on_request(ScriptedPeer::answer_success);
  run_dirty();
  EXPECT_EQ(ioreq.io_err, 0);
  run_truncate();
  EXPECT_EQ(truncreq.t_err, 0);
  EXPECT_EQ(peer.requests().back().msg().u.ftruncate.cache_trunc_nfsz, 100u);
}

TEST_F(Regions, AnswerWithoutASizeLeavesTheCallersAlone) {
  peer.on_request([](PeerConnection& conn) { conn.answer(OX_ENOTTY); });
  run_cache();
  EXPECT_EQ(ioreq.io_err, 0) << "the service will not cache the range";
  EXPECT_FALSE(ioreq.io_has_curfsz);
  EXPECT_EQ(ioreq.io_curfsz, 1u);
}

TEST_F(Regions, JobsReportTheAnswerAndTheDeadConnection) {
  peer.on_request([](PeerConnection& conn) { conn.answer(OX_EIO); });
  for (const int err : {OX_EIO, OX_EOWNERDEAD}) {
    LogCapture now;
    run_cache();
    EXPECT_EQ(ioreq.io_err, err);
    run_dirty();
    EXPECT_EQ(ioreq.io_err, err);
    run_truncate();
    EXPECT_EQ(truncreq.t_err, err);
    EXPECT_EQ(now.count("\"Failed to cache regions off:70000, len:5, trunc: 0\""), 1u);
    EXPECT_EQ(now.count("\"Failed to dirty off:len 70000:5\""), 1u);
    EXPECT_EQ(now.count("\"Failed to truncate to new size: 100\""), 1u);
    tnv_conn_break(&vh);
  }
}

/* ------------------------------------------------------------------- version and shut-down */

TEST_F(Exchange, VersionAndShutdownAreRequestsOfTheirHeaderAlone) {
  connect();
  peer.on_request([](PeerConnection& conn) {
    tnv_get_version_resp version = {};
    if (conn.opcode() == TNV_OP_GET_VERSION) memset(&version, 0x41, sizeof(version));
    conn.answer(0, version);
  });
  ox_get_version_t version = {};
  EXPECT_EQ(vfstnw_get_version(&vh, &version), 0);
  EXPECT_THAT(bytes_of(version), Each(0x41));
  EXPECT_EQ(vfstnw_shutdown(&vh), 0);

  const auto reqs = peer.requests();
  for (const auto& [n, opcode] : {std::pair{1u, TNV_OP_GET_VERSION}, {2u, TNV_OP_SHUTDOWN}}) {
    tnv_msg bare = {};
    bare.hdr.hdr_opcode = opcode;
    bare.hdr.hdr_len = 504;
    bare.hdr.hdr_id = reqs.at(n).msg().hdr.hdr_id;
    EXPECT_EQ(reqs[n].bytes, bytes_of(bare));
  }
}

TEST_F(Exchange, VersionAndShutdownFailures) {
  connect();
  peer.on_request([](PeerConnection& conn) { conn.answer(22); });
  ox_get_version_t version = {};
  EXPECT_EQ(vfstnw_get_version(&vh, &version), 22);
  EXPECT_EQ(vfstnw_shutdown(&vh), 22);
  EXPECT_EQ(log.count("\"errno\":22, "), 2u);
  EXPECT_EQ(log.count("\"message\":\"get_version failed\""), 1u);
  EXPECT_EQ(log.count("\"message\":\"shutdown failed\""), 1u);

  tnv_conn_break(&vh);
  EXPECT_EQ(vfstnw_get_version(&vh, &version), OX_EOWNERDEAD);
  EXPECT_EQ(vfstnw_shutdown(&vh), -1);
  EXPECT_EQ(errno, OX_EIO);
}

}  // namespace
