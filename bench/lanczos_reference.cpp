#include "bench/lanczos_reference.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace zephlo::bench {

namespace {

double lanczos3Kernel(double x) {
  x = std::abs(x);
  if (x < 1e-12) return 1.0;
  if (x >= 3.0) return 0.0;
  const double px = std::numbers::pi * x;
  return 3.0 * std::sin(px) * std::sin(px / 3.0) / (px * px);
}

struct Tap {
  int first = 0;
  std::vector<double> weights;
};

// For each output sample, the weights of the input samples it reads.
std::vector<Tap> taps(int inSize, int outSize) {
  const double scale = static_cast<double>(outSize) / inSize;
  const double stretch = std::min(scale, 1.0);  // widen the kernel when reducing
  const double support = 3.0 / stretch;
  std::vector<Tap> result(static_cast<std::size_t>(outSize));
  for (int o = 0; o < outSize; ++o) {
    const double centre = (o + 0.5) / scale - 0.5;
    const int first = static_cast<int>(std::ceil(centre - support));
    const int last = static_cast<int>(std::floor(centre + support));
    Tap& tap = result[static_cast<std::size_t>(o)];
    tap.first = first;
    double total = 0;
    for (int i = first; i <= last; ++i) {
      const double w = lanczos3Kernel((i - centre) * stretch);
      tap.weights.push_back(w);
      total += w;
    }
    for (double& w : tap.weights) w /= total;
  }
  return result;
}

}  // namespace

LumaPlane lumaOf(const platform::PixelBuffer& buffer) {
  LumaPlane out{buffer.width(), buffer.height(), {}};
  out.values.resize(static_cast<std::size_t>(out.width) * out.height);
  for (int y = 0; y < out.height; ++y) {
    const std::uint8_t* row = buffer.plane(0) + static_cast<std::ptrdiff_t>(y) * buffer.stride(0);
    for (int x = 0; x < out.width; ++x) {
      out.values[static_cast<std::size_t>(y) * out.width + x] =
          buffer.format() == platform::PixelFormat::BGRA
              ? 0.299 * row[4 * x + 2] + 0.587 * row[4 * x + 1] + 0.114 * row[4 * x]
              : row[x];
    }
  }
  return out;
}

LumaPlane lanczos3(const LumaPlane& in, int width, int height) {
  const auto across = taps(in.width, width);
  const auto down = taps(in.height, height);
  std::vector<double> rows(static_cast<std::size_t>(width) * in.height);
  for (int y = 0; y < in.height; ++y) {
    for (int x = 0; x < width; ++x) {
      const Tap& tap = across[static_cast<std::size_t>(x)];
      double v = 0;
      for (std::size_t k = 0; k < tap.weights.size(); ++k) {
        const int sx = std::clamp(tap.first + static_cast<int>(k), 0, in.width - 1);
        v += tap.weights[k] * in.values[static_cast<std::size_t>(y) * in.width + sx];
      }
      rows[static_cast<std::size_t>(y) * width + x] = v;
    }
  }
  LumaPlane out{width, height, std::vector<double>(static_cast<std::size_t>(width) * height)};
  for (int y = 0; y < height; ++y) {
    const Tap& tap = down[static_cast<std::size_t>(y)];
    for (int x = 0; x < width; ++x) {
      double v = 0;
      for (std::size_t k = 0; k < tap.weights.size(); ++k) {
        const int sy = std::clamp(tap.first + static_cast<int>(k), 0, in.height - 1);
        v += tap.weights[k] * rows[static_cast<std::size_t>(sy) * width + x];
      }
      out.values[static_cast<std::size_t>(y) * width + x] = v;
    }
  }
  return out;
}

double lumaPsnr(const platform::Bitmap& bitmap, const LumaPlane& reference) {
  double squares = 0;
  for (int y = 0; y < reference.height; ++y) {
    for (int x = 0; x < reference.width; ++x) {
      // The reference is clipped to the 8-bit range as any rendering must be.
      const double expected = std::clamp(reference.values[static_cast<std::size_t>(y) * reference.width + x], 0.0, 255.0);
      const double d = bitmap.at(0, x, y) - expected;
      squares += d * d;
    }
  }
  const double mse = squares / (static_cast<double>(reference.width) * reference.height);
  return 10.0 * std::log10(255.0 * 255.0 / std::max(mse, 1e-12));
}

}  // namespace zephlo::bench
