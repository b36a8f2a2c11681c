// Worker threads: one pool per quality-of-service class.
#include "internal.h"

#include <pthread.h>

#include <algorithm>
#include <thread>

namespace fakedispatch {

namespace {

// Enough for work that blocks on other work (dispatch_sync, semaphores, groups) to make
// progress; Apple's pools grow much the same way when their threads block.
constexpr int kHardLimit = 64;
constexpr auto kIdleExit = std::chrono::seconds(5);

thread_local RootPool *tWorkerPool = nullptr;

} // namespace

RootPool::RootPool(std::string name)
    : name_(std::move(name)), softLimit_(std::max(8, static_cast<int>(std::thread::hardware_concurrency())))
{
}

void RootPool::push(Task task, void *argument)
{
    std::lock_guard<std::mutex> lock(mutex_);
    tasks_.emplace_back(task, argument);
    if (static_cast<int>(tasks_.size()) > idle_)
        spawnIfNeededLocked();
    cv_.notify_one();
}

void RootPool::spawnIfNeededLocked()
{
    int runnable = threads_ - idle_ - blocked_;
    if (runnable >= softLimit_ || threads_ >= kHardLimit)
        return;
    threads_++;
    std::thread([this] { workerLoop(); }).detach();
}

void RootPool::blockedBegin()
{
    std::lock_guard<std::mutex> lock(mutex_);
    blocked_++;
    if (!tasks_.empty() && static_cast<int>(tasks_.size()) > idle_)
        spawnIfNeededLocked();
}

void RootPool::blockedEnd()
{
    std::lock_guard<std::mutex> lock(mutex_);
    blocked_--;
}

void RootPool::workerLoop()
{
    tWorkerPool = this;
    // Thread names are limited to 15 characters.
    pthread_setname_np(pthread_self(), name_.substr(0, 15).c_str());
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        if (!tasks_.empty()) {
            auto [task, argument] = tasks_.front();
            tasks_.pop_front();
            lock.unlock();
            task(argument);
            lock.lock();
            continue;
        }
        idle_++;
        bool woken = cv_.wait_for(lock, kIdleExit, [this] { return !tasks_.empty(); });
        idle_--;
        if (!woken) {
            threads_--;
            return;
        }
    }
}

BlockedScope::BlockedScope() : pool_(tWorkerPool)
{
    if (pool_)
        pool_->blockedBegin();
}

BlockedScope::~BlockedScope()
{
    if (pool_)
        pool_->blockedEnd();
}

} // namespace fakedispatch
