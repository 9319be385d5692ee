/*
 * Every operation that the library sends, played one after the other on a drive that is sound when
 * the operation begins: what a fault has broken is started anew.
 */
#ifndef OPERATION_PLAYER_H
#define OPERATION_PLAYER_H

#include <functional>
#include <span>

#include "peer_player.h"

struct Operation {
  const char* name;
  const char* answer; /* the fields of a sound one */
  const char* before; /* an open file for the call, or "" */
  const char* call;
  const char* title = name; /* tells apart the rows of one name */
};

std::span<const Operation> all_operations();

class OperationPlayer : public PeerPlayer {
 public:
  explicit OperationPlayer(const Operation& operation);

 protected:
  struct Outcome {
    std::string code; /* what the call gave, and what is odd besides */
    std::string line; /* the first error in the log, or "-" */
    std::string next; /* the next open's code */
  };
  /* Plays the operation between `arm` and `disarm`, with a sound drive at its begin. */
  Outcome run(const std::function<void()>& arm, const std::function<void()>& disarm);
  std::string play(const std::string& line);
  void stop();

  const Operation& operation_;
  const ox_u32 opcode_;
  const bool starts_; /* the operation is a part of the start */

 private:
  void make_ready();
  std::string what_is_odd(const std::string& state);
  std::string first_error();
  std::string clean_up();
  void close_all();

  bool is_open_ = false;
};

#endif
