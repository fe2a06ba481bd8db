#include "apps/service/service_server.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <memory>
#include <tuple>
#include <vector>

#include "apps/service_load/frame_pattern.hpp"
#include "zephlo/testing/http_call.hpp"
#include "apps/service_load/load_run.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/testing/wire_client.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/socket/cbor_codec.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

using testing::HttpCallRequest;
using testing::HttpResult;
using testing::WireClient;
using testing::httpCall;
namespace {

using namespace std::chrono_literals;

// The service on 127.0.0.1 with an OS-chosen port, driven over real sockets by
// bare clients on the same main queue.
class ServiceServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    queue().reset(platform::ClockKind::Real);
    server_ = std::make_unique<ServiceServer>();
    std::string error;
    ASSERT_TRUE(server_->listen("127.0.0.1", 0, &error)) << error;
    session_ = createSession();
    id_ = text(session_, "id");
  }

  void TearDown() override {
    for (auto& client : clients_) client->close();
    clients_.clear();
    server_->stop();
    EXPECT_TRUE(queue().runUntil([&] { return server_->liveConnections() == 0; }, 5s));
    server_.reset();
    while (queue().poll() > 0) {
    }
  }

  static platform::MainQueue& queue() { return platform::MainQueue::shared(); }
  bool waitFor(const std::function<bool()>& done) { return queue().runUntil(done, 5s); }

  HttpResult fetch(std::string method, std::string target, std::string body = "") {
    std::optional<HttpResult> result;
    httpCall({"127.0.0.1", server_->port(), std::move(method), std::move(target), std::move(body), {}},
             [&](HttpResult r) { result = std::move(r); });
    EXPECT_TRUE(waitFor([&] { return result.has_value(); }));
    return result.value_or(HttpResult{});
  }
  HttpResult putSession(const std::string& idOrCode, std::string body) {
    return fetch("PUT", "/api/1/sessions/" + idOrCode, std::move(body));
  }
  HttpResult postEvent(const std::string& id, std::string body) { return consoleApi(id, "/events", "POST", std::move(body)); }
  // A call on the console's API for session `id`.
  HttpResult consoleApi(const std::string& id, const std::string& path = "", std::string method = "GET",
                        std::string body = "") {
    return fetch(std::move(method), "/console/api/sessions/" + id + path, std::move(body));
  }

  // Writes bytes on a fresh TCP connection and reads until the service closes it.
  std::string sendRawTcp(const std::string& bytes) {
    namespace asio = boost::asio;
    asio::ip::tcp::socket socket(platform::ioContext());
    socket.connect({asio::ip::make_address("127.0.0.1"), server_->port()});
    asio::write(socket, asio::buffer(bytes));
    std::string answer;
    bool closed = false;
    asio::async_read(socket, asio::dynamic_buffer(answer), [&](boost::system::error_code, std::size_t) { closed = true; });
    EXPECT_TRUE(waitFor([&] { return closed; }));
    return answer;
  }

  // The reply's JSON object; `status`, when given, is the one expected.
  static ValueMap bodyOf(const HttpResult& r, std::optional<int> status = std::nullopt) {
    EXPECT_EQ(r.status, status.value_or(r.status)) << r.body;
    auto v = json::parse(r.body);
    EXPECT_TRUE(v && v->isMap()) << r.body;
    return v && v->isMap() ? *v->asMap() : ValueMap{};
  }

  static std::string text(const ValueMap& m, std::string_view key) {
    const std::string* s = textField(m, key);
    return s ? *s : std::string();
  }

  ValueMap createSession() { return bodyOf(fetch("POST", "/api/1/sessions", "{}"), 201); }

  // The path of a socket URL handed out by the service, with the socket suffix.
  static std::string socketTarget(const ValueMap& session, std::string_view urlField) {
    const std::string url = text(session, urlField);
    const auto path = url.find('/', url.find("://") + 3);
    return url.substr(path) + std::string(wire::kSocketPath);
  }

  std::shared_ptr<WireClient> connect(const std::string& target, const std::optional<std::string>& token) {
    auto client = WireClient::connect("127.0.0.1", server_->port(), target, token);
    clients_.push_back(client);
    EXPECT_TRUE(waitFor([&] { return client->isSettled(); }));
    return client;
  }

  // `kind` is "control" or "stream": the session names the socket's URL and token after it.
  std::shared_ptr<WireClient> openSocket(const ValueMap& session, const std::string& kind) {
    auto client = connect(socketTarget(session, kind + "_url"), text(session, kind + "_token"));
    EXPECT_EQ(client->state(), WireClient::State::Open);
    return client;
  }
  // Subscribes and waits for the acknowledgement.
  void subscribe(WireClient& client, std::vector<std::string> events) {
    roundTrip(client, wire::kFilter, ValueMap{{wire::kFilterEvents, ValueArray(events.begin(), events.end())}});
  }
  // Sends a message and waits for its acknowledgement. The service writes in
  // order, so everything it queued for this socket before reading the message has
  // arrived by then.
  void roundTrip(WireClient& client, std::string_view event = "noop", ValueMap data = {}) {
    const std::uint64_t id = client.send(event, data);
    ASSERT_TRUE(waitFor([&] { return client.lastAck() >= id; })) << "no ack for " << id;
  }

  // A console socket that the service has confirmed to be watching session `id`.
  std::shared_ptr<WireClient> watchingConsole(const std::string& id) {
    auto console = connect("/console/ws", std::nullopt);
    EXPECT_EQ(console->state(), WireClient::State::Open);
    say(*console, R"({"type":"watch","session":")" + id + R"("})");
    EXPECT_TRUE(waitFor([&] { return countTexts(*console, R"("type":"watching")") > 0; }));
    return console;
  }
  static void say(WireClient& console, const std::string& json) {
    console.sendRaw(Bytes(json.begin(), json.end()), true);
  }
  static std::size_t countTexts(const WireClient& client, std::string_view part) {
    const auto texts = client.texts();
    return static_cast<std::size_t>(
        std::ranges::count_if(texts, [&](const std::string& t) { return t.find(part) != std::string::npos; }));
  }

  std::unique_ptr<ServiceServer> server_;
  std::vector<std::shared_ptr<WireClient>> clients_;
  ValueMap session_;  // made for every case, with its id
  std::string id_;
};

// The socket URLs the session names show in the cases that connect to them.
TEST_F(ServiceServerTest, AnswersTheSessionResourceWithStatusesAndMessages) {
  const std::string code = text(session_, "code");

  // By id and by code.
  HttpResult r = fetch("GET", "/api/1/sessions/" + id_);
  EXPECT_EQ(r.contentType, "application/json; charset=utf-8");
  EXPECT_EQ(bodyOf(r, 200), session_);
  EXPECT_EQ(bodyOf(fetch("GET", "/api/1/sessions/" + code), 200), session_);

  // The extension's full-device switch answers the whole session.
  const ValueMap changed = bodyOf(putSession(id_, R"({"full_device":true})"), 200);
  EXPECT_EQ(changed.get("full_device"), Value(true));
  EXPECT_EQ(text(changed, "state"), "pending");
  EXPECT_EQ(text(bodyOf(putSession(code, R"({"state":"active"})"), 200), "state"), "active");

  // Refusals: a JSON object with a "message" and the status that says why (the
  // store's own rules for bodies are its tests' business).
  for (const auto& [method, target, body, status] :
       std::initializer_list<std::tuple<const char*, std::string, const char*, int>>{
      {"GET", "/api/1/sessions/unknown", "", 404},
      {"PUT", "/api/1/sessions/unknown", R"({"state":"active"})", 404},
      {"PUT", "/api/1/sessions/" + id_, "", 400},
      {"PUT", "/api/1/sessions/" + id_, "{not json", 400},
      {"DELETE", "/api/1/sessions/" + id_, "", 405},
      {"GET", "/api/1/sessions", "", 405},
      {"POST", "/api/1/sessions", "{oops", 400},
      {"GET", "/api/1/nothing", "", 404},
      {"PUT", "/console/api/sessions/" + id_ + "/full-device-failure", R"({"status":200})", 422},
       }) {
    SCOPED_TRACE(std::string(method) + " " + target + " " + body);
    EXPECT_TRUE(bodyOf(fetch(method, target, body), status).get("message").isString());
  }

  EXPECT_EQ(putSession(id_, R"({"state":"ended"})").status, 200);
  EXPECT_EQ(text(bodyOf(putSession(id_, R"({"state":"active"})"), 409), "message"), "Session has ended");
}

// The path names the device; a later PUT merges into it.
TEST_F(ServiceServerTest, StoresMergesAndDeletesDevices) {
  const ValueMap stored =
      bodyOf(fetch("PUT", "/api/1/devices/DEV-1", R"({"push_token":"0aff","custom_data":{"a":1},"id":"x"})"), 200);
  EXPECT_EQ(text(stored, "id"), "DEV-1");
  EXPECT_EQ(text(stored, "type"), "Device");
  EXPECT_EQ(stored.get(wire::kNextRegistration).toDouble(), 3600.0);
  EXPECT_FALSE(stored.contains(wire::kNotificationUrl));
  EXPECT_EQ(text(bodyOf(fetch("PUT", "/api/1/devices/DEV-1", R"({"push_provider":"APNS"})"), 200), "push_token"), "0aff");
  EXPECT_EQ(text(bodyOf(fetch("GET", "/api/1/devices/DEV-1"), 200), "push_provider"), "APNS");
  EXPECT_EQ(text(bodyOf(fetch("PUT", "/api/1/devices/DEV-2", "[1]"), 400), "message"), "Expected a JSON object");
  EXPECT_EQ(fetch("GET", "/api/1/devices/DEV-2").status, 404);
  const ValueMap removed = bodyOf(fetch("DELETE", "/api/1/devices/DEV-1"), 200);
  EXPECT_EQ(text(removed, "id"), "DEV-1");
  EXPECT_EQ(text(removed, "push_provider"), "APNS");
  EXPECT_EQ(text(bodyOf(fetch("DELETE", "/api/1/devices/DEV-1"), 404), "message"), "Device not found");
  EXPECT_EQ(fetch("POST", "/api/1/devices/DEV-1", "{}").status, 405);
}

TEST_F(ServiceServerTest, SocketsNeedTheirOwnBearerToken) {
  const std::string control = socketTarget(session_, "control_url"), stream = socketTarget(session_, "stream_url");
  const std::string streamToken = text(session_, "stream_token"), controlToken = text(session_, "control_token");
  for (const auto& [target, token, status] :
       std::initializer_list<std::tuple<std::string, std::optional<std::string>, int>>{
      {stream, std::nullopt, 401},
      {stream, "wrong", 401},
      {stream, controlToken, 401},  // the other socket's token
      {control, streamToken, 401},
      {"/sessions/unknown/stream/sockets/1/ws", streamToken, 404},
      {"/sessions/" + id_ + "/other/sockets/1/ws", streamToken, 404},
       }) {
    SCOPED_TRACE(target + " " + token.value_or("(none)"));
    auto client = connect(target, token);
    ASSERT_EQ(client->state(), WireClient::State::Refused);
    EXPECT_EQ(client->refusedStatus(), status);
    auto body = json::parse(client->refusedBody());
    ASSERT_TRUE(body && body->isMap()) << client->refusedBody();
    EXPECT_TRUE(body->asMap()->get("message").isString());
  }
  auto streamSocket = connect(stream, streamToken), controlSocket = connect(control, controlToken);
  // The operator's drop closes the stream socket only (both were open, not refused).
  EXPECT_EQ(bodyOf(consoleApi(id_, "/drop-stream", "POST"), 200).get("dropped").toDouble(), 1.0);
  ASSERT_TRUE(waitFor([&] { return streamSocket->state() == WireClient::State::Closed; }));
  roundTrip(*controlSocket);

  // An ended session takes no new sockets.
  putSession(id_, R"({"state":"ended"})");
  auto late = connect(stream, streamToken);
  EXPECT_EQ(late->state(), WireClient::State::Refused);
  EXPECT_EQ(late->refusedStatus(), 410);
}

TEST_F(ServiceServerTest, AcknowledgesEveryMessageByIdAndSurvivesGarbage) {
  auto stream = openSocket(session_, "stream");
  stream->send("filter", ValueMap{{"events", ValueArray{"touch"}}});
  stream->send("screen", ValueMap{{"type", "Screen"}});
  stream->send("nobody-listens", ValueMap{});
  // Not CBOR, CBOR that is not a map, a map without an id, a text frame, and maps
  // whose integer keys collide once converted ({1: 1, -1: 2} and {1: 1, -2: 2}).
  stream->sendRaw(Bytes{0xFF, 0x00, 0x13});
  stream->sendRaw(*cbor::encode(Value(ValueArray{1, 2})));
  stream->sendRaw(*cbor::encode(Value(ValueMap{{"event", "frame"}, {"data", ValueMap{}}})));
  stream->sendRaw(Bytes{'h', 'i'}, true);
  stream->sendRaw(Bytes{0xA2, 0x01, 0x01, 0x20, 0x02});
  stream->sendRaw(Bytes{0xA2, 0x01, 0x01, 0x21, 0x02});
  const std::uint64_t last = stream->send("screen", ValueMap{});
  ASSERT_TRUE(waitFor([&] { return stream->lastAck() == last; }));

  std::vector<std::uint64_t> acks;
  for (const ValueMap& m : stream->received())
    if (const std::uint64_t* ack = unsignedField(m, "ack")) acks.push_back(*ack);
  EXPECT_EQ(acks, (std::vector<std::uint64_t>{1, 2, 3, 4}));
  EXPECT_EQ(stream->state(), WireClient::State::Open);
  EXPECT_EQ(stream->undecodable(), 0u);
  EXPECT_EQ(fetch("GET", "/api/1/sessions/" + id_).status, 200);  // still answering
}

TEST_F(ServiceServerTest, SocketsReceiveOnlyTheEventsTheySubscribedTo) {
  auto touchOnly = openSocket(session_, "stream");
  auto extension = openSocket(session_, "stream");
  auto unsubscribed = openSocket(session_, "stream");
  subscribe(*touchOnly, {"touch"});
  subscribe(*extension, {"drawing", "laser", "url", "touch", "keypress", "sync", "probe"});

  const auto delivered = [&](const std::string& json) { return bodyOf(postEvent(id_, json), 200).get("delivered").toDouble(); };
  EXPECT_EQ(delivered(R"({"event":"laser","data":{"type":"Laser","id":"l1","state":"touchstart","x":10,"y":20}})"), 1.0);
  EXPECT_EQ(delivered(R"({"event":"touch","data":{"type":"Touch","id":"t1","state":"touchend",)"
                      R"("timestamp":"2024-05-01T13:45:07.123+0200","x":1.5,"y":2.5}})"),
            2.0);
  // Not an agent event, and not a session.
  EXPECT_EQ(postEvent(id_, R"({"event":"frame","data":{}})").status, 422);
  EXPECT_EQ(postEvent("nope", R"({"event":"sync","data":{}})").status, 404);

  for (auto* c : {touchOnly.get(), extension.get(), unsubscribed.get()}) roundTrip(*c);
  EXPECT_TRUE(touchOnly->events("laser").empty());
  ASSERT_EQ(touchOnly->events("touch").size(), 1u);
  ASSERT_EQ(extension->events("laser").size(), 1u);
  const ValueMap laser{{"type", "Laser"}, {"id", "l1"}, {"state", "touchstart"}, {"x", 10u}, {"y", 20u}};
  EXPECT_EQ(extension->events("laser")[0], laser) << Value(extension->events("laser")[0]).debugString();
  EXPECT_EQ(extension->events("touch").size(), 1u);
  // Before any filter a socket hears nothing but its acknowledgements.
  for (const ValueMap& m : unsubscribed->received()) EXPECT_TRUE(m.contains("ack")) << Value(m).debugString();

  // A new filter replaces the old one.
  subscribe(*touchOnly, {"sync"});
  postEvent(id_, R"({"event":"touch","data":{}})");
  postEvent(id_, R"({"event":"sync"})");
  roundTrip(*touchOnly);
  EXPECT_EQ(touchOnly->events("touch").size(), 1u);
  EXPECT_EQ(touchOnly->events("sync").size(), 1u);
}

TEST_F(ServiceServerTest, PushesTheSessionOnControlSocketsWhenItChanges) {
  auto control = openSocket(session_, "control");
  auto silent = openSocket(session_, "control");
  auto stream = openSocket(session_, "stream");
  subscribe(*control, {"session"});
  subscribe(*stream, {"session", "touch"});  // sessions go out on control sockets only

  putSession(id_, R"({"state":"active","full_device":true})");
  putSession(id_, R"({"state":"active"})");  // no change, no push
  putSession(id_, R"({"state":"bogus"})");   // refused, no push
  const HttpResult ended = putSession(id_, R"({"state":"ended"})");
  for (auto* c : {control.get(), silent.get(), stream.get()}) roundTrip(*c);

  const auto pushes = control->events("session");
  ASSERT_EQ(pushes.size(), 2u);
  EXPECT_EQ(text(pushes[0], "state"), "active");
  EXPECT_EQ(pushes[0].get("full_device"), Value(true));
  EXPECT_EQ(text(pushes[0], "type"), "Session");
  EXPECT_EQ(text(pushes[0], "stream_token"), text(session_, "stream_token"));
  EXPECT_EQ(text(pushes[1], "state"), "ended");
  EXPECT_EQ(text(pushes[1], "id"), id_);
  EXPECT_EQ(text(pushes[1], "updated_at"), text(bodyOf(ended), "updated_at"));
  // Envelope ids of the service's own messages count up per socket.
  std::vector<std::uint64_t> ids;
  for (const ValueMap& m : control->received())
    if (m.contains("event")) ids.push_back(*unsignedField(m, "id"));
  EXPECT_EQ(ids, (std::vector<std::uint64_t>{1, 2}));
  EXPECT_TRUE(silent->events("session").empty());
  EXPECT_TRUE(stream->events("session").empty());
}

TEST_F(ServiceServerTest, CountsFramesKeepsTheLatestAndShowsThemToTheConsole) {
  auto console = watchingConsole(id_);
  auto first = json::parse(console->texts().at(0));
  ASSERT_TRUE(first && first->isMap());
  EXPECT_EQ(text(*first->asMap(), "type"), "sessions");
  say(*console, "");  // not JSON: an error, not a crash
  ASSERT_TRUE(waitFor([&] { return countTexts(*console, R"("type":"error")") == 1; }));

  const auto jpegs = patternFrames(64, 48, 3, 0.6);
  auto stream = openSocket(session_, "stream");
  std::uint64_t bytes = 0;
  for (std::uint64_t frameId : {0u, 1u, 3u}) {  // frame 2 was dropped by the sender
    const SharedBytes& jpeg = jpegs[frameId % 3];
    bytes += jpeg->size();
    stream->send("frame", ValueMap{{"type", "Frame"}, {"id", frameId}, {"image", jpeg},
                                   {"timestamp", "2024-05-01T13:45:07+02:00"}, {"mime_type", "image/jpeg"}});
  }
  stream->send("frame", ValueMap{{"type", "Frame"}, {"id", 9u}});  // no image: ignored
  roundTrip(*stream);

  const ValueMap summary = bodyOf(consoleApi(id_));
  const ValueMap* stats = mapField(summary, "stats");
  ASSERT_TRUE(stats);
  for (const auto& [key, expected] : {std::pair<const char*, double>{"frames", 3}, {"bytes", static_cast<double>(bytes)},
                                      {"missing_ids", 1}, {"last_frame_id", 3}, {"last_quality", 60}})
    EXPECT_EQ(stats->get(key).toDouble(), expected) << key;
  EXPECT_EQ(summary.get("stream_sockets").toDouble(), 1.0);
  const HttpResult frame = consoleApi(id_, "/frame");
  EXPECT_EQ(frame.contentType, "image/jpeg");
  EXPECT_EQ(Bytes(frame.body.begin(), frame.body.end()), *jpegs[0]);  // frame 3 is jpegs[0]
  EXPECT_EQ(consoleApi(text(createSession(), "id"), "/frame").status, 404);

  // Frames reach the console as binary messages ending in the JPEG (the browser
  // test reads the rest). Newer frames replace those not yet written, so the
  // last one arrives.
  ASSERT_TRUE(waitFor([&] {
    return std::ranges::any_of(console->raw(), [&](const WireClient::Raw& raw) {
      return !raw.text && raw.bytes.size() > 4 &&
             std::equal(jpegs[0]->begin(), jpegs[0]->end(), raw.bytes.end() - jpegs[0]->size());
    });
  }));
}

TEST_F(ServiceServerTest, ConsoleRelaysAgentEventsAndProbeRepliesComeBack) {
  auto stream = openSocket(session_, "stream");
  subscribe(*stream, {"touch", "probe", "sync"});
  auto console = watchingConsole(id_);
  const std::string event = R"({"type":"event","session":")" + id_ + R"(","event":)";
  say(*console, event + R"("touch","data":{"type":"Touch","id":"agent-1","state":"touchstart",)"
                        R"("timestamp":"2024-05-01T13:45:07.123+0200","x":12,"y":34}})");
  say(*console, event + R"("probe","data":{"n":1,"sent_at":5}})");
  say(*console, event + R"("frame","data":{}})");  // not an agent event
  ASSERT_TRUE(waitFor([&] { return stream->events("probe").size() == 1; }));
  ASSERT_EQ(stream->events("touch").size(), 1u);
  const ValueMap touch{{"type", "Touch"}, {"id", "agent-1"}, {"state", "touchstart"},
                       {"timestamp", "2024-05-01T13:45:07.123+0200"}, {"x", 12u}, {"y", 34u}};
  EXPECT_EQ(stream->events("touch")[0], touch) << Value(stream->events("touch")[0]).debugString();

  // The extension answers the probe with "alive" and the same data.
  stream->send("alive", stream->events("probe")[0]);
  ASSERT_TRUE(waitFor([&] { return countTexts(*console, R"("type":"alive")") > 0; }));
  EXPECT_EQ(countTexts(*console, R"("type":"sent")"), 2u);
  EXPECT_EQ(countTexts(*console, R"("type":"error")"), 1u);
}

// The page itself shows in the console's browser test.
TEST_F(ServiceServerTest, ServesTheConsoleAndSurvivesMalformedRequests) {
  EXPECT_EQ(fetch("GET", "/console.js").contentType, "text/javascript; charset=utf-8");
  EXPECT_EQ(fetch("GET", "/console.css").status, 200);
  EXPECT_EQ(fetch("GET", "/missing.txt").status, 404);

  // A body over the limit is refused; the service carries on.
  const HttpResult big = fetch("PUT", "/api/1/devices/big", std::string(2 * 1024 * 1024, ' '));
  EXPECT_TRUE(big.status == 413 || !big.completed);
  // Bytes that are not HTTP close that connection only, without an answer.
  EXPECT_EQ(sendRawTcp("GARBAGE\r\n\r\n"), "");
  EXPECT_EQ(sendRawTcp(std::string("\x16\x03\x01\x00\xff", 5)), "");  // a TLS hello
  EXPECT_EQ(fetch("POST", "/api/1/sessions", "").status, 201);
}

TEST_F(ServiceServerTest, ManyBroadcastsAreAllAcknowledged) {
  LoadOptions options;
  options.port = server_->port();
  options.clients = 4;
  options.framesPerSecond = 50;
  options.duration = 300ms;
  options.frames = patternFrames(96, 64, 2, 0.5);
  bool done = false;
  auto run = LoadRun::start(options, [&] { done = true; });
  ASSERT_TRUE(waitFor([&] { return done; }));
  const LoadFigures& f = run->figures();
  EXPECT_TRUE(f.failures.empty()) << f.describe();
  EXPECT_EQ(f.clientsStreaming, 4);
  EXPECT_GT(f.sent, 0u);
  EXPECT_EQ(f.acknowledged, f.sent) << f.describe();
  // The service counted every frame in the session it came for.
  std::uint64_t counted = 0;
  for (const std::string& id : run->sessionIds()) {
    const ValueMap summary = bodyOf(consoleApi(id));
    EXPECT_EQ(text(summary, "state"), "active");
    EXPECT_EQ(summary.get("full_device"), Value(true));
    counted += static_cast<std::uint64_t>(*mapField(summary, "stats")->get("frames").toDouble());
  }
  EXPECT_EQ(counted, f.sent);
}

}  // namespace
}  // namespace zephlo::service
