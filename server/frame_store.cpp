#include "server/frame_store.h"

namespace zerlan::server {

uint64_t FrameStore::nextNumber() const {
  std::lock_guard lock(mu_);
  return last_ + 1;
}

std::shared_ptr<const Frame> FrameStore::publish(std::string_view jpeg, int width, int height,
                                                 uint64_t tag, uint64_t index) {
  auto frame = std::make_shared<Frame>();
  frame->width = width;
  frame->height = height;
  frame->tag = tag;
  frame->index = index;
  frame->wire.reserve(jpeg.size() + 128);
  frame->wire.append("HTTP/1.1 200 OK\r\nContent-Type: image/jpeg\r\nContent-Length: ");
  frame->wire.append(std::to_string(jpeg.size()));
  frame->wire.append("\r\nConnection: close\r\n\r\n");
  frame->headSize = frame->wire.size();
  frame->wire.append(jpeg);
  {
    std::lock_guard lock(mu_);
    frame->number = ++last_;
    frame->published = Clock::now();
    std::lock_guard swap(currentMu_);
    current_ = frame;
  }
  cv_.notify_all();
  return frame;
}

std::shared_ptr<const Frame> FrameStore::waitFor(const std::function<bool(const Frame&)>& accept,
                                                 Clock::time_point deadline) const {
  std::unique_lock lock(mu_);
  std::shared_ptr<const Frame> found;
  cv_.wait_until(lock, deadline, [&] {
    if (abandoned_) return true;
    auto frame = current();
    if (frame && accept(*frame)) found = std::move(frame);
    return found != nullptr;
  });
  return found;
}

void FrameStore::abandonWaits() {
  {
    std::lock_guard lock(mu_);
    abandoned_ = true;
  }
  cv_.notify_all();
}

}  // namespace zerlan::server
