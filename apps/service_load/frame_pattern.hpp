// Frames for driving the service without a screen: a phone-sized picture with a
// gradient background, a bar that moves and a block whose colour changes from one
// frame to the next, encoded as real JPEG files at a given quality. Successive
// frames differ visibly, so a viewer can tell them apart.
//
// Pure functions; any thread.
#pragma once

#include <vector>

#include "zephlo/base/value.hpp"

namespace zephlo::service {

// `count` JPEG frames of width x height at `quality` (0..1); empty when the size
// is not positive or the encoder fails.
std::vector<SharedBytes> patternFrames(int width, int height, int count, double quality);

}  // namespace zephlo::service
