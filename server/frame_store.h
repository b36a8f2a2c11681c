// The frame that every GET /frame answers with, and its hand-over from the producer thread to
// the serving threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace zerlan::server {

// One encoded frame, immutable once published. `wire` is the complete HTTP response (status
// line, headers, JPEG), so a request is answered with one write of bytes shared by every
// request for the same frame.
struct Frame {
  uint64_t number = 0;  // 1 for the first frame a server publishes, then +1 per frame
  int width = 0;
  int height = 0;
  uint64_t tag = 0;  // the publisher's own marker (the producer stores its settings version)
  uint64_t index = 0;  // the source's own count: 0 for its first frame, +1 for each one after
  std::chrono::steady_clock::time_point published;
  std::string wire;
  size_t headSize = 0;

  std::string_view head() const { return std::string_view(wire).substr(0, headSize); }
  std::string_view jpeg() const { return std::string_view(wire).substr(headSize); }
};

class FrameStore {
 public:
  using Clock = std::chrono::steady_clock;

  FrameStore() = default;
  FrameStore(const FrameStore&) = delete;
  FrameStore& operator=(const FrameStore&) = delete;

  // The latest frame, or null before the first one. Holds a lock only for a pointer copy.
  std::shared_ptr<const Frame> current() const {
    std::lock_guard lock(currentMu_);
    return current_;
  }

  // The number the next published frame will get (the pattern draws it into the image).
  uint64_t nextNumber() const;

  // Makes `jpeg` the current frame and wakes waiters. Returns the published frame.
  std::shared_ptr<const Frame> publish(std::string_view jpeg, int width, int height,
                                       uint64_t tag = 0, uint64_t index = 0);

  // Blocks until the current frame satisfies `accept` or `deadline` passes; returns the frame
  // that satisfied it, or null on time-out or once waits are abandoned.
  std::shared_ptr<const Frame> waitFor(const std::function<bool(const Frame&)>& accept,
                                       Clock::time_point deadline) const;

  std::shared_ptr<const Frame> waitNewer(uint64_t number, Clock::time_point deadline) const {
    return waitFor([number](const Frame& f) { return f.number > number; }, deadline);
  }

  // Ends every wait, now and later, for a server that stops: no frame is coming.
  void abandonWaits();

 private:
  // A plain mutex rather than std::atomic<std::shared_ptr>: libstdc++'s version spins on a
  // bit that ThreadSanitizer cannot see, and the lock is held for a pointer copy either way.
  mutable std::mutex currentMu_;
  std::shared_ptr<const Frame> current_;
  mutable std::mutex mu_;
  mutable std::condition_variable cv_;
  uint64_t last_ = 0;
  bool abandoned_ = false;
};

}  // namespace zerlan::server
