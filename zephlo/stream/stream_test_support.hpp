// Shared fixture of the stream protocol's suites: a session served by a real
// local REST service, real local control and stream socket servers on
// OS-chosen ports, and helpers that wait for what the servers receive.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zephlo/core/session.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/stream/stream_protocol.hpp"
#include "zephlo/testing/http_test_server.hpp"
#include "zephlo/testing/main_queue_fixture.hpp"
#include "zephlo/testing/web_socket_test_server.hpp"

namespace zephlo::testing {

// Records what the protocol hands its observers.
class RecordingProtocolObserver : public ZPHStreamProtocolObserver {
 public:
  void onAgentEvent(const std::shared_ptr<ZPHSession>& session, const ZPHAgentEvent& event) override {
    sessions.push_back(session);
    events.push_back(event);
  }
  void onSyncRequest(const std::shared_ptr<ZPHSession>& session) override { syncs.push_back(session); }

  std::vector<std::shared_ptr<ZPHSession>> sessions;
  std::vector<ZPHAgentEvent> events;
  std::vector<std::shared_ptr<ZPHSession>> syncs;
};

class StreamProtocolTest : public MainQueueTest {
 protected:
  void SetUp() override {
    MainQueueTest::SetUp();
    // The socket servers run on the main queue, so they start after it is reset.
    controlServer_ = std::make_unique<WebSocketTestServer>();
    streamServer_ = std::make_unique<WebSocketTestServer>();
    ZPHRESTResource::setBaseUrl(http_.url());
    http_.route("GET", "/api/1/sessions/s-1", HttpTestServer::Response::json(200, sessionJson()));

    session_ = ZPHSession::initWithResource({{"id", "s-1"}});
    protocol_ = ZPHStreamProtocol::create(session_);
  }

  void TearDown() override {
    // The session holds the protocol as its observer; both go here.
    if (protocol_) protocol_->close();
    if (session_) session_->cleanup();
    protocol_.reset();
    session_.reset();
    streamServer_.reset();
    controlServer_.reset();
    ZPHRESTResource::setBaseUrl(std::nullopt);
    MainQueueTest::TearDown();
  }

  // The session as the service would send it, naming the sockets asked for.
  ValueMap sessionMap(bool control, bool stream, std::string_view state = "active") const {
    ValueMap map{{"type", "Session"}, {"id", "s-1"}, {"state", state}};
    if (control) {
      map.set("control_url", controlServer_->url(""));
      map.set("control_token", "ctok");
    }
    if (stream) {
      map.set("stream_url", streamServer_->url(""));
      map.set("stream_token", "stok");
    }
    return map;
  }
  // What the REST service answers a fetch with: by default the control socket
  // only, so a fetch never opens the stream socket, and a scale that tells it
  // from pushed representations.
  std::string sessionJson(bool withStream = false) const {
    std::string json = R"({"type":"Session","id":"s-1","state":"active","scale":0.75,"control_url":")" +
                       controlServer_->url("") + R"(","control_token":"ctok")";
    if (withStream) json += R"(,"stream_url":")" + streamServer_->url("") + R"(","stream_token":"stok")";
    return json + "}";
  }

  // Messages a server received whose event is `event`, in order.
  static std::vector<ValueMap> receivedEvents(const WebSocketTestServer& server, std::string_view event) {
    std::vector<ValueMap> found;
    for (const auto& map : server.receivedMaps())
      if (map.get("event") == Value(event)) found.push_back(map);
    return found;
  }
  static void push(WebSocketTestServer& server, std::string_view event, const Value& data = ValueMap{}) {
    server.sendMap({{"event", event}, {"data", data}});
  }
  bool waitFor(const std::function<bool()>& done) { return queue().runUntil(done); }
  bool waitForEvents(const WebSocketTestServer& server, std::string_view event, std::size_t count) {
    return waitFor([&] { return receivedEvents(server, event).size() >= count; });
  }
  bool waitForBothClosed() {
    return waitFor([&] { return controlServer_->openCount() == 0 && streamServer_->openCount() == 0; });
  }
  // Drops the server's connections and, once the client has noticed, moves the
  // clock through the reconnect back-off until the new connection has sent its
  // filter and `done` holds. The clock stops once it is accepted, or the
  // handshake's own timeout on the same clock would fire.
  bool reconnect(WebSocketTestServer& server, const std::function<bool()>& done = [] { return true; }) {
    const auto& socket = &server == controlServer_.get() ? protocol_->control() : protocol_->stream();
    server.dropConnections();
    if (!waitFor([&] { return !socket->isConneced(); })) return false;
    return waitFor([&] {
      if (server.acceptedCount() < 2) advance(std::chrono::milliseconds(100));
      return receivedEvents(server, "filter").size() >= 2 && done();
    });
  }
  // Opens both sockets and waits until the stream socket is connected and has
  // sent its filter, and the fetch started by the control connection has landed
  // (a closed protocol still observes its session, so a late fetch would reopen).
  void openBoth() {
    // Fetches keep the stream socket's fields, or its reconnects find no URL.
    http_.route("GET", "/api/1/sessions/s-1", HttpTestServer::Response::json(200, sessionJson(true)));
    session_->updateResource(sessionMap(true, true));
    ASSERT_TRUE(waitForEvents(*streamServer_, "filter", 1));
    ASSERT_TRUE(waitFor([&] { return protocol_->stream() && protocol_->stream()->isConneced(); }));
    ASSERT_TRUE(waitFor([&] { return session_->scale() == 0.75f; }));
  }

  // `data` as the peer sees it after one trip through the codec.
  static Value roundTrip(const Value& data) {
    auto bytes = cbor::encode(data);
    if (!bytes) return Value("not encodable");
    return cbor::decode(*bytes).value_or(Value("not decodable"));
  }

  HttpTestServer http_;
  std::unique_ptr<WebSocketTestServer> controlServer_;
  std::unique_ptr<WebSocketTestServer> streamServer_;
  std::shared_ptr<ZPHSession> session_;
  std::shared_ptr<ZPHStreamProtocol> protocol_;
};

}  // namespace zephlo::testing
