/*
 * A drive whose service is a scripted peer, played from a script. The peer's answers stand there,
 * too. Each command is answered with what the call gave, what the library logged, and with "<" the
 * requests that the peer got.
 *
 *   peer OPEN err=2                     what each OPEN is answered with from now on
 *   peer any utxid=5                    what all others are; without a rule it is success
 *   peer OPEN file="0123456789"         a new local file, whose handle the answer carries
 *   peer STAT size=7 then="\xff"*16     a field of the answer (wire_text.cpp), and bytes behind it
 *   create d "name" as=f -> 0
 *
 * In texts FOLDER is the drive's folder. More words of "peer" are in PeerPlayer::answer.
 */
#ifndef PEER_PLAYER_H
#define PEER_PLAYER_H

#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "call_player.h"
#include "line_mask.h"
#include "page_end.h"
#include "peer_drive.h"

class PeerPlayer : public CallPlayer {
 public:
  PeerPlayer();
  ~PeerPlayer() override;

 protected:
  std::string seen() override;
  tnw_tninit& record() override { return drive_.record; }
  /* For the peer's threads; `bulk` is what follows the record: maps, or entries. */
  virtual void send_answer(PeerConnection& conn, const tnv_resphdr& header, const Bytes& record,
                           const Bytes& bulk) {
    conn.send(bytes_of(header) + record + bulk);
  }
  std::string expanded(const std::string& text) const override;
  std::string shortened(const std::string& text) override {
    return ids_.numbered(drive_.without_names(text));
  }

  PeerDrive drive_;
  const LogCapture whole_log_;

 private:
  void add_peer_commands();
  void add_local_commands();
  void add_start_commands();
  /* For the peer's threads. */
  void answer(PeerConnection& conn);
  Arguments rule_for(ox_u32 opcode);
  ox_u64 carry(const Arguments& rule);
  std::vector<PeerRequest> requests() const;
  std::string init(const Arguments& a);
  std::string starts(const Arguments& a);
  std::string purge(const Arguments& a);

  IdNumbers ids_{
      "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}"}; /* random ones */
  std::mutex rules_lock_; /* guards the next four */
  std::map<std::string, Arguments> rules_;
  void* carried_ = nullptr;       /* by the last answer that carried a file */
  std::string carried_path_;      /* which tells it from a handle that got its number */
  void* pipe_ = nullptr;          /* its other end */
  std::optional<LogCapture> log_; /* what was not shown yet */
  size_t shown_ = 0;              /* requests */
};

#endif
