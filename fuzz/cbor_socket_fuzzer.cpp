// The socket's receive path: any bytes from the peer either reach a listener or
// are ignored. Inputs whose keys the socket deliberately stops on (duplicate or
// unusable map keys) are recognised first and not fed to it; everything else is.
// Every decoded value must also survive an encode and decode unchanged.
#include <cstddef>
#include <cstdint>
#include <span>

#include "zephlo/platform/main_queue.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/socket/cbor_socket.hpp"

namespace zephlo {

class CBORSocketTestPeer {
 public:
  static void receive(CBORSocket& socket, std::span<const std::uint8_t> bytes) {
    socket.websocketDidReceiveData(bytes);
  }
};

namespace {

// Reads everything a listener is handed, as the event parsers would.
std::size_t touch(const Value& value) {
  std::size_t n = 1;
  if (const auto* array = value.asArray())
    for (const auto& element : *array) n += touch(element);
  if (const auto* map = value.asMap())
    for (const auto& [k, v] : *map) n += touch(k) + touch(v);
  if (const auto* bytes = value.asBytes()) n += bytes->size();
  return n;
}

CBORSocket& fuzzedSocket() {
  static std::shared_ptr<CBORSocket> socket = [] {
    platform::MainQueue::shared().reset(platform::ClockKind::Manual);
    // The queue never runs here, so this address is never dialled.
    auto s = CBORSocket::create([] {
      platform::URLRequest request;
      request.url = "ws://127.0.0.1:9/sockets/1/ws";
      return request;
    });
    for (const char* event : {"x", "session", "frame", "touch", "probe"})
      s->onMessage(event, [](const ValueMap& data) {
        volatile std::size_t sink = touch(Value(data));
        (void)sink;
      });
    return s;
  }();
  return *socket;
}

}  // namespace
}  // namespace zephlo

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace zephlo;
  const std::span<const std::uint8_t> bytes(data, size);
  auto checked = cbor::decodeChecked(bytes);
  if (checked.fatalMessage) return 0;  // the socket stops the process here by design
  if (checked.value) {
    auto once = cbor::encode(*checked.value);
    if (!once) __builtin_trap();
    auto again = cbor::decodeChecked(*once);
    if (!again.value) __builtin_trap();
    auto twice = cbor::encode(*again.value);
    if (!twice || *twice != *once) __builtin_trap();
  }
  CBORSocketTestPeer::receive(fuzzedSocket(), bytes);
  return 0;
}
