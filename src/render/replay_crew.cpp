#include "render/replay_crew.h"

#include <system_error>

namespace LUtils {

ReplayCrew::~ReplayCrew() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  wake_.notify_all();
  for (std::thread& t : threads_) t.join();
}

void ReplayCrew::run(unsigned helpers, const std::function<void()>& job) {
  while (threads_.size() < helpers) {
    try {
      threads_.emplace_back([this] { serve(); });
    } catch (const std::system_error&) {
      break;
    }
  }
  if (helpers > threads_.size()) helpers = static_cast<unsigned>(threads_.size());
  {
    std::lock_guard<std::mutex> lock(mutex_);
    job_ = &job;
    wanted_ = helpers;
    taken_ = 0;
    running_ = helpers;
    ++generation_;
  }
  if (helpers > 0) wake_.notify_all();
  job();
  std::unique_lock<std::mutex> lock(mutex_);
  done_.wait(lock, [this] { return running_ == 0; });
  job_ = nullptr;
}

void ReplayCrew::serve() {
  uint64_t seen = 0;
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    wake_.wait(lock, [&] { return stop_ || generation_ != seen; });
    if (stop_) return;
    seen = generation_;
    if (taken_ >= wanted_) continue;  // enough helpers took this job
    ++taken_;
    const std::function<void()>* job = job_;
    lock.unlock();
    (*job)();
    lock.lock();
    if (--running_ == 0) done_.notify_all();
  }
}

}  // namespace LUtils
