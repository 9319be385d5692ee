#include "names/reservations.h"

#include <algorithm>

namespace tarnd {
namespace {

bool covers(const ReservedPath& one, const ReservedPath& other) {
  return one.path == other.path ||
         (one.subtree && (one.path.empty() || other.path.starts_with(one.path + '/')));
}

bool overlap(const ReservedPath& a, const ReservedPath& b) { return covers(a, b) || covers(b, a); }

bool takes_away(const std::vector<ReservedPath>& paths) {
  return std::any_of(paths.begin(), paths.end(),
                     [](const ReservedPath& path) { return path.subtree; });
}

}  // namespace

Reservations::Hold::~Hold() {
  const std::lock_guard guard(owner_.lock_);
  owner_.moves_ += takes_away(*paths_) ? 1 : 0;
  owner_.held_.erase(paths_);
  owner_.changed_.notify_all();
}

Reservations::Hold Reservations::reserve(Paths paths) {
  std::unique_lock lock(lock_);
  changed_.wait(lock, [&] { return is_free(paths); });
  held_.push_front(std::move(paths));
  return {*this, held_.begin()};
}

uint64_t Reservations::wait_for_moves(const std::string& path, std::chrono::milliseconds limit) {
  const auto moves = [&](const Paths& held) {
    return std::any_of(held.begin(), held.end(), [&](const ReservedPath& reserved) {
      return reserved.subtree && covers(reserved, {path});
    });
  };
  std::unique_lock lock(lock_);
  changed_.wait_for(lock, limit, [&] { return std::none_of(held_.begin(), held_.end(), moves); });
  return moves_;
}

bool Reservations::is_free(const Paths& wanted) const {
  return std::none_of(held_.begin(), held_.end(), [&](const Paths& held) {
    return std::any_of(held.begin(), held.end(), [&](const ReservedPath& path) {
      return std::any_of(wanted.begin(), wanted.end(),
                         [&](const ReservedPath& want) { return overlap(path, want); });
    });
  });
}

}  // namespace tarnd
