#include "zephlo/platform/jpeg_encoder.hpp"

#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace zephlo::platform {

namespace {

struct HandleDeleter {
  void operator()(void* handle) const { tjDestroy(handle); }
};

// One encoder and one output buffer per thread, reused from frame to frame.
struct Encoder {
  std::unique_ptr<void, HandleDeleter> handle{tjInitCompress()};
  std::vector<unsigned char> output;
};

int libjpegQuality(double quality) {
  if (!(quality > 0)) return 1;  // NaN included
  if (quality >= 1) return 100;
  return std::max(1, static_cast<int>(std::lround(quality * 100)));
}

}  // namespace

SharedBytes encodeJpeg(const Bitmap& bitmap, double quality) {
  thread_local Encoder encoder;
  if (!encoder.handle) return nullptr;
  const unsigned long capacity = tjBufSize(bitmap.width(), bitmap.height(), TJSAMP_420);
  if (capacity == static_cast<unsigned long>(-1)) return nullptr;
  if (encoder.output.size() < capacity) encoder.output.resize(capacity);

  const unsigned char* planes[3] = {bitmap.plane(0), bitmap.plane(1), bitmap.plane(2)};
  const int strides[3] = {bitmap.planeWidth(0), bitmap.planeWidth(1), bitmap.planeWidth(2)};
  unsigned char* out = encoder.output.data();
  unsigned long size = capacity;
  // The buffer is big enough for any picture of this size, so libjpeg-turbo never
  // has to reallocate it.
  if (tjCompressFromYUVPlanes(encoder.handle.get(), planes, bitmap.width(), strides, bitmap.height(),
                              TJSAMP_420, &out, &size, libjpegQuality(quality), TJFLAG_NOREALLOC) != 0) {
    return nullptr;
  }
  return std::make_shared<const Bytes>(encoder.output.begin(),
                                       encoder.output.begin() + static_cast<std::ptrdiff_t>(size));
}

}  // namespace zephlo::platform
