// SampleBuffer: one screen sample as the broadcast service hands it over: the
// picture (a shared, read-only PixelBuffer, or none) and the orientation
// attachment, an EXIF orientation code (1 up, 3 down, 6 right, 8 left, 2/4/5/7
// mirrored) that may be missing.
//
// A small value: copying it shares the pixel buffer. Made on the capture thread
// and passed on to the frame source, which keeps the buffer and the code.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "zephlo/platform/pixel_buffer.hpp"

namespace zephlo::platform {

// Sample kinds, as the broadcast service numbers them.
constexpr std::int64_t kSampleBufferTypeVideo = 1;
constexpr std::int64_t kSampleBufferTypeAudioApp = 2;
constexpr std::int64_t kSampleBufferTypeAudioMic = 3;

class SampleBuffer {
 public:
  SampleBuffer() = default;
  explicit SampleBuffer(std::shared_ptr<const PixelBuffer> imageBuffer,
                        std::optional<std::int64_t> orientation = std::nullopt)
      : imageBuffer_(std::move(imageBuffer)), orientation_(orientation) {}

  // The sample's picture; null for samples that carry none (audio).
  const std::shared_ptr<const PixelBuffer>& imageBuffer() const { return imageBuffer_; }
  // The orientation attachment, when the sample has one.
  std::optional<std::int64_t> orientationAttachment() const { return orientation_; }

 private:
  std::shared_ptr<const PixelBuffer> imageBuffer_;
  std::optional<std::int64_t> orientation_;
};

}  // namespace zephlo::platform
