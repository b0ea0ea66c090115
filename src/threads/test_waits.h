// Bounded waits for the thread tests: a broken lock or pool must fail the suite, never hang it.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace LUtils::testing {

inline constexpr std::chrono::seconds kPatience{10};

// Polls `done` until it holds or `limit` passes; returns its last answer.
template <class Pred>
bool waitUntil(Pred done, std::chrono::milliseconds limit = kPatience) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() >= end) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Runs `body` on its own thread. If it has not finished within the patience, it is taken to be
// deadlocked: the process ends at once with a message, since the stuck thread cannot be joined.
template <class F>
void runBounded(const char* what, F body) {
  std::packaged_task<void()> task(std::move(body));
  auto finished = task.get_future();
  std::thread thread(std::move(task));
  if (finished.wait_for(kPatience) != std::future_status::ready) {
    std::fprintf(stderr, "%s did not finish: deadlock\n", what);
    std::fflush(stderr);
    std::_Exit(3);
  }
  thread.join();
  finished.get();
}

}  // namespace LUtils::testing
