// Work the run hands to the machine's second core.
//
// A task reads only what the run has finished changing and writes only
// its own results.  Its turn in the run stays where the run collects it:
// its messages are held back and printed then, and a task that ends the
// run ends it there.  So what the run prints and writes is the same
// whichever core gets where first, and the same as when the task runs in
// its turn.  A run that ends before it collects a task waits for the task
// and drops what it found, messages too, as if its turn had never come.
//
// Tasks run one at a time, in the order they were handed over, on one
// thread beside the run's.
#pragma once

#include <functional>
#include <memory>

namespace vesk {

class Background {
public:
  explicit Background(std::function<void()> work);
  // Does the work at once in the run's thread, ahead of its turn (while
  // the second core is busy with other work): its messages are held and
  // its end put off until collect, as for a task handed over.
  struct Now {};
  Background(Now, std::function<void()> work);
  // A task that needs nothing of the tasks handed over before it: when the
  // run waits for it before the second core has begun it (that core busy
  // with earlier work), the run does it itself rather than wait idle.
  struct Independent {};
  Background(Independent, std::function<void()> work);
  ~Background();
  Background(const Background &) = delete;
  Background &operator=(const Background &) = delete;

  // Waits for the task, prints its messages, and ends the run as the
  // task did, if it did.  The task's results are the caller's from here.
  void collect();
  // Waits for the task without its turn coming: its results are the
  // caller's to read (a task that failed left some), its messages and its
  // end wait for collect.  A task that runs in its turn runs now, its
  // messages held all the same.
  void wait();

  // Tasks handed over from here on run in their turn, in the run's thread
  // (the tests compare the two).
  static void run_in_turn(bool yes);

  struct Task;

private:
  std::shared_ptr<Task> task_;
};

} // namespace vesk
