#include <gtest/gtest.h>

#include <cctype>

#include "zephlo/platform/bitmap.hpp"
#include "zephlo/stream/stream_protocol.hpp"
#include "zephlo/stream/stream_test_support.hpp"
#include "zephlo/testing/log_capture.hpp"

namespace zephlo {
namespace {

using testing::LogCapture;
using testing::WebSocketTestServer;

constexpr std::string_view kDropLine = "Zephlo dropped frame due to network congestion";

// A gradient, or noise that JPEG cannot shrink much (for frames that take a
// while to write).
std::unique_ptr<platform::Bitmap> makeBitmap(int width = 64, int height = 48, bool noisy = false) {
  std::unique_ptr<platform::Bitmap> bitmap = platform::Bitmap::create(width, height);
  std::uint32_t state = 12345;
  for (int plane = 0; plane < 3; ++plane)
    for (int y = 0; y < bitmap->planeHeight(plane); ++y)
      for (int x = 0; x < bitmap->planeWidth(plane); ++x) {
        state = state * 1664525u + 1013904223u;
        const auto sample = noisy ? static_cast<std::uint8_t>(state >> 24) : static_cast<std::uint8_t>(x * 4);
        bitmap->mutablePlane(plane)[y * bitmap->planeWidth(plane) + x] = plane == 0 || noisy ? sample : 128;
      }
  return bitmap;
}
FrameImage makeImage(int width = 64, int height = 48, bool noisy = false) { return makeBitmap(width, height, noisy); }

// "yyyy-MM-ddTHH:mm:ss" followed by "Z" or "+hh:mm" / "-hh:mm".
bool looksLikeIsoDate(std::string text) {
  for (char& c : text)
    if (std::isdigit(static_cast<unsigned char>(c))) c = 'd';
  const std::string base = "dddd-dd-ddTdd:dd:dd";
  return text == base + "Z" || text == base + "+dd:dd" || text == base + "-dd:dd";
}

class FrameTransmissionTest : public testing::StreamProtocolTest {
 protected:
  // Sets the stream socket's message lag to `lag`: a probe round trip makes sure
  // every message the client sent has arrived, so the count the server holds is
  // the client's last id; an acknowledgement `lag` below it does the rest.
  void setLag(std::uint64_t lag) {
    const std::size_t connection = streamServer_->acceptedCount() - 1;
    while (true) {
      const Value marker = ValueMap{{"marker", static_cast<std::uint64_t>(++probes_)}};
      push(*streamServer_, "probe", marker);
      ASSERT_TRUE(waitFor([&] {
        const auto alive = receivedEvents(*streamServer_, "alive");
        return !alive.empty() && alive.back().get("data") == marker;
      }));
      std::uint64_t sent = 0;
      for (const auto& message : streamServer_->received()) sent += message.connection == connection;
      if (sent > lag) {
        streamServer_->sendMap({{"ack", sent - lag}});
        ASSERT_TRUE(waitFor([&] { return protocol_->stream()->messageLag() == lag; }));
        return;
      }
      for (std::uint64_t i = sent; i <= lag; ++i) protocol_->stream()->send("noise", ValueMap{});
    }
  }

  // Sends one frame and returns its callback's outcome once it arrives.
  std::optional<bool> sendFrame(ZPHStreamProtocol& protocol, FrameImage image = makeImage()) {
    int calls = 0;
    std::optional<bool> outcome;
    protocol.sendFrame(std::move(image), [&](bool sent) {
      EXPECT_EQ(++calls, 1);
      outcome = sent;
    });
    if (!waitFor([&] { return outcome.has_value(); })) return std::nullopt;
    return outcome;
  }

  std::vector<std::uint64_t> frameIds() {
    std::vector<std::uint64_t> ids;
    for (const auto& frame : receivedEvents(*streamServer_, "frame"))
      if (const Value data = frame.get("data"); const auto* map = data.asMap())
        if (const Value id = map->get("id"); id.asUInt()) ids.push_back(*id.asUInt());
    return ids;
  }

  std::uint64_t probes_ = 0;
};

TEST(FrameTransmissionRules, QualityAndGateFollowTheMessageLag) {
  struct Channel final : FrameChannel {
    bool connected = true;
    std::uint64_t lag = 0;
    bool isConneced() const override { return connected; }
    std::uint64_t messageLag() const override { return lag; }
  };
  using enum GateVerdict;
  const struct {
    std::uint64_t lag;
    float quality;
    GateVerdict frame;
  } cases[] = {{0, 0.6f, Send}, {1, 0.6f, Send}, {2, 0.5f, Send}, {3, 0.4f, Send},
               {4, 0.3f, Send}, {5, 0.3f, Send}, {6, 0.2f, Congested}, {40, 0.2f, Congested}};
  Channel channel;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.lag);
    channel.lag = c.lag;
    EXPECT_FLOAT_EQ(frameQuality(c.lag), c.quality);
    EXPECT_EQ(gate(&channel, "frame"), c.frame);
    EXPECT_EQ(gate(&channel, "screen"), Send);  // only frames are held back
  }
  channel.connected = false;
  channel.lag = 0;
  EXPECT_EQ(gate(&channel, "screen"), NotConnected);
  EXPECT_EQ(gate(nullptr, "frame"), NotConnected);
}

TEST_F(FrameTransmissionTest, AFrameGoesOutAsJpegWithItsPayload) {
  openBoth();
  FrameImage image = makeImage();
  const std::weak_ptr<const platform::Bitmap> weakImage = image;
  int calls = 0;
  std::optional<bool> outcome;
  protocol_->sendFrame(std::move(image), [&](bool sent) {
    ++calls;
    outcome = sent;
  });
  // The sender is done with the bitmap before it calls back.
  EXPECT_TRUE(weakImage.expired());
  ASSERT_TRUE(waitFor([&] { return outcome.has_value(); }));
  EXPECT_TRUE(*outcome);
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 1));
  EXPECT_EQ(calls, 1);

  const Value data = receivedEvents(*streamServer_, "frame")[0].get("data");
  ASSERT_TRUE(data.isMap());
  const ValueMap& frame = *data.asMap();
  EXPECT_EQ(frame.size(), 5u);
  EXPECT_EQ(frame.get("type"), Value("Frame"));
  EXPECT_EQ(frame.get("id").type(), Value::Type::UInt);
  EXPECT_EQ(frame.get("mime_type"), Value("image/jpeg"));
  const Value imageValue = frame.get("image");
  const Bytes* jpeg = imageValue.asBytes();
  ASSERT_TRUE(jpeg);
  ASSERT_GT(jpeg->size(), 4u);
  EXPECT_EQ((Bytes{jpeg->front(), (*jpeg)[1], (*jpeg)[jpeg->size() - 2], jpeg->back()}), (Bytes{0xFF, 0xD8, 0xFF, 0xD9}));
  const Value timestamp = frame.get("timestamp");
  ASSERT_TRUE(timestamp.asString());
  EXPECT_TRUE(looksLikeIsoDate(*timestamp.asString())) << *timestamp.asString();
}

TEST_F(FrameTransmissionTest, CongestionDropsTheFrameButUsesUpItsIdAndHoldsBackNothingElse) {
  openBoth();
  LogCapture log;
  setLag(0);
  ASSERT_EQ(sendFrame(*protocol_), true);

  setLag(6);
  std::optional<bool> dropped;
  protocol_->sendFrame(makeImage(), [&](bool sent) { dropped = sent; });
  EXPECT_EQ(dropped, false);  // at once, no write involved
  EXPECT_EQ(log.lines(), std::vector<std::string>{std::string(kDropLine)});

  // Only frames are held back: screen details go out, a missing title as null.
  protocol_->sendScreenDetails("ZPHSettingsViewController", "Settings");
  protocol_->sendScreenDetails("ZPHHomeViewController", std::nullopt);
  ASSERT_TRUE(waitForEvents(*streamServer_, "screen", 2));
  const auto screens = receivedEvents(*streamServer_, "screen");
  const std::pair<const char*, Value> expected[] = {{"ZPHSettingsViewController", "Settings"},
                                                    {"ZPHHomeViewController", roundTrip(Value())}};
  for (std::size_t i = 0; i < 2; ++i) {
    Value data = screens[i].get("data");
    ASSERT_TRUE(data.isMap() && data.asMap()->get("timestamp").isString());
    ValueMap rest = *data.asMap();
    rest.erase("timestamp");
    EXPECT_EQ(rest, (ValueMap{{"type", "Screen"}, {"class", expected[i].first}, {"title", expected[i].second}}));
  }

  setLag(0);
  ASSERT_EQ(sendFrame(*protocol_), true);
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 2));
  const auto ids = frameIds();
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids[1], ids[0] + 2);
  EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(FrameTransmissionTest, NotConnectedGivesFalseSilently) {
  LogCapture log;
  // No stream socket at all.
  EXPECT_EQ(sendFrame(*protocol_), false);

  // A stream socket still in its handshake.
  WebSocketTestServer::Options silent;
  silent.answerUpgrades = false;
  streamServer_ = std::make_unique<WebSocketTestServer>(silent);
  session_->updateResource(sessionMap(false, true));
  ASSERT_TRUE(waitFor([&] { return streamServer_->upgrades().size() == 1; }));
  ASSERT_TRUE(protocol_->stream());
  EXPECT_EQ(sendFrame(*protocol_), false);
  std::optional<bool> screen;
  protocol_->sendStreamEvent("screen", ValueMap{}, [&](bool sent) { screen = sent; });
  EXPECT_EQ(screen, false);

  // And after close.
  protocol_->close();
  EXPECT_EQ(sendFrame(*protocol_), false);
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(FrameTransmissionTest, FrameIdsRunOnAcrossProtocolObjects) {
  openBoth();
  ASSERT_EQ(sendFrame(*protocol_), true);
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 1));
  protocol_->close();

  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  const auto protocol = ZPHStreamProtocol::create(session);
  session->updateResource(sessionMap(false, true));
  ASSERT_TRUE(waitFor([&] { return protocol->stream()->isConneced(); }));
  ASSERT_EQ(sendFrame(*protocol), true);
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 2));
  const auto ids = frameIds();
  ASSERT_EQ(ids.size(), 2u);
  EXPECT_EQ(ids[1], ids[0] + 1);
  protocol->close();
  session->cleanup();
}

// --- error paths of the callback's once-always promise ---

TEST_F(FrameTransmissionTest, UnencodableDataIsRefusedRatherThanLeftHanging) {
  openBoth();
  Value deep = ValueMap{};
  for (int i = 0; i < 80; ++i) deep = ValueArray{deep};
  std::optional<bool> outcome;
  protocol_->sendStreamEvent("screen", ValueMap{{"deep", deep}}, [&](bool sent) { outcome = sent; });
  EXPECT_EQ(outcome, false);
}

TEST_F(FrameTransmissionTest, CallbackRunsOnceWhenTheSocketIsClosedUnderTheWrite) {
  openBoth();
  // A large frame, so the write is still in flight when the socket goes.
  int calls = 0;
  protocol_->sendFrame(makeImage(1280, 960, true), [&](bool) { ++calls; });
  protocol_->close();
  ASSERT_TRUE(waitFor([&] { return calls >= 1 && streamServer_->openCount() == 0; }));
  EXPECT_EQ(calls, 1);
}

TEST_F(FrameTransmissionTest, CallbackRunsOnceWhenTheConnectionDropsUnderQueuedWrites) {
  openBoth();
  // The peer has stopped reading, so frames queue behind each other.
  streamServer_->setReading(false);
  int calls = 0;
  const FrameImage noise = makeImage(1280, 960, true);
  for (int i = 0; i < 8; ++i) protocol_->sendFrame(noise, [&](bool) { ++calls; });
  streamServer_->dropConnections();
  ASSERT_TRUE(waitFor([&] { return calls == 8 && !protocol_->stream()->isConneced(); }));
  streamServer_->setReading(true);
  advance(std::chrono::seconds(2));  // the reconnect runs, and no callback runs twice
  queue().poll();
  EXPECT_EQ(calls, 8);
}

TEST_F(FrameTransmissionTest, AFrameCutOffInItsWriteIsSentAgainAfterTheReconnection) {
  // A still screen: the same picture at every capture and never a new sample.
  // Noise, so the frame is far larger than the socket buffers hold while the
  // peer is not reading, and its write is still going when the connection goes.
  struct StillScreen final : ZPHFrameSource {
    void capturingWillStart() override {}
    void capturingWillStop() override {}
    std::unique_ptr<platform::Bitmap> newFrame(double) override { return makeBitmap(1280, 960, true); }
    bool isNewFrameAvailable() override { return false; }
  };
  struct Sender final : ZPHFrameLoopDelegate {
    std::shared_ptr<ZPHStreamProtocol> protocol;
    double scale() override { return 1.0; }
    void handleFrame(FrameImage image, std::function<void(bool)> callback) override {
      protocol->sendFrame(std::move(image), std::move(callback));
    }
    bool shouldCaptureFrame() override { return true; }
  };
  // What frame transmission reports of each write, as --stats counts it.
  struct Writes final : FrameTransmissionObserver {
    std::vector<bool> written;
    void frameRefused(GateVerdict) override {}
    void frameHandedToSocket(std::size_t) override {}
    void frameWriteDone(std::size_t, bool ok) override { written.push_back(ok); }
  };
  openBoth();
  auto writes = std::make_shared<Writes>();
  protocol_->registerFrameTransmissionObserver(writes);
  auto sender = std::make_shared<Sender>();
  sender->protocol = protocol_;
  auto loop = ZPHFrameLoop::create(sender);
  loop->setSource(std::make_shared<StillScreen>());

  streamServer_->setReading(false);
  loop->start();  // the first tick hands the frame on and its write starts
  streamServer_->dropConnections();
  ASSERT_TRUE(waitFor([&] { return !protocol_->stream()->isConneced(); }));
  ASSERT_TRUE(waitFor([&] { return !writes->written.empty(); }));
  EXPECT_EQ(writes->written, std::vector<bool>{false});
  streamServer_->setReading(true);
  ASSERT_TRUE(waitFor([&] {
    advance(std::chrono::milliseconds(100));
    return receivedEvents(*streamServer_, "filter").size() >= 2;
  }));
  const auto framesOnSecondConnection = [&] {
    std::size_t count = 0;
    for (const auto& message : streamServer_->received())
      if (message.connection == 1 && message.value && message.value->asMap() &&
          message.value->asMap()->get("event") == Value("frame"))
        ++count;
    return count;
  };
  // No sync: the loop's own ticks bring the picture again.
  EXPECT_TRUE(waitFor([&] {
    advance(ZPHFrameLoop::kIdleTickInterval);
    return framesOnSecondConnection() == 1;
  }));
  loop->stop();
}

}  // namespace
}  // namespace zephlo
