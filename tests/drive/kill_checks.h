/*
 * Whether the cloud of a drive holds what the threads of kill_rounds.h were promised. They rest
 * while it is asked.
 */
#ifndef KILL_CHECKS_H
#define KILL_CHECKS_H

#include <filesystem>
#include <string>
#include <vector>

#include "kill_rounds.h"

class KillChecks {
 public:
  KillChecks(RealDrive& drive, KillNotes& notes) : drive_(drive), notes_(notes) {}

  /* The start of a round: what is there counts as closed. */
  void note_what_is_there();
  /* What is wrong with the cloud; empty when nothing is. `settled`: nothing waits any more. */
  std::string complaint(bool settled, bool writes_stay) const;
  /* The same when all has gone up, which is waited for, and of opens and reads of each file. The
   * drive runs. */
  std::string complaint_when_settled(bool writes_stay) const;
  /* Lines of the logs that tell of errors. */
  std::string what_the_services_said() const;

 private:
  std::string complaint_of_reads() const;
  std::vector<std::string> paths_of(int file) const;
  bool is_kept_beside(int number) const;

  RealDrive& drive_;
  KillNotes& notes_;
  int before_[KILL_FILES] = {}; /* the versions at the start of the round; 0: no file */
};

#endif
