// The socket's per-message costs: encoding a frame message around a 30 KB JPEG,
// and decoding the acknowledgements and events that come back.
#include <benchmark/benchmark.h>

#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {
namespace {

ValueMap frameData() {
  Bytes image(30 * 1024);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 31);
  return ValueMap{{Value(wire::kType), Value(wire::kFrameType)},
                  {Value(wire::kImage), Value(std::move(image))},
                  {Value(wire::kMimeType), Value(wire::kJpegMimeType)},
                  {Value(wire::kTimestamp), Value(1763700000.125)}};
}

void BM_EncodeFrameMessage(benchmark::State& state) {
  const ValueMap data = frameData();
  std::uint64_t id = 0;
  for (auto _ : state) {
    auto bytes = cbor::encodeMessage(wire::kFrameEvent, data, ++id);
    benchmark::DoNotOptimize(bytes);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * 30 * 1024);
}
BENCHMARK(BM_EncodeFrameMessage);

void BM_DecodeAck(benchmark::State& state) {
  const Bytes ack = *cbor::encode(Value(ValueMap{{Value(wire::kAck), Value(123456u)}}));
  for (auto _ : state) {
    auto value = cbor::decode(ack);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_DecodeAck);

void BM_DecodeTouchEvent(benchmark::State& state) {
  const ValueMap data{{"x", 120.5}, {"y", 480.25}, {"phase", "began"}, {"id", 3u}};
  const Bytes message = *cbor::encodeMessage(wire::kTouchEvent, data, 42);
  for (auto _ : state) {
    auto value = cbor::decode(message);
    benchmark::DoNotOptimize(value);
  }
}
BENCHMARK(BM_DecodeTouchEvent);

}  // namespace
}  // namespace zephlo

BENCHMARK_MAIN();
