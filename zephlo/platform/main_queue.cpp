#include "zephlo/platform/main_queue.hpp"

#include <atomic>
#include <map>
#include <thread>
#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include "zephlo/base/fatal_error.hpp"

namespace zephlo::platform {

namespace asio = boost::asio;
using SteadyClock = std::chrono::steady_clock;

WorkItem::WorkItem(std::function<void()> body) : body_(std::move(body)) {}

void WorkItem::cancel() {
  if (started_ || cancelled_) return;
  cancelled_ = true;
  body_ = nullptr;  // releases whatever the body holds
}

void WorkItem::perform() {
  if (cancelled_ || started_) return;
  started_ = true;
  auto body = std::move(body_);
  body_ = nullptr;
  if (body) body();
}

struct MainQueue::Impl {
  asio::io_context io;
  asio::executor_work_guard<asio::io_context::executor_type> guard{io.get_executor()};
  asio::steady_timer wakeup{io};
  std::atomic<std::thread::id> owner{std::this_thread::get_id()};
  ClockKind clock = ClockKind::Real;
  SteadyClock::time_point epoch = SteadyClock::now();
  Duration manualNow{0};
  std::uint64_t nextSeq = 0;
  // Ordered by deadline, then by order of scheduling.
  std::map<std::pair<Duration, std::uint64_t>, WorkItemPtr> timers;

  Duration now() const {
    if (clock == ClockKind::Manual) return manualNow;
    return std::chrono::duration_cast<Duration>(SteadyClock::now() - epoch);
  }

  // Real clock: keep the asio timer armed for the earliest deadline.
  void rearm() {
    if (clock != ClockKind::Real || timers.empty()) return;
    wakeup.expires_at(epoch + timers.begin()->first.first);
    wakeup.async_wait([this](const boost::system::error_code& ec) {
      if (ec == asio::error::operation_aborted) return;
      runDue(now());
      rearm();
    });
  }

  // Runs every item due at or before `limit`, earliest first. Returns whether any ran.
  bool runOneDue(Duration limit) {
    if (timers.empty() || timers.begin()->first.first > limit) return false;
    auto node = timers.extract(timers.begin());
    if (clock == ClockKind::Manual) manualNow = std::max(manualNow, node.key().first);
    node.mapped()->perform();
    return true;
  }
  void runDue(Duration limit) {
    while (runOneDue(limit)) {
    }
  }
};

MainQueue& MainQueue::shared() {
  // Never destroyed: work may still be posted to it while the process exits.
  static MainQueue* queue = new MainQueue();
  return *queue;
}

MainQueue::MainQueue() : impl_(std::make_unique<Impl>()) {}
MainQueue::~MainQueue() = default;

void MainQueue::async(std::function<void()> fn) { asio::post(impl_->io, std::move(fn)); }

WorkItemPtr MainQueue::after(Duration delay, std::function<void()> fn) {
  auto item = std::make_shared<WorkItem>(std::move(fn));
  schedule(item, delay);
  return item;
}

void MainQueue::schedule(const WorkItemPtr& item, Duration delay) {
  if (!item || item->scheduled_) fatalError("a work item can be scheduled once");
  item->scheduled_ = true;
  if (delay < Duration::zero()) delay = Duration::zero();
  const auto deadline = impl_->now() + delay;
  const bool earliest = impl_->timers.empty() || deadline < impl_->timers.begin()->first.first;
  impl_->timers.emplace(std::make_pair(deadline, impl_->nextSeq++), item);
  if (earliest) impl_->rearm();
}

Duration MainQueue::now() const { return impl_->now(); }

void MainQueue::run() {
  impl_->owner = std::this_thread::get_id();
  impl_->io.restart();
  impl_->io.run();
}

void MainQueue::stop() { impl_->io.stop(); }

std::size_t MainQueue::poll() {
  if (impl_->io.stopped()) impl_->io.restart();
  return impl_->io.poll();
}

bool MainQueue::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto end = SteadyClock::now() + limit;
  if (impl_->io.stopped()) impl_->io.restart();
  while (!done()) {
    const auto left = end - SteadyClock::now();
    if (left <= SteadyClock::duration::zero()) return done();
    impl_->io.run_one_for(std::min<SteadyClock::duration>(left, std::chrono::milliseconds(20)));
    if (impl_->io.stopped()) impl_->io.restart();
  }
  return true;
}

bool MainQueue::isCurrent() const { return impl_->owner.load() == std::this_thread::get_id(); }

void MainQueue::reset(ClockKind clock) {
  impl_->owner = std::this_thread::get_id();
  impl_->wakeup.cancel();
  auto dropped = std::move(impl_->timers);
  impl_->timers.clear();
  for (auto& [key, item] : dropped) item->cancel();
  dropped.clear();
  impl_->clock = clock;
  impl_->manualNow = Duration{0};
  impl_->epoch = SteadyClock::now();
  poll();  // lets the cancelled wakeup's handler finish
}

ClockKind MainQueue::clock() const { return impl_->clock; }

void MainQueue::advance(Duration by) {
  if (impl_->clock != ClockKind::Manual) fatalError("advance needs the manual clock");
  const auto target = impl_->manualNow + by;
  poll();
  while (impl_->runOneDue(target)) poll();
  impl_->manualNow = target;
  poll();
}

std::size_t MainQueue::pendingCount() const {
  std::size_t n = 0;
  for (const auto& [key, item] : impl_->timers) n += item->isPending() ? 1 : 0;
  return n;
}

boost::asio::io_context& ioContext() { return MainQueue::shared().impl().io; }

struct RepeatingTimer::State {
  Duration interval;
  std::function<void()> fire;
  WorkItemPtr next;
  bool valid = true;
};

RepeatingTimer::RepeatingTimer(Duration interval, std::function<void()> fire)
    : state_(std::make_shared<State>()) {
  state_->interval = interval;
  state_->fire = std::move(fire);
  scheduleTick(state_);
}

RepeatingTimer::~RepeatingTimer() { invalidate(); }

void RepeatingTimer::invalidate() {
  if (!state_) return;
  state_->valid = false;
  if (state_->next) state_->next->cancel();
  state_->fire = nullptr;
  state_.reset();
}

void RepeatingTimer::scheduleTick(const std::shared_ptr<State>& state) {
  std::weak_ptr<RepeatingTimer::State> weak = state;
  state->next = MainQueue::shared().after(state->interval, [weak] {
    auto s = weak.lock();
    if (!s || !s->valid) return;
    auto fire = s->fire;  // the callback may invalidate the timer
    if (fire) fire();
    if (s->valid) scheduleTick(s);
  });
}

}  // namespace zephlo::platform

#include <string>

#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo::platform {

void checkOnMainQueue(const char* function) {
  if (!MainQueue::shared().isCurrent())
    fatalError(std::string(function) + " called off the main queue");
}

}  // namespace zephlo::platform
