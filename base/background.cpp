#include "base/background.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <malloc.h>
#include <mutex>
#include <sched.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/diag.h"

namespace vesk {

struct Background::Task {
  std::function<void()> work;
  std::vector<HeldMessage> messages;
  std::exception_ptr failure; // Fatal once its message is held, or what else it threw
  bool started = false;
  bool done = false;
  bool dropped = false; // the run ended before collecting it: not begun if it has not begun
  bool in_turn = false; // not handed over: it runs when collected
  bool independent = false; // the run may take it back from the queue
};

namespace {

bool second_core() {
  cpu_set_t set;
  return sched_getaffinity(0, sizeof set, &set) == 0 && CPU_COUNT(&set) > 1;
}

std::atomic<bool> in_turn_only{false};

// Never destroyed: a task may still be waited for at exit (the run's
// records are static), and the thread waits for work until the process
// ends.
class Worker {
public:
  // Hands t over; false when it must run in the run's own thread (one
  // core only, or no thread to be had).
  bool hand_over(const std::shared_ptr<Background::Task> &t) {
    std::lock_guard<std::mutex> lock(m_);
    if (in_turn_only)
      return false;
    if (!thread_.joinable()) {
      if (!usable_)
        return false;
      usable_ = second_core();
      // One heap for both threads: what one frees, the other's next
      // buffers reuse.  A heap of its own for the second thread would
      // keep what its tasks freed beside the run's and raise the peak.
      if (usable_)
        mallopt(M_ARENA_MAX, 1);
      try {
        if (usable_)
          thread_ = std::thread([this] { loop(); });
      } catch (const std::system_error &) {
        usable_ = false;
      }
      if (!usable_)
        return false;
    }
    queue_.push_back(t);
    cv_.notify_all();
    return true;
  }

  // Waits for t; with drop, unless it has begun, it never does.  An
  // independent task not begun yet is done here, at once.
  void wait(Background::Task &t, bool drop) {
    std::unique_lock<std::mutex> lock(m_);
    if (drop && !t.started)
      t.dropped = true;
    if (!t.started && !t.dropped && t.independent) {
      t.started = true; // the second core passes it over
      lock.unlock();
      run(t);
      lock.lock();
      t.done = true;
    }
    cv_.wait(lock, [&] { return t.done || t.dropped; });
  }

private:
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<std::shared_ptr<Background::Task>> queue_;
  std::thread thread_;
  bool usable_ = true;

  void loop() {
    for (;;) {
      std::shared_ptr<Background::Task> t;
      {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return !queue_.empty(); });
        t = std::move(queue_.front());
        queue_.pop_front();
        if (t->dropped || t->started)
          continue;
        t->started = true;
      }
      run(*t);
      {
        std::lock_guard<std::mutex> lock(m_);
        t->done = true;
      }
      cv_.notify_all();
    }
  }

public:
  static void run(Background::Task &t) {
    hold_messages(&t.messages);
    try {
      t.work();
    } catch (...) {
      t.failure = std::current_exception();
    }
    hold_messages(nullptr);
  }
};

Worker &worker() {
  static Worker *w = new Worker;
  return *w;
}

} // namespace

Background::Background(std::function<void()> work) : task_(std::make_shared<Task>()) {
  task_->work = std::move(work);
  task_->in_turn = !worker().hand_over(task_);
}

Background::Background(Independent, std::function<void()> work) : task_(std::make_shared<Task>()) {
  task_->work = std::move(work);
  task_->independent = true;
  task_->in_turn = !worker().hand_over(task_);
}

Background::Background(Now, std::function<void()> work) : task_(std::make_shared<Task>()) {
  task_->work = std::move(work);
  task_->in_turn = true;
  Worker::run(*task_);
  task_->done = true;
}

Background::~Background() {
  if (task_ != nullptr && !task_->in_turn)
    worker().wait(*task_, true);
}

void Background::wait() {
  if (task_->in_turn) {
    if (!task_->done) {
      Worker::run(*task_);
      task_->done = true;
    }
    return;
  }
  worker().wait(*task_, false);
}

void Background::collect() {
  std::shared_ptr<Task> t = std::move(task_);
  if (t->in_turn && !t->done) {
    t->work();
    return;
  }
  if (!t->in_turn)
    worker().wait(*t, false);
  print_held(t->messages);
  if (t->failure)
    std::rethrow_exception(t->failure);
}

void Background::run_in_turn(bool yes) { in_turn_only = yes; }

} // namespace vesk
