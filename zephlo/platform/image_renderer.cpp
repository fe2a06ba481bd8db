#include "zephlo/platform/image_renderer.hpp"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/opt.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

// The box shrink's loops are built twice on x86-64, for AVX2 and for the
// baseline, and the loader picks the one the processor runs (an ifunc, which
// needs glibc).
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && defined(__GLIBC__)
#define ZEPHLO_VECTOR_LOOPS __attribute__((target_clones("avx2", "default")))
#else
#define ZEPHLO_VECTOR_LOOPS
#endif

namespace zephlo::platform {

namespace {

constexpr int kAlignment = 64;
// Scalers kept for geometries seen recently; a broadcast uses one or two.
constexpr std::size_t kMaxScalers = 4;
// Rows of the box-shrunk picture handed to the scaler at a time (even, for the
// chroma rows): only a band of it is ever held.
constexpr int kShrunkBandRows = 16;
// swscale's chroma position, in 1/256 of a luma sample: half way between two.
constexpr std::int64_t kCentredChroma = 128;

int alignUp(int bytes) { return (bytes + kAlignment - 1) / kAlignment * kAlignment; }
int divideRoundingUp(int a, int b) { return (a + b - 1) / b; }

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

// YCbCr 4:2:0 planes in scratch memory, with aligned strides.
struct Planes {
  // Four entries, as swscale takes them; the fourth stays empty.
  std::uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
  int stride[4] = {0, 0, 0, 0};
  int width[3] = {0, 0, 0};
  int height[3] = {0, 0, 0};

  void layOut(AlignedScratch& scratch, int lumaWidth, int lumaHeight) {
    std::size_t offsets[3];
    std::size_t size = 0;
    for (int p = 0; p < 3; ++p) {
      width[p] = p == 0 ? lumaWidth : divideRoundingUp(lumaWidth, 2);
      height[p] = p == 0 ? lumaHeight : divideRoundingUp(lumaHeight, 2);
      stride[p] = alignUp(width[p]);
      offsets[p] = size;
      size += static_cast<std::size_t>(stride[p]) * static_cast<std::size_t>(height[p]);
    }
    std::uint8_t* base = scratch.get(size);
    for (int p = 0; p < 3; ++p) data[p] = base + offsets[p];
  }
};

// The k×k block sums of one band (k rows, fewer at the bottom) of an 8-bit plane
// with kChannels interleaved channels, of which the first kUsed are summed: the
// rows of each column first (16-bit sums, a loop the compiler vectorises), then
// the k columns of each block, per channel. The last block is narrower when the
// width is not a multiple of k.
template <int kChannels, int kUsed = kChannels>
class BandSums {
 public:
  ZEPHLO_VECTOR_LOOPS void sum(const std::uint8_t* src, int stride, int width, int rows, int k) {
    k_ = k;
    rows_ = rows;
    blocks_ = divideRoundingUp(width, k);
    lastColumns_ = width - (blocks_ - 1) * k;
    for (auto& channel : sums_) channel.resize(static_cast<std::size_t>(blocks_));
    const std::size_t samples = static_cast<std::size_t>(width) * kChannels;
    columns_.resize(samples);
    std::uint16_t* columns = columns_.data();
    for (std::size_t i = 0; i < samples; ++i) columns[i] = src[i];
    for (int r = 1; r < rows; ++r) {
      const std::uint8_t* row = src + static_cast<std::ptrdiff_t>(r) * stride;
      for (std::size_t i = 0; i < samples; ++i) columns[i] = static_cast<std::uint16_t>(columns[i] + row[i]);
    }
    const int wholeBlocks = width / k;
    if (k == 2) {
      sumBlocks<2>(0, wholeBlocks);
    } else if (k == 3) {
      sumBlocks<3>(0, wholeBlocks);
    } else if (k == 4) {
      sumBlocks<4>(0, wholeBlocks);
    } else {
      for (int x = 0; x < wholeBlocks; ++x) sumBlock(x, k);
    }
    if (wholeBlocks < blocks_) sumBlock(wholeBlocks, lastColumns_);
  }

  int blocks() const { return blocks_; }
  // Samples in a whole block, and in the last one.
  int area() const { return k_ * rows_; }
  int lastArea() const { return lastColumns_ * rows_; }
  int areaOf(int x) const { return x == blocks_ - 1 ? lastArea() : area(); }
  const std::uint32_t* channel(int c) const { return sums_[static_cast<std::size_t>(c)].data(); }

 private:
  template <int K>
  ZEPHLO_VECTOR_LOOPS void sumBlocks(int first, int end) {
    const std::uint16_t* columns = columns_.data();
    for (int x = first; x < end; ++x) {
      const std::uint16_t* block = columns + static_cast<std::ptrdiff_t>(x) * K * kChannels;
      for (int c = 0; c < kUsed; ++c) {
        std::uint32_t total = 0;
        for (int j = 0; j < K; ++j) total += block[j * kChannels + c];
        sums_[static_cast<std::size_t>(c)][static_cast<std::size_t>(x)] = total;
      }
    }
  }

  void sumBlock(int x, int width) {
    const std::uint16_t* block = columns_.data() + static_cast<std::ptrdiff_t>(x) * k_ * kChannels;
    for (int c = 0; c < kUsed; ++c) {
      std::uint32_t total = 0;
      for (int j = 0; j < width; ++j) total += block[j * kChannels + c];
      sums_[static_cast<std::size_t>(c)][static_cast<std::size_t>(x)] = total;
    }
  }

  int k_ = 1, rows_ = 0, blocks_ = 0, lastColumns_ = 0;
  std::vector<std::uint16_t> columns_;
  std::array<std::vector<std::uint32_t>, kUsed> sums_;
};

// Fixed point with 22 fractional bits: a weight per sample of a sum of `area`
// samples. A weighted sum of means of 0..255 plus the chroma offset stays within
// 31 bits, and rounding a weight moves a result by at most an eighth of a grey
// level at the largest box shrink (far less at the usual factors of 2 to 4). The
// largest shrink also keeps column sums within 16 bits.
constexpr int kFixedBits = 22;
constexpr int kMaxBoxShrink = 32;
constexpr std::int32_t kFixedHalf = 1 << (kFixedBits - 1);
constexpr std::int32_t kFixedChromaOffset = 128 << kFixedBits;

std::int32_t fixedWeight(double weight, int area) {
  return static_cast<std::int32_t>(std::lround(std::ldexp(weight, kFixedBits) / area));
}

std::uint8_t fixedToByte(std::int32_t v) {
  // Written as selects rather than std::clamp so that the loops calling it
  // vectorise.
  v = (v + kFixedHalf) >> kFixedBits;
  v = v < 0 ? 0 : v;
  v = v > 255 ? 255 : v;
  return static_cast<std::uint8_t>(v);
}

// Writes the mean of each block of `sums`, channel `c`, one byte per block.
template <class Sums>
ZEPHLO_VECTOR_LOOPS void writeMeans(const Sums& sums, int c, std::uint8_t* __restrict out) {
  // Bytes may alias anything: the bound and the sums are read into locals the
  // stores cannot touch, or the loop is not vectorised.
  const std::uint32_t* __restrict s = sums.channel(c);
  const int blocks = sums.blocks();
  const std::int32_t w = fixedWeight(1.0, sums.area());
  for (int x = 0; x < blocks - 1; ++x) out[x] = fixedToByte(w * static_cast<std::int32_t>(s[x]));
  out[blocks - 1] = fixedToByte(fixedWeight(1.0, sums.lastArea()) * static_cast<std::int32_t>(s[blocks - 1]));
}

// JFIF YCbCr from mean B, G and R (0..255).
struct JfifWeights {
  std::int32_t yr, yg, yb, cbr, cbg, cbb, crr, crg, crb;
  explicit JfifWeights(int area)
      : yr(fixedWeight(0.299, area)),
        yg(fixedWeight(0.587, area)),
        yb(fixedWeight(0.114, area)),
        cbr(fixedWeight(-0.168736, area)),
        cbg(fixedWeight(-0.331264, area)),
        cbb(fixedWeight(0.5, area)),
        crr(fixedWeight(0.5, area)),
        crg(fixedWeight(-0.418688, area)),
        crb(fixedWeight(-0.081312, area)) {}
  // Cb and Cr from sums of B, G and R over `area` samples.
  std::uint8_t cb(std::int32_t b, std::int32_t g, std::int32_t r) const {
    return fixedToByte(cbr * r + cbg * g + cbb * b + kFixedChromaOffset);
  }
  std::uint8_t cr(std::int32_t b, std::int32_t g, std::int32_t r) const {
    return fixedToByte(crr * r + crg * g + crb * b + kFixedChromaOffset);
  }
};

// Box-shrinks NV12 by k into 4:2:0 planes: each plane's blocks averaged. Writes
// the band of the shrunk picture from row `first` (even) that `out` holds.
class Nv12Shrinker {
 public:
  void shrink(const PixelBuffer& in, int k, int first, Planes& out) {
    for (int y = 0; y < out.height[0]; ++y) {
      const int by = first + y;
      const int rows = std::min(k, in.height() - by * k);
      luma_.sum(in.plane(0) + static_cast<std::ptrdiff_t>(by) * k * in.stride(0), in.stride(0), in.width(), rows, k);
      writeMeans(luma_, 0, out.data[0] + static_cast<std::ptrdiff_t>(y) * out.stride[0]);
    }
    for (int y = 0; y < out.height[1]; ++y) {
      const int by = first / 2 + y;
      const int rows = std::min(k, in.planeHeight(1) - by * k);
      chroma_.sum(in.plane(1) + static_cast<std::ptrdiff_t>(by) * k * in.stride(1), in.stride(1), in.planeWidth(1),
                  rows, k);
      writeMeans(chroma_, 0, out.data[1] + static_cast<std::ptrdiff_t>(y) * out.stride[1]);
      writeMeans(chroma_, 1, out.data[2] + static_cast<std::ptrdiff_t>(y) * out.stride[2]);
    }
  }

 private:
  BandSums<1> luma_;
  BandSums<2> chroma_;
};

// Box-shrinks BGRA by k into JFIF YCbCr 4:2:0 planes: luma from each k×k block,
// chroma from each 2k×2k block (the four blocks around its position), so the
// Lanczos step gets chroma at a quarter of the samples, as from NV12. Writes the
// band of the shrunk picture from row `first` (even) that `out` holds.
class BgraShrinker {
 public:
  void shrink(const PixelBuffer& in, int k, int first, Planes& out) {
    if (k == 1) {
      shrinkPixels(in, first, out);
      return;
    }
    for (int cy = 0; cy < out.height[1]; ++cy) {
      int bands = 0;
      for (; bands < 2 && 2 * cy + bands < out.height[0]; ++bands) {
        const int by = first + 2 * cy + bands;
        const int rows = std::min(k, in.height() - by * k);
        bands_[bands].sum(in.plane(0) + static_cast<std::ptrdiff_t>(by) * k * in.stride(0), in.stride(0), in.width(),
                          rows, k);
        writeLuma(bands_[bands], out.data[0] + static_cast<std::ptrdiff_t>(2 * cy + bands) * out.stride[0]);
      }
      writeChroma(bands, out.data[1] + static_cast<std::ptrdiff_t>(cy) * out.stride[1],
                  out.data[2] + static_cast<std::ptrdiff_t>(cy) * out.stride[2], out.width[1]);
    }
  }

 private:
  using Sums = BandSums<4, 3>;

  ZEPHLO_VECTOR_LOOPS static void writeLuma(const Sums& band, std::uint8_t* __restrict y) {
    const std::uint32_t *__restrict b = band.channel(0), *__restrict g = band.channel(1),
                                    *__restrict r = band.channel(2);
    const int blocks = band.blocks();
    const auto write = [&](const JfifWeights& w, int from, int to) {
      const std::int32_t wr = w.yr, wg = w.yg, wb = w.yb;
      for (int x = from; x < to; ++x)
        y[x] = fixedToByte(wr * static_cast<std::int32_t>(r[x]) + wg * static_cast<std::int32_t>(g[x]) +
                           wb * static_cast<std::int32_t>(b[x]));
    };
    write(JfifWeights(band.area()), 0, blocks - 1);
    write(JfifWeights(band.lastArea()), blocks - 1, blocks);
  }

  // Chroma of each pair of blocks across the `bands` bands just summed. Pairs of
  // whole blocks from two bands share one area; the others (the right and bottom
  // edges) are weighed by their own.
  ZEPHLO_VECTOR_LOOPS void writeChroma(int bands, std::uint8_t* __restrict cb, std::uint8_t* __restrict cr,
                                       int width) const {
    const Sums& top = bands_[0];
    const Sums& bottom = bands_[1];
    int fast = 0;
    if (bands == 2) {
      fast = top.lastArea() == top.area() ? top.blocks() / 2 : (top.blocks() - 1) / 2;
      const JfifWeights w(2 * (top.area() + bottom.area()));
      const std::uint32_t *__restrict b0 = top.channel(0), *__restrict g0 = top.channel(1),
                                      *__restrict r0 = top.channel(2);
      const std::uint32_t *__restrict b1 = bottom.channel(0), *__restrict g1 = bottom.channel(1),
                                      *__restrict r1 = bottom.channel(2);
      for (int x = 0; x < fast; ++x) {
        const auto b = static_cast<std::int32_t>(b0[2 * x] + b0[2 * x + 1] + b1[2 * x] + b1[2 * x + 1]);
        const auto g = static_cast<std::int32_t>(g0[2 * x] + g0[2 * x + 1] + g1[2 * x] + g1[2 * x + 1]);
        const auto r = static_cast<std::int32_t>(r0[2 * x] + r0[2 * x + 1] + r1[2 * x] + r1[2 * x + 1]);
        cb[x] = w.cb(b, g, r);
        cr[x] = w.cr(b, g, r);
      }
    }
    for (int x = fast; x < width; ++x) {
      std::int32_t b = 0, g = 0, r = 0;
      int area = 0;
      for (int i = 0; i < bands; ++i) {
        for (int j = 2 * x; j < std::min(2 * x + 2, bands_[i].blocks()); ++j) {
          b += static_cast<std::int32_t>(bands_[i].channel(0)[j]);
          g += static_cast<std::int32_t>(bands_[i].channel(1)[j]);
          r += static_cast<std::int32_t>(bands_[i].channel(2)[j]);
          area += bands_[i].areaOf(j);
        }
      }
      const JfifWeights w(area);
      cb[x] = w.cb(b, g, r);
      cr[x] = w.cr(b, g, r);
    }
  }

  // No shrink (most screens shown at half size or more): YCbCr straight from
  // the pixels, without sums in between.
  void shrinkPixels(const PixelBuffer& in, int first, Planes& out) {
    for (int cy = 0; cy < out.height[1]; ++cy) {
      const int y = first + 2 * cy;
      const std::uint8_t* top = in.plane(0) + static_cast<std::ptrdiff_t>(y) * in.stride(0);
      const std::uint8_t* bottom = y + 1 < in.height() ? top + in.stride(0) : nullptr;
      writePixelLuma(top, in.width(), out.data[0] + static_cast<std::ptrdiff_t>(2 * cy) * out.stride[0]);
      if (bottom) {
        writePixelLuma(bottom, in.width(), out.data[0] + static_cast<std::ptrdiff_t>(2 * cy + 1) * out.stride[0]);
      }
      writePixelChroma(top, bottom, in.width(), out.data[1] + static_cast<std::ptrdiff_t>(cy) * out.stride[1],
                       out.data[2] + static_cast<std::ptrdiff_t>(cy) * out.stride[2]);
    }
  }

  ZEPHLO_VECTOR_LOOPS static void writePixelLuma(const std::uint8_t* __restrict bgra, int width,
                                                 std::uint8_t* __restrict y) {
    const JfifWeights w(1);
    const std::int32_t wr = w.yr, wg = w.yg, wb = w.yb;
    for (int x = 0; x < width; ++x)
      y[x] = fixedToByte(wr * bgra[4 * x + 2] + wg * bgra[4 * x + 1] + wb * bgra[4 * x]);
  }

  // Chroma of each 2x2 block of the rows `top` and `bottom` (null at an odd
  // picture's last row); the blocks cut short at the edges are weighed by the
  // pixels they hold.
  ZEPHLO_VECTOR_LOOPS static void writePixelChroma(const std::uint8_t* __restrict top,
                                                   const std::uint8_t* __restrict bottom, int width,
                                                   std::uint8_t* __restrict cb, std::uint8_t* __restrict cr) {
    int x = 0;
    if (bottom) {
      const JfifWeights w(4);
      for (; x < width / 2; ++x) {
        const std::uint8_t* t = top + 8 * x;
        const std::uint8_t* u = bottom + 8 * x;
        const std::int32_t b = t[0] + t[4] + u[0] + u[4];
        const std::int32_t g = t[1] + t[5] + u[1] + u[5];
        const std::int32_t r = t[2] + t[6] + u[2] + u[6];
        cb[x] = w.cb(b, g, r);
        cr[x] = w.cr(b, g, r);
      }
    }
    for (; x < (width + 1) / 2; ++x) {
      std::int32_t b = 0, g = 0, r = 0;
      int area = 0;
      for (const std::uint8_t* row : {top, bottom}) {
        for (int j = 2 * x; row && j < std::min(2 * x + 2, width); ++j, ++area) {
          b += row[4 * j];
          g += row[4 * j + 1];
          r += row[4 * j + 2];
        }
      }
      const JfifWeights w(area);
      cb[x] = w.cb(b, g, r);
      cr[x] = w.cr(b, g, r);
    }
  }

  Sums bands_[2];
};

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
  // The inverse of a turn is its transpose: stored = (a·u + c·v, b·u + d·v). Along
  // an output row u grows by 2 per pixel, so the stored position moves by (a, b).
  const std::ptrdiff_t step = turn.a + static_cast<std::ptrdiff_t>(turn.b) * srcStride;
  const int u = -(width - 1);
  for (int y = 0; y < height; ++y) {
    const int v = 2 * y - (height - 1);
    const int sx = (turn.a * u + turn.c * v + (srcWidth - 1)) / 2;
    const int sy = (turn.b * u + turn.d * v + (srcHeight - 1)) / 2;
    const std::uint8_t* from = src + static_cast<std::ptrdiff_t>(sy) * srcStride + sx;
    std::uint8_t* out = dst + static_cast<std::ptrdiff_t>(y) * width;
    for (int x = 0; x < width; ++x) out[x] = from[x * step];
  }
}

// A Lanczos scaler to JPEG's YCbCr 4:2:0. Both ends keep swscale's default range,
// so sample values pass through unchanged (the planes are full-range JFIF YCbCr
// on both sides), and subsampled chroma sits centred between its luma samples as
// JPEG places it. Accurate rounding keeps flat areas exact instead of dithered.
SwsContext* createScaler(AVPixelFormat format, int srcWidth, int srcHeight, int dstWidth, int dstHeight) {
  SwsContext* context = sws_alloc_context();
  if (!context) return nullptr;
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
      {"src_h_chr_pos", kCentredChroma},
      {"src_v_chr_pos", kCentredChroma},
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
  Nv12Shrinker nv12Shrinker;
  BgraShrinker bgraShrinker;

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
  const int k = std::clamp(static_cast<int>(reduction / kLanczosReduction), 1, kMaxBoxShrink);

  const bool shrinks = in.format() != PixelFormat::NV12 || k > 1;
  const AVPixelFormat format = shrinks ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_NV12;
  const int sourceWidth = divideRoundingUp(in.width(), k);
  const int sourceHeight = divideRoundingUp(in.height(), k);
  SwsContext* context = impl_->scaler(format, sourceWidth, sourceHeight, scaled.width, scaled.height);
  if (!context) return nullptr;
  Planes out;
  out.layOut(impl_->scaledScratch, scaled.width, scaled.height);

  int scaledRows = 0;
  if (!shrinks) {
    const std::uint8_t* source[4] = {in.plane(0), in.plane(1), nullptr, nullptr};
    const int sourceStride[4] = {in.stride(0), in.stride(1), 0, 0};
    scaledRows = sws_scale(context, source, sourceStride, 0, sourceHeight, out.data, out.stride);
  } else {
    // The scaler takes the shrunk picture a band at a time, top to bottom.
    for (int first = 0; first < sourceHeight; first += kShrunkBandRows) {
      Planes band;
      band.layOut(impl_->shrunkScratch, sourceWidth, std::min(kShrunkBandRows, sourceHeight - first));
      if (in.format() == PixelFormat::NV12) {
        impl_->nv12Shrinker.shrink(in, k, first, band);
      } else {
        impl_->bgraShrinker.shrink(in, k, first, band);
      }
      const int rows = sws_scale(context, band.data, band.stride, first, band.height[0], out.data, out.stride);
      if (rows < 0) return nullptr;
      scaledRows += rows;
    }
  }
  if (scaledRows != scaled.height) return nullptr;

  auto bitmap = Bitmap::create(extent.width, extent.height);
  if (!bitmap) return nullptr;
  for (int p = 0; p < 3; ++p) {
    copyTurned(out.data[p], out.stride[p], out.width[p], out.height[p], image.orientation(),
               bitmap->mutablePlane(p), bitmap->planeWidth(p), bitmap->planeHeight(p));
  }
  return bitmap;
}

}  // namespace zephlo::platform
