// MainQueue: the process's main queue, the one thread on which the extension's
// objects live (ticks, REST replies, socket callbacks, scheduled work).
//
// It runs on the host's main thread over an event loop. Work posted with `async`
// may come from any thread; delayed work (`after`) and repeating timers are created
// and cancelled on the main queue only. The queue's clock can be switched to a
// manual clock that tests advance by hand, so timing is tested without sleeping:
// `advance(d)` runs every item that falls due within `d`, each at its own deadline.
//
// THREADING: `async`, `stop` and `isCurrent` are safe from any thread; everything
// else belongs to the main queue's thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

namespace boost::asio {
class io_context;
}  // namespace boost::asio

namespace zephlo::platform {

using Duration = std::chrono::nanoseconds;

// A one-shot piece of delayed work. Cancelling it before it runs means it never
// runs; cancelling it after it started has no effect. Owned by whoever scheduled
// it (and by the queue until it runs or is cancelled).
class WorkItem {
 public:
  explicit WorkItem(std::function<void()> body);
  WorkItem(const WorkItem&) = delete;
  WorkItem& operator=(const WorkItem&) = delete;

  void cancel();
  bool isCancelled() const { return cancelled_; }
  // Scheduled and neither run nor cancelled yet.
  bool isPending() const { return scheduled_ && !started_ && !cancelled_; }

 private:
  friend class MainQueue;
  void perform();

  std::function<void()> body_;
  bool scheduled_ = false;
  bool started_ = false;
  bool cancelled_ = false;
};

using WorkItemPtr = std::shared_ptr<WorkItem>;

enum class ClockKind { Real, Manual };

class MainQueue {
 public:
  // The process-wide main queue.
  static MainQueue& shared();

  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;

  // Runs `fn` soon on the main queue. Any thread.
  void async(std::function<void()> fn);

  // Runs `fn` on the main queue once `delay` has passed. The returned item can be
  // cancelled. Main queue only.
  WorkItemPtr after(Duration delay, std::function<void()> fn);
  // Schedules an existing item (not yet scheduled) after `delay`.
  void schedule(const WorkItemPtr& item, Duration delay);

  // Time since the queue's epoch, on the queue's current clock.
  Duration now() const;

  // Runs the queue on the calling thread until `stop`. The calling thread becomes
  // the main queue's thread.
  void run();
  // Makes `run` return. Any thread.
  void stop();
  // Runs whatever is ready now without waiting; returns the number of handlers run.
  std::size_t poll();
  // Runs the queue until `done()` is true or `limit` of real time has passed;
  // returns `done()`. For tests that wait on real sockets.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds limit = std::chrono::seconds(10));

  // True on the main queue's thread.
  bool isCurrent() const;

  // Drops every pending delayed item, switches to `clock` (a manual clock starts
  // at zero) and binds the queue to the calling thread. For tests and hosts.
  void reset(ClockKind clock);
  ClockKind clock() const;
  // Manual clock only: moves time forward by `by`, running every delayed item that
  // falls due on the way at its own deadline, and everything posted meanwhile.
  void advance(Duration by);
  // Number of delayed items still waiting (cancelled ones excluded).
  std::size_t pendingCount() const;

  struct Impl;
  Impl& impl() { return *impl_; }

 private:
  MainQueue();
  ~MainQueue();
  std::unique_ptr<Impl> impl_;
};

// A timer that calls `fire` every `interval` on the main queue until invalidated
// or destroyed. Create and invalidate it on the main queue.
class RepeatingTimer {
 public:
  RepeatingTimer(Duration interval, std::function<void()> fire);
  ~RepeatingTimer();
  RepeatingTimer(const RepeatingTimer&) = delete;
  RepeatingTimer& operator=(const RepeatingTimer&) = delete;

  void invalidate();
  bool isValid() const { return state_ != nullptr; }

 private:
  struct State;
  static void scheduleTick(const std::shared_ptr<State>& state);
  std::shared_ptr<State> state_;
};

// Shorthands for the shared queue.
inline void async(std::function<void()> fn) { MainQueue::shared().async(std::move(fn)); }
inline WorkItemPtr after(Duration delay, std::function<void()> fn) {
  return MainQueue::shared().after(delay, std::move(fn));
}

// The event loop the main queue runs, for code that does its own network I/O on
// the main queue (the WebSocket client, the reference service, test servers).
// Handlers posted to it run on the main queue's thread; include
// <boost/asio/io_context.hpp> to use it.
boost::asio::io_context& ioContext();

}  // namespace zephlo::platform
