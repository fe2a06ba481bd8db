#include "zephlo/capture/frame_loop.hpp"

#include <cstring>
#include <utility>

#include "zephlo/base/fatal_error.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo {

std::shared_ptr<ZPHFrameLoop> ZPHFrameLoop::create(std::weak_ptr<ZPHFrameLoopDelegate> delegate) {
  return std::shared_ptr<ZPHFrameLoop>(new ZPHFrameLoop(std::move(delegate)));
}

ZPHFrameLoop::ZPHFrameLoop(std::weak_ptr<ZPHFrameLoopDelegate> delegate) : delegate_(std::move(delegate)) {}

void ZPHFrameLoop::registerFrameLoopObserver(std::shared_ptr<ZPHFrameLoopObserver> observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.add(std::move(observer));
}

void ZPHFrameLoop::removeFrameLoopObserver(const std::shared_ptr<ZPHFrameLoopObserver>& observer) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  observers_.remove(observer);
}

bool ZPHFrameLoop::isRunning() const {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  return nextFrameBlock_ != nullptr;
}

void ZPHFrameLoop::start() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (isRunning()) return;
  if (auto src = source()) src->capturingWillStart();
  loop();
}

void ZPHFrameLoop::stop() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (auto src = source()) src->capturingWillStop();
  if (nextFrameBlock_) nextFrameBlock_->cancel();
  nextFrameBlock_ = nullptr;
}

void ZPHFrameLoop::loop() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (nextFrameBlock_) return;

  // The pending tick keeps the loop alive until it runs or is cancelled.
  auto self = shared_from_this();
  nextFrameBlock_ = std::make_shared<platform::WorkItem>([self] {
    self->nextFrameBlock_ = nullptr;
    self->loop();
  });
  // The delay is chosen before this tick captures: a tick that starts a send
  // still schedules its successor 75 ms later, however fast the send is.
  const platform::Duration delay = updating_ ? platform::Duration(kSendingTickInterval)
                                             : platform::Duration(kIdleTickInterval);
  platform::MainQueue::shared().schedule(nextFrameBlock_, delay);
  if (updating_) return;

  updating_ = true;
  FrameImage image = newFrame();
  auto delegate = delegate_.lock();
  if (!image || !delegate) {
    updating_ = false;
    return;
  }
  // The callback holds the frame until the send is done, and the loop only
  // weakly: a send may finish after the loop is gone.
  struct Send {
    std::weak_ptr<ZPHFrameLoop> loop;
    FrameImage image;
    bool done = false;
  };
  auto send = std::make_shared<Send>(Send{weak_from_this(), image});
  delegate->handleFrame(std::move(image), [send](bool ok) {
    ZEPHLO_DCHECK_ON_MAIN_QUEUE();
    if (send->done) fatalError("frame send callback called twice");
    send->done = true;
    send->image.reset();
    if (auto loop = send->loop.lock()) loop->frameDidSend(ok);
  });
}

void ZPHFrameLoop::frameDidSend(bool ok) {
  updating_ = false;
  if (!ok) invalidateFrame();
}

FrameImage ZPHFrameLoop::newFrame() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  auto delegate = delegate_.lock();
  if (!delegate || !delegate->shouldCaptureFrame()) return nullptr;
  if (!needsUpdate()) return nullptr;

  // Both rounds go to the observers registered now.
  const auto observers = observers_.snapshot();
  for (const auto& observer : observers) observer->willCaptureFrame();
  const double scale = delegate->scale();
  auto src = source();
  FrameImage image = src ? FrameImage(src->newFrame(scale)) : nullptr;
  for (const auto& observer : observers) observer->didCaptureFrame(image);
  if (!image) return nullptr;

  SharedBytes data = image->bytes();
  if (!data || data->empty()) return nullptr;
  // Lengths first: a frame of another size is new without reading its bytes.
  if (lastFrameData_ && lastFrameData_->size() == data->size() &&
      std::memcmp(lastFrameData_->data(), data->data(), data->size()) == 0) {
    return nullptr;
  }
  // Kept before the send; a failed send is made good by invalidateFrame.
  lastFrameData_ = std::move(data);
  return image;
}

void ZPHFrameLoop::invalidateFrame() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  lastFrameData_ = nullptr;
}

bool ZPHFrameLoop::needsUpdate() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (!lastFrameData_) return true;
  auto src = source();
  return src && src->isNewFrameAvailable();
}

std::shared_ptr<ZPHFrameSource> ZPHFrameLoop::source() const { return source_.load(); }

void ZPHFrameLoop::setSource(std::shared_ptr<ZPHFrameSource> source) { source_.store(std::move(source)); }

}  // namespace zephlo
