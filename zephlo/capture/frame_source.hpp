// ZPHFrameSource: what the frame loop knows of a source of screen frames. The
// loop calls it on the main queue only: it says when capturing starts and stops,
// asks whether a new sample has come since the last frame, and asks for a frame
// rendered at a scale.
//
// Owned by the frame loop (installed with ZPHFrameLoop::setSource).
#pragma once

#include <memory>

#include "zephlo/platform/bitmap.hpp"

namespace zephlo {

class ZPHFrameSource {
 public:
  virtual ~ZPHFrameSource() = default;

  // The loop is about to start ticking.
  virtual void capturingWillStart() = 0;
  // The loop has been told to stop.
  virtual void capturingWillStop() = 0;
  // The current sample rendered at `scale`, owned by the caller; null when there
  // is nothing to render.
  virtual std::unique_ptr<platform::Bitmap> newFrame(double scale) = 0;
  // Whether a sample arrived since the last newFrame.
  virtual bool isNewFrameAvailable() = 0;
};

}  // namespace zephlo
