// ZPHReplayKitFrameSource: the frame source over the broadcast service's screen
// samples. It keeps only the newest video sample and its orientation, and does
// the costly work (Lanczos scaling, the orientation turn, rendering to a bitmap)
// only when the frame loop asks for a frame, at most once per tick.
//
// Created by the extension controller and owned by the frame loop it is
// installed in. Samples come in on the capture thread (processSampleBuffer); the
// frame loop's calls (newFrame, isNewFrameAvailable, capturingWillStart,
// capturingWillStop) come on the main queue.
//
// THREADING: the two sides meet in one latest-sample slot, an atomic shared
// pointer that a new sample replaces as a whole (the previous one is released at
// once, so memory stays at one pixel buffer), and in the atomic `isDirty` flag,
// set after the slot. newFrame clears the flag before it renders, so a sample that
// lands during the rendering counts as new. The renderer and its scaler cache are
// used on the main queue only.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "zephlo/capture/frame_source.hpp"
#include "zephlo/platform/image.hpp"
#include "zephlo/platform/image_renderer.hpp"
#include "zephlo/platform/sample_buffer.hpp"

namespace zephlo {

class ZPHReplayKitFrameSource : public ZPHFrameSource {
 public:
  ZPHReplayKitFrameSource();
  ~ZPHReplayKitFrameSource() override;
  ZPHReplayKitFrameSource(const ZPHReplayKitFrameSource&) = delete;
  ZPHReplayKitFrameSource& operator=(const ZPHReplayKitFrameSource&) = delete;

  // Takes a sample (capture thread). Only video samples (type 1) are kept; other
  // types are logged and ignored, and a sample without a picture changes nothing.
  void processSampleBuffer(const platform::SampleBuffer& sample, std::int64_t withType);

  // Main queue.
  void capturingWillStart() override;
  // Drops the kept sample; isNewFrameAvailable may still say true until the next
  // newFrame, which then yields null.
  void capturingWillStop() override;
  // Renders the kept sample at `scale` times the screen's point size: the factor
  // is the screen's height in points over the sample's height in pixels, times
  // `scale`. Null without a sample, for a factor that is not a positive finite
  // number, or when the result would be smaller than one pixel.
  std::unique_ptr<platform::Bitmap> newFrame(double scale) override;
  bool isNewFrameAvailable() override;

 private:
  // The newest sample: its picture and the orientation code it came with.
  struct Latest {
    platform::Image image;
    std::uint32_t orientation;
  };

  std::atomic<std::shared_ptr<const Latest>> latest_;
  std::atomic<bool> isDirty_{false};
  platform::ImageRenderer renderer_;
};

}  // namespace zephlo
