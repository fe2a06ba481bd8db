// The quality setting a JPEG was most likely encoded with, read back from its
// luminance quantisation table. Encoders built on the IJG library (libjpeg,
// libjpeg-turbo, and so the broadcast's frames) scale one standard table by the
// quality, so comparing the stored table with the standard one gives the setting
// back, usually exactly.
//
// A pure function of the bytes; any thread. The bytes come from the network, so
// every length is checked and anything malformed yields nothing.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace zephlo::service {

// The estimated quality, 1..100, or nothing when the bytes hold no readable
// luminance table before the first scan.
std::optional<int> estimateJpegQuality(std::span<const std::uint8_t> jpeg);

}  // namespace zephlo::service
