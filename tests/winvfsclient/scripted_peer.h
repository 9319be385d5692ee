/*
 * A peer for the client that can misbehave: it listens on a socket, and a script says what each
 * request is answered with - any bytes, half of them, none, at once or when the test says so.
 *
 *   ScriptedPeer peer([](PeerConnection& conn) {
 *     if (conn.opcode() == TNV_OP_WIN_STAT) return conn.close();
 *     conn.answer();
 *   });
 *   ... connect the client to peer.path() ...
 *   EXPECT_EQ(peer.count(TNV_OP_WIN_STAT), 1);
 *
 * Uses Windows Sockets directly, not the library's transport, so that it can judge it. Each
 * connection is served by a thread of its own, on which its scripts run. The destructor ends every
 * stall, closes every connection and joins every thread.
 */
#ifndef SCRIPTED_PEER_H
#define SCRIPTED_PEER_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tnv_proto.h"

using Bytes = std::vector<ox_u8>;

/* The bytes of a record, to be sent or compared. */
template <class Record>
Bytes bytes_of(const Record& record) {
  const auto* first = reinterpret_cast<const ox_u8*>(&record);
  return Bytes(first, first + sizeof(record));
}
Bytes operator+(Bytes left, const Bytes& right);

/* A whole request as it came over the socket. */
struct PeerRequest {
  Bytes bytes;

  const tnv_msg& msg() const { return *reinterpret_cast<const tnv_msg*>(bytes.data()); }
  ox_u32 opcode() const { return msg().hdr.hdr_opcode; }
};

class ScriptedPeer;

/* One connection, as its scripts see it. For the thread that serves it. */
class PeerConnection {
 public:
  PeerConnection(ScriptedPeer& peer, ox_u64 sock) : peer_(peer), sock_(sock) {}
  ~PeerConnection();

  /* The request being answered. */
  const PeerRequest& request() const { return request_; }
  ox_u32 opcode() const { return request_.opcode(); }

  /* A proper answer to the request; `err` stands in rhdr_errno. */
  void answer(ox_u32 err = 0, const Bytes& payload = {});
  template <class Record>
  void answer(ox_u32 err, const Record& payload) {
    answer(err, bytes_of(payload));
  }
  /* The header of such an answer, to be spoilt and sent by hand. */
  tnv_resphdr header(ox_u32 err = 0, ox_u32 len = 0) const;
  void send(const Bytes& bytes);

  /* Ends the connection: what was sent still arrives. */
  void close();
  /* Aborts it: what was sent may be lost. */
  void reset();
  /* Ends this side only; the connection stays. */
  void end_sending();
  /* Waits for the test's ScriptedPeer::resume(), or for the peer's end. */
  void stall();

 private:
  friend class ScriptedPeer;
  void serve();
  bool wait_readable();
  bool receive(ox_u8* data, size_t nbytes);
  bool receive_request();
  /* For any thread: the serving thread then sees the end of the stream. */
  void hang_up();

  ScriptedPeer& peer_;
  PeerRequest request_;
  std::mutex mutex_; /* guards sock_'s change to closed against hang_up */
  ox_u64 sock_;
  std::atomic<bool> hung_up_ = false;
  std::thread thread_;
};

class ScriptedPeer {
 public:
  using Script = std::function<void(PeerConnection&)>;

  /* Listens at `path`, by default a short one of its own in the temporary folder. */
  explicit ScriptedPeer(Script on_request = answer_success, std::string path = fresh_path());
  ~ScriptedPeer();

  const char* path() const { return path_.c_str(); }
  static std::string fresh_path();

  /* Answers everything with success and an empty payload. */
  static void answer_success(PeerConnection& conn) { conn.answer(); }

  /* What each request is answered with from now on. */
  void on_request(Script script);
  /* What happens when a connection comes in, before its first request. */
  void on_accept(Script script);

  /* Lets every script go that stalls, and those that will. */
  void resume();
  /* Closes every connection; new ones are taken. */
  void hang_up();

  /* What came so far, in the order in which it came. */
  std::vector<PeerRequest> requests() const;
  size_t count(ox_u32 opcode) const;
  /* Waits until that many connections have ended; false after ten seconds. */
  bool wait_for_ended(size_t count);

 private:
  friend class PeerConnection;
  void accept_all();
  void run(PeerConnection& conn);

  const std::string path_;
  ox_u64 listener_;

  mutable std::mutex mutex_; /* guards all below */
  std::condition_variable changed_;
  Script on_request_;
  Script on_accept_;
  bool resumed_ = false;
  bool ending_ = false;
  size_t ended_ = 0;
  std::vector<PeerRequest> requests_;
  std::vector<std::unique_ptr<PeerConnection>> connections_;

  std::thread acceptor_; /* last: it uses all of the above */
};

#endif
