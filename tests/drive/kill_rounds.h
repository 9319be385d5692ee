/*
 * Eight threads that write, read and rename through a drive until its service is killed, and what
 * they were promised until then.
 */
#ifndef KILL_ROUNDS_H
#define KILL_ROUNDS_H

#include <atomic>
#include <mutex>
#include <set>
#include <string>

#include "real_drive.h"

constexpr int KILL_FILES = 12;
constexpr int KILL_FOLDERS = 2;
constexpr size_t KILL_PIECE = 3000; /* bytes that are written at once: no multiple of a region */

/* A version has a number that is never used again. One thread writes the notes of a file. */
struct KillFile {
  std::atomic<int> closed{0};  /* the newest whose close was answered; 0: there is no file */
  std::atomic<int> asked{0};   /* the newest whose close was asked for */
  std::atomic<int> begun{0};   /* the newest that was begun */
  std::atomic<int> written{0}; /* how many pieces of that were written, as answered */
};

/* Which of its two names a file or folder has. They differ while a rename is not answered. */
struct KillPlace {
  std::atomic<int> now{0};
  std::atomic<int> next{0};
};

struct KillNotes {
  bool weather = false; /* the cloud is away now and then: what fails for that is tried again */
  KillFile files[KILL_FILES];
  KillPlace places[KILL_FILES];
  KillPlace folders[KILL_FOLDERS];
  std::atomic<bool> killing{false}; /* an answer may come from a broken connection from here on */
  std::atomic<bool> killed{false};
  std::mutex lock;
  std::string fault; /* the first answer before the kill that was wrong; guarded by `lock` */

  std::atomic<size_t> calls{0};    /* of the library */
  std::atomic<size_t> worst_ms{0}; /* the longest of them; to be set to 0 by who reads it */
  std::set<void*> handles;         /* that opens gave; guarded by `lock` */
};

std::string kill_folder(int folder, int place);
std::string kill_path(int file, int folder_place, int file_place);

/* Versions share some of their pieces with those before. */
std::string content_of(int file, int version);
/* Which file and version a text begins like; false when it begins like none. */
bool begins_like(const std::string& text, int* file, int* version);

/* Returns when all threads have ended, after `killed`. */
void work_until_killed(RealDrive& drive, KillNotes& notes, unsigned seed);

#endif
