// The per-frame cost of the capture path on the canonical phone sample (1170x2532,
// BGRA and NV12 full range): rendering (scale, turn, render), the byte comparison
// with the last frame, JPEG encoding at quality 0.6, each alone and all together,
// next to one plain memcpy of the sample as the yardstick. Before the timings it
// prints how close the rendering stays to an exact Lanczos-3 resampling (luma
// PSNR).
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "bench/lanczos_reference.hpp"
#include "bench/phone_screen.hpp"
#include "zephlo/capture/frame_loop.hpp"
#include "zephlo/capture/replay_kit_frame_source.hpp"
#include "zephlo/platform/image_renderer.hpp"
#include "zephlo/platform/jpeg_encoder.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/screen.hpp"

namespace zephlo::bench {
namespace {

constexpr double kScreenHeight = 844;
constexpr double kSessionScale = 0.5;
constexpr double kFactor = kScreenHeight / kPhoneHeight * kSessionScale;
constexpr double kJpegQuality = 0.6;

struct Samples {
  // Two pictures that differ only in their last rows, so that consecutive frames
  // are new and the comparison reads nearly all of them.
  std::shared_ptr<platform::PixelBuffer> bgra[2];
  std::shared_ptr<platform::PixelBuffer> nv12[2];
};

const Samples& samples() {
  static const Samples s = [] {
    Samples out;
    for (int i = 0; i < 2; ++i) {
      auto bgra = drawPhoneScreen();
      if (i == 1) {
        for (int y = kPhoneHeight - 6; y < kPhoneHeight; ++y)
          std::memset(bgra->mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * bgra->stride(0), 0, 4 * 600);
      }
      out.nv12[i] = platform::PixelBuffer::nv12From(*bgra);
      out.bgra[i] = std::move(bgra);
    }
    return out;
  }();
  return s;
}

const std::shared_ptr<platform::PixelBuffer>& sample(const benchmark::State& state, int which = 0) {
  return state.range(0) == 0 ? samples().bgra[which] : samples().nv12[which];
}

const char* formatName(std::int64_t format) { return format == 0 ? "BGRA" : "NV12"; }

std::size_t sampleBytes(const platform::PixelBuffer& buffer) {
  std::size_t size = 0;
  for (int p = 0; p < buffer.planeCount(); ++p)
    size += static_cast<std::size_t>(buffer.stride(p)) * buffer.planeHeight(p);
  return size;
}

void BM_MemcpySample(benchmark::State& state) {
  const auto& buffer = *sample(state);
  const std::size_t size = sampleBytes(buffer);
  std::vector<std::uint8_t> copy(size, 1);
  for (auto _ : state) {
    // The planes lie one after the other in one allocation.
    std::memcpy(copy.data(), buffer.plane(0), size);
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetLabel(formatName(state.range(0)));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * size));
}

void BM_Render(benchmark::State& state) {
  platform::ImageRenderer renderer;
  const auto image =
      platform::Image(sample(state)).byApplyingLanczosScale(kFactor).byApplyingOrientation(
          static_cast<std::uint32_t>(state.range(1)));
  for (auto _ : state) {
    auto bitmap = renderer.render(image);
    benchmark::DoNotOptimize(bitmap.get());
  }
  state.SetLabel(std::string(formatName(state.range(0))) + " orientation " + std::to_string(state.range(1)));
}

void BM_CompareFrames(benchmark::State& state) {
  // Two equal frames: the comparison reads every byte.
  platform::ImageRenderer renderer;
  const auto image = platform::Image(sample(state)).byApplyingLanczosScale(kFactor);
  const SharedBytes a = renderer.render(image)->bytes();
  const SharedBytes b = renderer.render(image)->bytes();
  for (auto _ : state) {
    const bool same = a->size() == b->size() && std::memcmp(a->data(), b->data(), a->size()) == 0;
    benchmark::DoNotOptimize(same);
  }
  state.SetLabel(formatName(state.range(0)));
}

void BM_EncodeJpeg(benchmark::State& state) {
  platform::ImageRenderer renderer;
  const auto bitmap = renderer.render(platform::Image(sample(state)).byApplyingLanczosScale(kFactor));
  std::size_t size = 0;
  for (auto _ : state) {
    auto jpeg = platform::encodeJpeg(*bitmap, kJpegQuality);
    size = jpeg->size();
    benchmark::DoNotOptimize(jpeg.get());
  }
  state.counters["jpeg_bytes"] = static_cast<double>(size);
  state.SetLabel(formatName(state.range(0)));
}

class AlwaysCapture : public ZPHFrameLoopDelegate {
 public:
  double scale() override { return kSessionScale; }
  void handleFrame(FrameImage, std::function<void(bool)> callback) override { callback(true); }
  bool shouldCaptureFrame() override { return true; }
};

// The whole per-frame path through the production classes: a new sample reaches
// the source, the loop captures (render and compare with the last frame) and the
// frame is JPEG-encoded.
void BM_FramePath(benchmark::State& state) {
  platform::Screen::setMain({390, kScreenHeight, 3});
  auto delegate = std::make_shared<AlwaysCapture>();
  auto loop = ZPHFrameLoop::create(delegate);
  auto source = std::make_shared<ZPHReplayKitFrameSource>();
  loop->setSource(source);
  int which = 0;
  std::int64_t dropped = 0;
  for (auto _ : state) {
    source->processSampleBuffer(platform::SampleBuffer(sample(state, which)), platform::kSampleBufferTypeVideo);
    which ^= 1;
    FrameImage frame = loop->newFrame();
    if (!frame) {
      ++dropped;
      continue;
    }
    auto jpeg = platform::encodeJpeg(*frame, kJpegQuality);
    benchmark::DoNotOptimize(jpeg.get());
  }
  state.counters["dropped"] = static_cast<double>(dropped);
  state.SetLabel(formatName(state.range(0)));
}

// Formats: 0 BGRA, 1 NV12.
BENCHMARK(BM_MemcpySample)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Render)->Args({0, 1})->Args({1, 1})->Args({0, 6})->Args({1, 6})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompareFrames)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodeJpeg)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FramePath)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

void reportLanczosFidelity() {
  platform::ImageRenderer renderer;
  for (const auto& buffer : {samples().bgra[0], samples().nv12[0]}) {
    const auto bitmap = renderer.render(platform::Image(buffer).byApplyingLanczosScale(kFactor));
    const LumaPlane reference = lanczos3(lumaOf(*buffer), bitmap->width(), bitmap->height());
    std::printf("%s %dx%d -> %dx%d: luma PSNR against exact Lanczos-3: %.2f dB\n",
                buffer->format() == platform::PixelFormat::BGRA ? "BGRA" : "NV12", buffer->width(),
                buffer->height(), bitmap->width(), bitmap->height(), lumaPsnr(*bitmap, reference));
  }
  std::fflush(stdout);
}

}  // namespace
}  // namespace zephlo::bench

int main(int argc, char** argv) {
  // The loop's methods belong to the main queue; this thread is it.
  zephlo::platform::MainQueue::shared().reset(zephlo::platform::ClockKind::Manual);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  zephlo::bench::reportLanczosFidelity();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
