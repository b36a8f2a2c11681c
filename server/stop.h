// A stop request for a thread of our own, and a way to wake the thread wherever it waits: the
// part of std::stop_token we use. Xcode 15's libc++ has no <stop_token>.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace zerlan::server {

class StopSignal {
 public:
  StopSignal() = default;
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  bool requested() const { return requested_.load(std::memory_order_acquire); }

  // Sets the flag, then runs every registered waker on this thread. Idempotent.
  void request() {
    std::lock_guard lock(mu_);
    if (requested_.exchange(true, std::memory_order_acq_rel)) return;
    for (auto& [id, wake] : wakers_) wake();
  }

  // While it lives, `wake` runs once when a stop is requested; at once if it already was. Its
  // destructor waits for a `wake` that is running on another thread, so `wake` may use what
  // the waiting thread owns.
  class OnStop {
   public:
    OnStop(const StopSignal& signal, std::function<void()> wake) : signal_(signal) {
      std::lock_guard lock(signal_.mu_);
      if (signal_.requested()) {
        wake();
        return;
      }
      id_ = ++signal_.lastId_;
      signal_.wakers_.emplace_back(id_, std::move(wake));
    }
    ~OnStop() {
      std::lock_guard lock(signal_.mu_);
      std::erase_if(signal_.wakers_, [this](const auto& w) { return w.first == id_; });
    }
    OnStop(const OnStop&) = delete;
    OnStop& operator=(const OnStop&) = delete;

   private:
    const StopSignal& signal_;
    uint64_t id_ = 0;
  };

 private:
  std::atomic<bool> requested_{false};
  mutable std::mutex mu_;
  mutable uint64_t lastId_ = 0;
  mutable std::vector<std::pair<uint64_t, std::function<void()>>> wakers_;
};

}  // namespace zerlan::server
