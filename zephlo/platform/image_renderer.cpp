#include "zephlo/platform/image_renderer.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace zephlo::platform {

namespace {

constexpr int kAlignment = 64;
// Scalers kept for geometries seen recently; a broadcast uses one or two.
constexpr std::size_t kMaxScalers = 4;
// swscale's chroma position, in 1/256 of a luma sample: half way between two.
constexpr std::int64_t kCentredChroma = 128;

int alignUp(int bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }
int divideRoundingUp(int a, int b) { return (a + b - 1) / b; }

std::uint8_t toByte(float v) {
  // +0.5 then truncation rounds the non-negative values that reach the cast.
  // Written as selects rather than std::clamp so that the loops calling it
  // vectorise.
  v += 0.5f;
  v = v < 0.0f ? 0.0f : v;
  v = v > 255.0f ? 255.0f : v;
  return static_cast<std::uint8_t>(static_cast<int>(v));
}

// Reusable storage whose start is aligned for swscale's vector loads.
class AlignedScratch {
 public:
  std::uint8_t* get(std::size_t size) {
    if (storage_.size() < size + kAlignment) storage_.resize(size + kAlignment);
    auto address = reinterpret_cast<std::uintptr_t>(storage_.data());
    const std::size_t skip = (kAlignment - address % kAlignment) % kAlignment;
    return storage_.data() + skip;
  }

 private:
  std::vector<std::uint8_t> storage_;
};

// Three 8-bit planes in scratch memory, with aligned strides.
struct Planes {
  // Four entries, as swscale takes them; the fourth stays empty.
  std::uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
  int stride[4] = {0, 0, 0, 0};
  int width[3] = {0, 0, 0};
  int height[3] = {0, 0, 0};

  void layOut(AlignedScratch& scratch, int lumaWidth, int lumaHeight, bool halfChroma) {
    std::size_t offsets[3];
    std::size_t size = 0;
    for (int p = 0; p < 3; ++p) {
      width[p] = p == 0 || !halfChroma ? lumaWidth : divideRoundingUp(lumaWidth, 2);
      height[p] = p == 0 || !halfChroma ? lumaHeight : divideRoundingUp(lumaHeight, 2);
      stride[p] = alignUp(width[p]);
      offsets[p] = size;
      size += static_cast<std::size_t>(stride[p]) * static_cast<std::size_t>(height[p]);
    }
    std::uint8_t* base = scratch.get(size);
    for (int p = 0; p < 3; ++p) data[p] = base + offsets[p];
  }
};

// The average of one block of `cols` × `rows` samples of an 8-bit plane with
// kChannels interleaved channels.
template <int kChannels>
void averageBlock(const std::uint8_t* src, int stride, int cols, int rows, float* average) {
  const float inverse = 1.0f / static_cast<float>(cols * rows);
  for (int c = 0; c < kChannels; ++c) {
    std::uint32_t total = 0;
    for (int r = 0; r < rows; ++r)
      for (int j = 0; j < cols; ++j) total += src[static_cast<std::ptrdiff_t>(r) * stride + j * kChannels + c];
    average[c] = static_cast<float>(total) * inverse;
  }
}

// The same for `blocks` whole K×K blocks side by side; with K fixed the sums
// unroll, which is where the time of a large reduction goes.
template <int kChannels, int K>
void averageWholeBlocks(const std::uint8_t* src, int stride, int blocks, float* averages) {
  constexpr float kInverse = 1.0f / static_cast<float>(K * K);
  for (int b = 0; b < blocks; ++b) {
    const std::uint8_t* block = src + b * K * kChannels;
    for (int c = 0; c < kChannels; ++c) {
      std::uint32_t total = 0;
      for (int r = 0; r < K; ++r)
        for (int j = 0; j < K; ++j) total += block[static_cast<std::ptrdiff_t>(r) * stride + j * kChannels + c];
      averages[b * kChannels + c] = static_cast<float>(total) * kInverse;
    }
  }
}

// Averages the k×k blocks of one band of `rows` (at most k) rows; `averages`
// receives one value per channel per block, the last block narrower when the
// width is not a multiple of k.
template <int kChannels>
void averageBand(const std::uint8_t* src, int stride, int width, int rows, int k, float* averages) {
  const int wholeBlocks = width / k;
  if (rows == 2 && k == 2) {
    averageWholeBlocks<kChannels, 2>(src, stride, wholeBlocks, averages);
  } else if (rows == 3 && k == 3) {
    averageWholeBlocks<kChannels, 3>(src, stride, wholeBlocks, averages);
  } else if (rows == 4 && k == 4) {
    averageWholeBlocks<kChannels, 4>(src, stride, wholeBlocks, averages);
  } else {
    for (int b = 0; b < wholeBlocks; ++b)
      averageBlock<kChannels>(src + b * k * kChannels, stride, k, rows, averages + b * kChannels);
  }
  if (const int rest = width - wholeBlocks * k; rest > 0) {
    averageBlock<kChannels>(src + wholeBlocks * k * kChannels, stride, rest, rows,
                            averages + wholeBlocks * kChannels);
  }
}

// Box-shrinks a BGRA buffer by k into full-resolution-chroma YCbCr planes (JFIF).
void shrinkBgra(const PixelBuffer& in, int k, Planes& out, std::vector<float>& averages) {
  averages.resize(static_cast<std::size_t>(out.width[0]) * 4);
  for (int by = 0; by < out.height[0]; ++by) {
    const int rows = std::min(k, in.height() - by * k);
    averageBand<4>(in.plane(0) + static_cast<std::ptrdiff_t>(by) * k * in.stride(0), in.stride(0),
                   in.width(), rows, k, averages.data());
    std::uint8_t* y = out.data[0] + static_cast<std::ptrdiff_t>(by) * out.stride[0];
    std::uint8_t* cb = out.data[1] + static_cast<std::ptrdiff_t>(by) * out.stride[1];
    std::uint8_t* cr = out.data[2] + static_cast<std::ptrdiff_t>(by) * out.stride[2];
    for (int x = 0; x < out.width[0]; ++x) {
      const float b = averages[4 * x], g = averages[4 * x + 1], r = averages[4 * x + 2];
      y[x] = toByte(0.299f * r + 0.587f * g + 0.114f * b);
      cb[x] = toByte(-0.168736f * r - 0.331264f * g + 0.5f * b + 128.0f);
      cr[x] = toByte(0.5f * r - 0.418688f * g - 0.081312f * b + 128.0f);
    }
  }
}

// Box-shrinks an NV12 buffer by k into 4:2:0 planes.
void shrinkNv12(const PixelBuffer& in, int k, Planes& out, std::vector<float>& averages) {
  averages.resize(static_cast<std::size_t>(out.width[0]) + 2);
  for (int by = 0; by < out.height[0]; ++by) {
    const int rows = std::min(k, in.height() - by * k);
    averageBand<1>(in.plane(0) + static_cast<std::ptrdiff_t>(by) * k * in.stride(0), in.stride(0),
                   in.width(), rows, k, averages.data());
    std::uint8_t* y = out.data[0] + static_cast<std::ptrdiff_t>(by) * out.stride[0];
    for (int x = 0; x < out.width[0]; ++x) y[x] = toByte(averages[x]);
  }
  for (int by = 0; by < out.height[1]; ++by) {
    const int rows = std::min(k, in.planeHeight(1) - by * k);
    averageBand<2>(in.plane(1) + static_cast<std::ptrdiff_t>(by) * k * in.stride(1), in.stride(1),
                   in.planeWidth(1), rows, k, averages.data());
    std::uint8_t* cb = out.data[1] + static_cast<std::ptrdiff_t>(by) * out.stride[1];
    std::uint8_t* cr = out.data[2] + static_cast<std::ptrdiff_t>(by) * out.stride[2];
    for (int x = 0; x < out.width[1]; ++x) {
      cb[x] = toByte(averages[2 * x]);
      cr[x] = toByte(averages[2 * x + 1]);
    }
  }
}

// Copies one plane into `dst` (width × height, tightly packed) turned by `turn`.
// Works in doubled coordinates about the centre so that every position stays an
// integer.
void copyTurned(const std::uint8_t* src, int srcStride, int srcWidth, int srcHeight,
                const ImageOrientation& turn, std::uint8_t* dst, int width, int height) {
  if (turn.isIdentity()) {
    for (int y = 0; y < height; ++y)
      std::memcpy(dst + static_cast<std::ptrdiff_t>(y) * width,
                  src + static_cast<std::ptrdiff_t>(y) * srcStride, static_cast<std::size_t>(width));
    return;
  }
  // The inverse of a turn is its transpose: stored = (a·u + c·v, b·u + d·v).
  for (int y = 0; y < height; ++y) {
    const int v = 2 * y - (height - 1);
    std::uint8_t* out = dst + static_cast<std::ptrdiff_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      const int u = 2 * x - (width - 1);
      const int sx = (turn.a * u + turn.c * v + (srcWidth - 1)) / 2;
      const int sy = (turn.b * u + turn.d * v + (srcHeight - 1)) / 2;
      out[x] = src[static_cast<std::ptrdiff_t>(sy) * srcStride + sx];
    }
  }
}

// A Lanczos scaler to JPEG's YCbCr 4:2:0. Both ends keep swscale's default range,
// so sample values pass through unchanged (the planes are full-range JFIF YCbCr
// on both sides), and subsampled chroma sits centred between its luma samples as
// JPEG places it. Accurate rounding keeps flat areas exact instead of dithered.
SwsContext* createScaler(AVPixelFormat format, int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
  SwsContext* context = sws_alloc_context();
  if (!context) return nullptr;
  const bool subsampledSource = format != AV_PIX_FMT_YUV444P;
  const struct {
    const char* name;
    std::int64_t value;
  } options[] = {
      {"srcw", srcWidth},
      {"srch", srcHeight},
      {"src_format", format},
      {"dstw", dstWidth},
      {"dsth", dstHeight},
      {"dst_format", AV_PIX_FMT_YUV420P},
      {"sws_flags", SWS_LANCZOS | SWS_ACCURATE_RND},
      {"src_h_chr_pos", subsampledSource ? kCentredChroma : 0},
      {"src_v_chr_pos", subsampledSource ? kCentredChroma : 0},
      {"dst_h_chr_pos", kCentredChroma},
      {"dst_v_chr_pos", kCentredChroma},
  };
  for (const auto& option : options) {
    if (av_opt_set_int(context, option.name, option.value, 0) < 0) {
      sws_freeContext(context);
      return nullptr;
    }
  }
  if (sws_init_context(context, nullptr, nullptr) < 0) {
    sws_freeContext(context);
    return nullptr;
  }
  return context;
}

}  // namespace

struct ImageRenderer::Impl {
  struct Scaler {
    AVPixelFormat format;
    int srcWidth, srcHeight, dstWidth, dstHeight;
    SwsContext* context;
  };

  std::vector<Scaler> scalers;
  AlignedScratch shrunkScratch;
  AlignedScratch scaledScratch;
  std::vector<float> averages;

  ~Impl() {
    for (auto& scaler : scalers) sws_freeContext(scaler.context);
  }

  SwsContext* scaler(AVPixelFormat format, int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
    for (auto& s : scalers) {
      if (s.format == format && s.srcWidth == srcWidth && s.srcHeight == srcHeight &&
          s.dstWidth == dstWidth && s.dstHeight == dstHeight) {
        return s.context;
      }
    }
    SwsContext* context = createScaler(format, srcWidth, srcHeight, dstWidth, dstHeight);
    if (!context) return nullptr;
    if (scalers.size() == kMaxScalers) {
      sws_freeContext(scalers.front().context);
      scalers.erase(scalers.begin());
    }
    scalers.push_back({format, srcWidth, srcHeight, dstWidth, dstHeight, context});
    return context;
  }
};

ImageRenderer::ImageRenderer() : impl_(std::make_unique<Impl>()) {}
ImageRenderer::~ImageRenderer() = default;

std::unique_ptr<Bitmap> ImageRenderer::render(const Image& image) {
  const ImageExtent scaled = image.scaledExtent();
  const ImageExtent extent = image.extent();
  if (scaled.isEmpty() || !image.pixelBuffer()) return nullptr;
  const PixelBuffer& in = *image.pixelBuffer();

  // Box shrink by the largest whole factor that still leaves kLanczosReduction to
  // the Lanczos step.
  const double reduction = std::min(static_cast<double>(in.width()) / scaled.width,
                                    static_cast<double>(in.height()) / scaled.height);
  const int k = std::max(1, static_cast<int>(reduction / kLanczosReduction));

  const std::uint8_t* source[4] = {nullptr, nullptr, nullptr, nullptr};
  int sourceStride[4] = {0, 0, 0, 0};
  AVPixelFormat format;
  int sourceWidth, sourceHeight;
  if (in.format() == PixelFormat::NV12 && k == 1) {
    format = AV_PIX_FMT_NV12;
    sourceWidth = in.width();
    sourceHeight = in.height();
    for (int p = 0; p < 2; ++p) {
      source[p] = in.plane(p);
      sourceStride[p] = in.stride(p);
    }
  } else {
    const bool nv12 = in.format() == PixelFormat::NV12;
    format = nv12 ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_YUV444P;
    sourceWidth = divideRoundingUp(in.width(), k);
    sourceHeight = divideRoundingUp(in.height(), k);
    Planes shrunk;
    shrunk.layOut(impl_->shrunkScratch, sourceWidth, sourceHeight, nv12);
    if (nv12) {
      shrinkNv12(in, k, shrunk, impl_->averages);
    } else {
      shrinkBgra(in, k, shrunk, impl_->averages);
    }
    for (int p = 0; p < 3; ++p) {
      source[p] = shrunk.data[p];
      sourceStride[p] = shrunk.stride[p];
    }
  }

  SwsContext* context = impl_->scaler(format, sourceWidth, sourceHeight, scaled.width, scaled.height);
  if (!context) return nullptr;
  Planes out;
  out.layOut(impl_->scaledScratch, scaled.width, scaled.height, true);
  if (sws_scale(context, source, sourceStride, 0, sourceHeight, out.data, out.stride) != scaled.height) {
    return nullptr;
  }

  auto bitmap = Bitmap::create(extent.width, extent.height);
  if (!bitmap) return nullptr;
  for (int p = 0; p < 3; ++p) {
    copyTurned(out.data[p], out.stride[p], out.width[p], out.height[p], image.orientation(),
               bitmap->mutablePlane(p), bitmap->planeWidth(p), bitmap->planeHeight(p));
  }
  return bitmap;
}

}  // namespace zephlo::platform
