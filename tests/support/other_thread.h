// A second thread that does what a test tells it to.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace support {

class OtherThread {
 public:
  OtherThread() : thread_([this] { work(); }) {}
  ~OtherThread() {
    hand([this] { ended_ = true; });
    thread_.join();
  }
  OtherThread(const OtherThread&) = delete;
  OtherThread& operator=(const OtherThread&) = delete;

  // Returns when `task` has run on the thread.
  void run(const std::function<void()>& task) { hand(task); }

 private:
  void hand(const std::function<void()>& task) {
    std::unique_lock lock(mutex_);
    task_ = task;
    changed_.notify_all();
    changed_.wait(lock, [this] { return task_ == nullptr; });
  }

  void work() {
    std::unique_lock lock(mutex_);
    while (!ended_) {  // set by a task, on this thread
      changed_.wait(lock, [this] { return task_ != nullptr; });
      lock.unlock();
      task_();
      lock.lock();
      task_ = nullptr;
      changed_.notify_all();
    }
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::function<void()> task_;
  bool ended_ = false;
  std::thread thread_;
};

}  // namespace support
