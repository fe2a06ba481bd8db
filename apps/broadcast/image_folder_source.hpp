// ImageFolderSource: shows the JPEG files of a folder (".jpg" or ".jpeg", any
// case) in name order, each for one second, then starts again from the first.
// Each picture is decoded with TurboJPEG, scaled to fit the sample size and
// centred on black (letterboxed), once when its second begins; in between the
// same buffer is handed over again at every tick, as a phone hands over samples
// of a still screen. Buffers come from a small pool.
//
// Owned by the broadcast host; samples are made on its ticker's thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/broadcast/pixel_buffer_pool.hpp"
#include "apps/broadcast/sample_ticker.hpp"
#include "apps/broadcast/screen_source.hpp"

namespace zephlo {

class ImageFolderSource : public ScreenSource {
 public:
  // Delivers `sampleRate` samples a second. Null, with `error` set, when the
  // folder cannot be read or holds no JPEG file.
  static std::unique_ptr<ImageFolderSource> open(const std::string& folder, platform::PixelFormat format, int width,
                                                 int height, std::int64_t orientation, double sampleRate,
                                                 std::string* error);

  void start(Sink sink, EndHandler ended) override;
  void stop() override;

  // The sample of the tick at `sinceStart`.
  std::optional<platform::SampleBuffer> sampleAt(platform::Duration sinceStart);

  const std::vector<std::filesystem::path>& files() const { return files_; }

  // Decodes the JPEG `data` and letterboxes it into the BGRA `out`; false (and
  // `out` black) when the data does not decode.
  static bool decodeInto(const std::vector<std::uint8_t>& data, platform::PixelBuffer& out);

  ImageFolderSource(std::vector<std::filesystem::path> files, platform::PixelFormat format, int width, int height,
                    std::int64_t orientation, double sampleRate);

 private:
  std::vector<std::filesystem::path> files_;
  PixelBufferPool pool_;
  std::int64_t orientation_;
  std::optional<std::size_t> shownIndex_;
  std::shared_ptr<const platform::PixelBuffer> shown_;
  SampleTicker ticker_;
};

}  // namespace zephlo
