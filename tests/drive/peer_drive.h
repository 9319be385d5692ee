/*
 * A drive whose service is a scripted peer in the test itself: the whole client against any bytes.
 */
#ifndef PEER_DRIVE_H
#define PEER_DRIVE_H

#include "drive_files.h"
#include "log_capture.h"
#include "scripted_peer.h"

constexpr ox_u32 READ_WRITE = 0xc0000000; /* GENERIC_READ | GENERIC_WRITE */

/* One worker, so that every run has the same lines in the same order. */
class PeerDrive {
 public:
  PeerDrive();
  ~PeerDrive();

  /* Starts the client on the record as it stands; the drive handle or null. */
  void* start();
  /* The peer alone, where there is none yet. */
  void listen();
  /* The lines of a capture as brief_line has them, one after the other, without what differs from
   * run to run: FOLDER is this drive's folder, "folder" the same in the name of an event. */
  std::string said(const LogCapture& log) const;
  /* The same for the names of this run in any text. */
  std::string without_names(std::string text) const;
  /* Opens a path with its own slot: disposition "open", share everything. */
  void* open(const char* path, ox_u32 accmode = 3, int* err = nullptr);

  TestFolder folder;
  tnw_tninit record;
  ScriptedPeer::Script script = ScriptedPeer::answer_success; /* of the peer that start() makes */
  std::unique_ptr<ScriptedPeer> peer;
  void* drive = nullptr;
  int error = -1; /* what tnw_init gave */
};

/* A new local file with this content, and a handle of it as an answer carries it; `access` is a
 * Windows access mask. */
ox_u64 local_file(const std::string& path, const std::string& content, ox_u32 access = READ_WRITE,
                  ox_u32 flags = 0);

#endif
