// Threads kept for running one job on several threads at once, again and again: a frame of the
// software rasterizer replays its binned primitives some thirty times, and waking a kept thread
// costs a fraction of starting one.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace LUtils {

class ReplayCrew {
 public:
  ReplayCrew() = default;
  ~ReplayCrew();
  ReplayCrew(const ReplayCrew&) = delete;
  ReplayCrew& operator=(const ReplayCrew&) = delete;

  // Runs `job` on the calling thread and on `helpers` kept threads at once, and returns when every
  // one of them has returned from it. Threads are started on first need; when the system refuses
  // one, the job runs on the threads there are (at least the calling one).
  void run(unsigned helpers, const std::function<void()>& job);

 private:
  void serve();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::condition_variable done_;
  std::vector<std::thread> threads_;
  const std::function<void()>* job_ = nullptr;
  uint64_t generation_ = 0;
  unsigned wanted_ = 0;   // helpers the current job asks for
  unsigned taken_ = 0;    // helpers that took it
  unsigned running_ = 0;  // helpers still in it
  bool stop_ = false;
};

}  // namespace LUtils
