/*
 * The library's calls as commands of a script. Every text, record and buffer that a call gets ends
 * where its page does, so that a byte that is read or written behind it ends the test.
 *
 *   create d "name" as=f access=3 -> 0     the code, and what the call gave
 *
 * A handle is a name: that of the drive, d, or one that came from as=NAME; null; a number; NAME+8,
 * so many bytes behind; or NAME-entry, the entry before an open file's in the table. A text may be
 * null. Without its arguments a call gets good ones.
 *
 *   quietly COMMAND ...          leaves out what was seen besides
 *   begin NAME COMMAND ...       on another thread, whose answer is that of "end NAME"
 *   drivecalls HANDLE ...        every call of a drive with each of the handles
 *   filecalls HANDLE ...         every call of a file
 *   put, mkdir, file, env ...    files and variables past the drive (CallPlayer::add_files)
 */
#ifndef CALL_PLAYER_H
#define CALL_PLAYER_H

#include <future>
#include <map>
#include <string>
#include <vector>

#include "drive_files.h"
#include "script.h"

class CallPlayer {
 public:
  CallPlayer();
  virtual ~CallPlayer() = default;
  CallPlayer(const CallPlayer&) = delete;
  CallPlayer& operator=(const CallPlayer&) = delete;

  /* Plays a case with all commands, each of which also answers with what else was seen. */
  void play_case(const ScriptCase& script_case);

 protected:
  /* What was seen besides since it was asked last. */
  virtual std::string seen() { return ""; }
  /* Of the next start. */
  virtual tnw_tninit& record() = 0;
  /* A text of the script with the names of this run in it. */
  virtual std::string expanded(const std::string& text) const { return text; }
  /* The same the other way round. */
  virtual std::string shortened(const std::string& text) { return text; }

  void* handle(const Arguments& a, size_t index) const;
  std::string text(const Arguments& a, size_t index, const std::string& otherwise = "") const;
  std::string option(const Arguments& a, const std::string& name,
                     const std::string& otherwise = "") const;
  /* The answer of another command. */
  std::string answer_of(const std::string& name, const Arguments& a) const;

  Commands commands_; /* to be added to */
  std::map<std::string, void*> handles_;

 private:
  class Call;

  void add(const std::string& name, int (*call)(Call&));
  void add_file_calls();
  void add_folder_calls();
  void add_path_calls();
  void add_drive_calls();
  void add_files();
  void add_ways_to_call();
  std::string set_record(const Arguments& a);
  std::string create(const Arguments& a);
  std::string find_first(const Arguments& a);
  std::string call_all(const std::vector<std::string>& calls, const Arguments& a);

  std::map<std::string, void*> slots_;
  std::map<std::string, std::future<std::string>> begun_;
};

#endif
