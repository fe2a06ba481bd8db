#include "zephlo/capture/replay_kit_frame_source.hpp"

#include "zephlo/platform/log.hpp"
#include "zephlo/platform/screen.hpp"
#include "zephlo/platform/sequence_checker.hpp"

namespace zephlo {

namespace {
constexpr std::uint32_t kOrientationRight = 6;
constexpr std::uint32_t kOrientationLeft = 8;
}  // namespace

ZPHReplayKitFrameSource::ZPHReplayKitFrameSource() = default;
ZPHReplayKitFrameSource::~ZPHReplayKitFrameSource() = default;

void ZPHReplayKitFrameSource::processSampleBuffer(const platform::SampleBuffer& sample,
                                                  std::int64_t withType) {
  if (withType != platform::kSampleBufferTypeVideo) {
    platform::log("ignoring non-video sample");
    return;
  }
  const auto& pixelBuffer = sample.imageBuffer();
  if (!pixelBuffer) return;
  // A missing attachment reads as 0, which leaves the picture unturned.
  const auto orientation = static_cast<std::uint32_t>(sample.orientationAttachment().value_or(0));
  latest_.store(std::make_shared<const Latest>(Latest{platform::Image(pixelBuffer), orientation}));
  isDirty_.store(true);
}

void ZPHReplayKitFrameSource::capturingWillStart() { ZEPHLO_DCHECK_ON_MAIN_QUEUE(); }

void ZPHReplayKitFrameSource::capturingWillStop() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  latest_.store(nullptr);
}

std::unique_ptr<platform::Bitmap> ZPHReplayKitFrameSource::newFrame(double scale) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  const std::shared_ptr<const Latest> latest = latest_.load();
  if (!latest) return nullptr;
  isDirty_.store(false);

  const double sampleHeight = latest->image.pixelBuffer()->height();
  const double factor = platform::Screen::main().height / sampleHeight * scale;
  platform::Image image = latest->image.byApplyingLanczosScale(factor);
  // The sideways codes are deliberately swapped (6 is turned as 8, 8 as 6); every
  // other code, the mirrored ones included, leaves the picture as it came.
  if (latest->orientation == kOrientationRight) {
    image = image.byApplyingOrientation(kOrientationLeft);
  } else if (latest->orientation == kOrientationLeft) {
    image = image.byApplyingOrientation(kOrientationRight);
  }
  return renderer_.render(image);
}

bool ZPHReplayKitFrameSource::isNewFrameAvailable() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  return isDirty_.load();
}

}  // namespace zephlo
