/*
 * A drive with the real service, played from a script. In texts FOLDER is the drive's folder,
 * FOLDER_URL the same with slashes, and CLOUD the cloud's in it.
 */
#ifndef REAL_PLAYER_H
#define REAL_PLAYER_H

#include "call_player.h"
#include "real_drive.h"

class RealPlayer : public CallPlayer {
 public:
  /* The server as RealDrive takes it. */
  explicit RealPlayer(const std::string& server = "");

 protected:
  tnw_tninit& record() override { return drive_.record; }
  std::string expanded(const std::string& text) const override;

  RealDrive drive_;
};

#endif
