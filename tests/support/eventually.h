/*
 * Waiting for what another thread or process does.
 */
#ifndef EVENTUALLY_H
#define EVENTUALLY_H

#include <chrono>
#include <thread>

/* Waits until the condition holds; false after the limit, which only a failing test reaches. */
template <typename Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

#endif
