// encodeJpeg: JPEG encoding of a rendered frame, the way frame transmission sends
// it. The bitmap's YCbCr 4:2:0 planes go to libjpeg-turbo as they are (no colour
// conversion on the way) and come back as one shared byte buffer that travels to
// the socket without a copy.
//
// Any thread: each thread keeps its own encoder.
#pragma once

#include "zephlo/platform/bitmap.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo::platform {

// `quality` runs from 0 (smallest) to 1 (best) as with the platform's image
// writer; values outside are taken as the nearest end. Returns the JPEG file's
// bytes, or null when the encoder fails.
SharedBytes encodeJpeg(const Bitmap& bitmap, double quality);

}  // namespace zephlo::platform
