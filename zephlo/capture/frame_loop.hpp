// ZPHFrameLoop: decides when a screen frame is captured and handed on for
// sending. It ticks on the main queue every 75 ms while idle and every 25 ms while
// a frame is being sent, keeps at most one frame in flight, asks its source for a
// frame only when one is due (none sent since the last invalidation, or a new
// sample), and drops a frame whose bitmap bytes equal the last one handed on.
//
// Created with ZPHFrameLoop::create by the extension controller, which owns it,
// is its delegate (held weakly: a gone delegate reads as "do not capture") and
// starts and stops it. While running, the pending tick holds the loop too, so a
// running loop lives until it is stopped. The loop owns its source and its
// observers. Every method runs on the main queue, and so must the delegate's send
// callback; the `source` property alone may be read and set from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

#include "zephlo/base/observer_set.hpp"
#include "zephlo/capture/frame_source.hpp"
#include "zephlo/platform/bitmap.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

// A rendered frame. The loop keeps it alive until the send callback.
using FrameImage = std::shared_ptr<const platform::Bitmap>;

class ZPHFrameLoopDelegate {
 public:
  virtual ~ZPHFrameLoopDelegate() = default;

  // The scale handed to the source for each frame.
  virtual double scale() = 0;
  // Sends `image`, then calls `callback` exactly once on the main queue: true
  // when the frame went out, false when nothing was sent. The sender must be done
  // with the image before it calls back.
  virtual void handleFrame(FrameImage image, std::function<void(bool)> callback) = 0;
  // Whether frames may be captured now.
  virtual bool shouldCaptureFrame() = 0;
};

// Watches the captures: told before each capture of a due frame and after it,
// with the rendered image (null when nothing was rendered), also when that frame
// is then dropped as unchanged.
class ZPHFrameLoopObserver {
 public:
  virtual ~ZPHFrameLoopObserver() = default;
  virtual void willCaptureFrame() = 0;
  virtual void didCaptureFrame(const FrameImage& image) = 0;
};

class ZPHFrameLoop : public std::enable_shared_from_this<ZPHFrameLoop> {
 public:
  static constexpr std::chrono::milliseconds kIdleTickInterval{75};
  static constexpr std::chrono::milliseconds kSendingTickInterval{25};

  // A stopped loop with no source and no observers.
  static std::shared_ptr<ZPHFrameLoop> create(std::weak_ptr<ZPHFrameLoopDelegate> delegate);

  ZPHFrameLoop(const ZPHFrameLoop&) = delete;
  ZPHFrameLoop& operator=(const ZPHFrameLoop&) = delete;

  void registerFrameLoopObserver(std::shared_ptr<ZPHFrameLoopObserver> observer);
  void removeFrameLoopObserver(const std::shared_ptr<ZPHFrameLoopObserver>& observer);

  // A tick is scheduled.
  bool isRunning() const;
  // When stopped: tells the source capturingWillStart and ticks at once. When
  // running: nothing.
  void start();
  // Tells the source capturingWillStop and cancels the pending tick, running or
  // not. A send in flight completes and its callback still runs.
  void stop();
  // One tick: schedules the next (25 ms if a send is in flight, else 75 ms) and,
  // unless a send is in flight, captures and hands on a due frame.
  void loop();
  // Captures one frame if one is due: null when capturing is not allowed, no
  // frame is due, the source has nothing, or the frame is unchanged.
  FrameImage newFrame();
  // Makes the next frame go out even if it equals the last one (after a failed
  // send, or when the agent asks for a fresh frame).
  void invalidateFrame();
  // A frame is due: none sent since the last invalidation, or a new sample.
  bool needsUpdate();

  std::shared_ptr<ZPHFrameSource> source() const;
  void setSource(std::shared_ptr<ZPHFrameSource> source);

 private:
  explicit ZPHFrameLoop(std::weak_ptr<ZPHFrameLoopDelegate> delegate);
  void frameDidSend(bool ok);

  ObserverSet<ZPHFrameLoopObserver> observers_;
  // The bitmap bytes of the last frame handed on; null when the next frame must
  // go out whatever it shows.
  SharedBytes lastFrameData_;
  // The next tick; set exactly while the loop runs.
  platform::WorkItemPtr nextFrameBlock_;
  // A frame is with the delegate and its callback has not come yet.
  bool updating_ = false;
  std::weak_ptr<ZPHFrameLoopDelegate> delegate_;
  std::atomic<std::shared_ptr<ZPHFrameSource>> source_;
};

}  // namespace zephlo
