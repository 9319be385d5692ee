/*
 * Paths that somebody needs to stay as they are for a while. Who asks for one that another one has,
 * or lies below or above a subtree of another one, waits; nobody else does. Any thread.
 */
#ifndef SERVICE_RESERVATIONS_H
#define SERVICE_RESERVATIONS_H

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "slim_lock.h"

namespace tarnd {

struct ReservedPath {
  std::string path;     /* folded */
  bool subtree = false; /* and all below it: a rename or delete, which takes names away */
};

class Reservations {
  using Paths = std::vector<ReservedPath>;

 public:
  /* Gives the paths back at the end of its life. */
  class Hold {
   public:
    Hold(Reservations& owner, std::list<Paths>::iterator paths) : owner_(owner), paths_(paths) {}
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;
    ~Hold();

   private:
    Reservations& owner_;
    std::list<Paths>::iterator paths_;
  };

  /* All at once, so that nobody waits with some of its paths in hand. */
  Hold reserve(Paths paths);

  /*
   * For those who only look at a path: waits until nobody has it or a part of it to take it away,
   * for this time at most. Returns how often that has ended for any path: when the number is the
   * same after the look, no name has moved meanwhile.
   */
  uint64_t wait_for_moves(const std::string& path, std::chrono::milliseconds limit);

 private:
  bool is_free(const Paths& wanted) const;

  SlimLock lock_; /* guards the fields below */
  SlimCondition changed_;
  std::list<Paths> held_;
  uint64_t moves_ = 0; /* that have ended */
};

}  // namespace tarnd

#endif
