// Feeds pushed control-socket messages to a session: bytes are decoded as the
// socket would decode them, a {"event": "session", "data": {...}} envelope hands
// its data to updateResource, and so does any other decoded value directly (to
// reach the validation with every kind). An observer reads everything a session
// offers after each accepted update.
//
// Beyond not crashing, it checks that a rejected representation leaves the
// resource unchanged and tells no one, that an accepted one is stored as given,
// that sessionDidEnd comes only on entering "ended", and that scale never
// exceeds 1.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>

#include "zephlo/core/session.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/socket/cbor_codec.hpp"

namespace {

using namespace zephlo;

void require(bool condition) {
  if (!condition) std::abort();
}

// Equality by encoding, so that a NaN inside a value equals itself.
bool same(const Value& a, const Value& b) {
  const auto x = cbor::encode(a);
  const auto y = cbor::encode(b);
  if (!x || !y) return a == b;
  return *x == *y;
}

class ReadingObserver : public ZPHSessionObserver {
 public:
  void sessionDidUpdate(const std::shared_ptr<ZPHSession>& session) override {
    ++updates;
    const double scale = session->scale();
    require(std::isnan(scale) || scale <= 1.0);
    (void)session->url();
    (void)session->selectors();
    (void)session->agent();
    (void)session->hasAgent();
    (void)session->requireConsent();
    (void)session->fullDevice();
    (void)session->isActive();
    (void)session->code();
  }
  void sessionDidEnd(const std::shared_ptr<ZPHSession>& session) override {
    ++ends;
    require(session->isEnded());
  }
  int updates = 0;
  int ends = 0;
};

void feed(const std::shared_ptr<ZPHSession>& session, ReadingObserver& observer, const Value& value) {
  const Value before = session->resource();
  const bool wasEnded = session->isEnded();
  const int updates = observer.updates;
  const int ends = observer.ends;
  const auto error = session->updateResource(value);
  if (error) {
    require(error->code == 0);
    require(same(session->resource(), before));
    require(observer.updates == updates && observer.ends == ends);
    return;
  }
  require(same(session->resource(), value));
  require(observer.updates == updates + 1);
  require(observer.ends == ends + (!wasEnded && session->isEnded() ? 1 : 0));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // The session's observer set belongs to the main queue; this thread is it.
  platform::MainQueue::shared().reset(platform::ClockKind::Manual);
  ZPHRESTResource::setBaseUrl("https://api.example");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Input the socket would stop on (duplicate keys) is its own business.
  const auto decoded = cbor::decodeChecked(std::span<const std::uint8_t>(data, size));
  if (!decoded.value) return 0;

  static const auto session = ZPHSession::initWithResource({{"id", "fuzz"}});
  static const auto observer = [] {
    auto o = std::make_shared<ReadingObserver>();
    session->registerSessionObserver(o);
    return o;
  }();

  const Value& value = *decoded.value;
  const ValueMap* message = value.asMap();
  // The envelope as the control socket delivers it: string keys, a "session"
  // event, a map as its data.
  if (message && message->isStringKeyed() && message->get("event") == Value("session")) {
    const Value payload = message->get("data");
    if (payload.isMap() && payload.asMap()->isStringKeyed()) feed(session, *observer, payload);
    return 0;
  }
  feed(session, *observer, value);
  return 0;
}
