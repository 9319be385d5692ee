/*
 * Paths that somebody needs to stay as they are for a while. Who asks for one that another one has,
 * or lies below or above a subtree of another one, waits; nobody else does. Any thread.
 */
#ifndef SERVICE_RESERVATIONS_H
#define SERVICE_RESERVATIONS_H

#include <list>
#include <string>
#include <vector>

#include "slim_lock.h"

namespace tarnd {

struct ReservedPath {
  std::string path;     /* folded */
  bool subtree = false; /* and all below it */
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

 private:
  bool is_free(const Paths& wanted) const;

  SlimLock lock_; /* guards held_ */
  SlimCondition changed_;
  std::list<Paths> held_;
};

}  // namespace tarnd

#endif
