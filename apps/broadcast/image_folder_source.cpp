#include "apps/broadcast/image_folder_source.hpp"

#include <turbojpeg.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>

#include "apps/broadcast/pixel_conversion.hpp"

namespace zephlo {

namespace {

bool isJpegName(const std::filesystem::path& path) {
  std::string extension = path.extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return extension == ".jpg" || extension == ".jpeg";
}

void fillBlack(platform::PixelBuffer& out) {
  for (int y = 0; y < out.height(); ++y) {
    std::uint8_t* row = out.mutablePlane(0) + static_cast<std::ptrdiff_t>(y) * out.stride(0);
    for (int x = 0; x < out.width(); ++x) {
      row[4 * x] = row[4 * x + 1] = row[4 * x + 2] = 0;
      row[4 * x + 3] = 255;
    }
  }
}

struct TjHandle {
  tjhandle handle = tjInitDecompress();
  ~TjHandle() {
    if (handle) tjDestroy(handle);
  }
};

}  // namespace

std::unique_ptr<ImageFolderSource> ImageFolderSource::open(const std::string& folder, platform::PixelFormat format,
                                                           int width, int height, std::int64_t orientation,
                                                           double sampleRate, std::string* error) {
  std::error_code ec;
  std::vector<std::filesystem::path> files;
  for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file() && isJpegName(it->path())) files.push_back(it->path());
  }
  if (ec) {
    *error = folder + ": " + ec.message();
    return nullptr;
  }
  if (files.empty()) {
    *error = folder + ": no JPEG files";
    return nullptr;
  }
  std::sort(files.begin(), files.end(),
            [](const auto& a, const auto& b) { return a.filename().string() < b.filename().string(); });
  return std::make_unique<ImageFolderSource>(std::move(files), format, width, height, orientation, sampleRate);
}

ImageFolderSource::ImageFolderSource(std::vector<std::filesystem::path> files, platform::PixelFormat format, int width,
                                     int height, std::int64_t orientation, double sampleRate)
    : files_(std::move(files)), pool_(format, width, height), orientation_(orientation), ticker_(sampleRate) {}

void ImageFolderSource::start(Sink sink, EndHandler) {
  ticker_.start([this](platform::Duration sinceStart) { return sampleAt(sinceStart); }, std::move(sink));
}

void ImageFolderSource::stop() { ticker_.stop(); }

std::optional<platform::SampleBuffer> ImageFolderSource::sampleAt(platform::Duration sinceStart) {
  const auto second = static_cast<std::size_t>(std::chrono::duration_cast<std::chrono::seconds>(sinceStart).count());
  const std::size_t index = second % files_.size();
  if (!shownIndex_ || *shownIndex_ != index) {
    shown_.reset();
    auto buffer = pool_.acquire();
    if (!buffer) return std::nullopt;
    std::ifstream in(files_[index], std::ios::binary);
    std::vector<std::uint8_t> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (buffer->format() == platform::PixelFormat::BGRA) {
      decodeInto(data, *buffer);
    } else {
      // Letterboxed in BGRA first; the scratch picture lives for this second's
      // change only.
      auto bgra = platform::PixelBuffer::create(platform::PixelFormat::BGRA, buffer->width(), buffer->height());
      decodeInto(data, *bgra);
      convertBgraToNv12(bgra->plane(0), bgra->stride(0), bgra->width(), bgra->height(), *buffer);
    }
    shown_ = std::move(buffer);
    shownIndex_ = index;
  }
  return platform::SampleBuffer(shown_, orientation_);
}

bool ImageFolderSource::decodeInto(const std::vector<std::uint8_t>& data, platform::PixelBuffer& out) {
  fillBlack(out);
  TjHandle tj;
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (!tj.handle || data.empty() ||
      tjDecompressHeader3(tj.handle, data.data(), static_cast<unsigned long>(data.size()), &width, &height,
                          &subsampling, &colorspace) != 0) {
    return false;
  }
  // Fit inside the sample, keeping the picture's shape.
  const double fit = std::min(static_cast<double>(out.width()) / width, static_cast<double>(out.height()) / height);
  const int fitWidth = std::max(1, static_cast<int>(std::lround(width * fit)));
  const int fitHeight = std::max(1, static_cast<int>(std::lround(height * fit)));

  // Let the decoder shrink by the largest factor that stays at least as large
  // as the fitted size: less to decode and less to scale.
  int count = 0;
  tjscalingfactor* factors = tjGetScalingFactors(&count);
  int decodedWidth = width, decodedHeight = height;
  for (int i = 0; factors && i < count; ++i) {
    const int w = TJSCALED(width, factors[i]), h = TJSCALED(height, factors[i]);
    if (w >= fitWidth && h >= fitHeight && w * h < decodedWidth * decodedHeight) {
      decodedWidth = w;
      decodedHeight = h;
    }
  }
  std::vector<std::uint8_t> decoded(static_cast<std::size_t>(decodedWidth) * decodedHeight * 4);
  if (tjDecompress2(tj.handle, data.data(), static_cast<unsigned long>(data.size()), decoded.data(), decodedWidth,
                    decodedWidth * 4, decodedHeight, TJPF_BGRA, 0) != 0) {
    fillBlack(out);
    return false;
  }

  // Bilinear resampling into the centred rectangle.
  const int left = (out.width() - fitWidth) / 2, top = (out.height() - fitHeight) / 2;
  const double sx = static_cast<double>(decodedWidth) / fitWidth, sy = static_cast<double>(decodedHeight) / fitHeight;
  for (int y = 0; y < fitHeight; ++y) {
    const double fy = std::clamp((y + 0.5) * sy - 0.5, 0.0, decodedHeight - 1.0);
    const int y0 = static_cast<int>(fy), y1 = std::min(y0 + 1, decodedHeight - 1);
    const double wy = fy - y0;
    const std::uint8_t* r0 = decoded.data() + static_cast<std::size_t>(y0) * decodedWidth * 4;
    const std::uint8_t* r1 = decoded.data() + static_cast<std::size_t>(y1) * decodedWidth * 4;
    std::uint8_t* row = out.mutablePlane(0) + static_cast<std::ptrdiff_t>(top + y) * out.stride(0);
    for (int x = 0; x < fitWidth; ++x) {
      const double fx = std::clamp((x + 0.5) * sx - 0.5, 0.0, decodedWidth - 1.0);
      const int x0 = static_cast<int>(fx), x1 = std::min(x0 + 1, decodedWidth - 1);
      const double wx = fx - x0;
      std::uint8_t* pixel = row + 4 * (left + x);
      for (int c = 0; c < 3; ++c) {
        const double v = (1 - wy) * ((1 - wx) * r0[4 * x0 + c] + wx * r0[4 * x1 + c]) +
                         wy * ((1 - wx) * r1[4 * x0 + c] + wx * r1[4 * x1 + c]);
        pixel[c] = static_cast<std::uint8_t>(std::lround(v));
      }
      pixel[3] = 255;
    }
  }
  return true;
}

}  // namespace zephlo
