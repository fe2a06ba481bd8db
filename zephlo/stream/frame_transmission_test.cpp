#include <gtest/gtest.h>

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
FrameImage makeImage(int width = 64, int height = 48, bool noisy = false) {
  std::unique_ptr<platform::Bitmap> bitmap = platform::Bitmap::create(width, height);
  std::uint32_t state = 12345;
  for (int plane = 0; plane < 3; ++plane)
    for (int i = 0; i < bitmap->planeHeight(plane) * bitmap->planeWidth(plane); ++i) {
      state = state * 1664525u + 1013904223u;
      bitmap->mutablePlane(plane)[i] = static_cast<std::uint8_t>(noisy ? state >> 24 : plane ? 128 : i * 4);
    }
  return bitmap;
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

  // What frame transmission reports of each frame, as --stats counts it.
  struct Reports final : FrameTransmissionObserver {
    std::vector<GateVerdict> refused;
    std::size_t handed = 0;
    std::vector<bool> written;
    void frameRefused(GateVerdict verdict) override { refused.push_back(verdict); }
    void frameHandedToSocket(std::size_t) override { ++handed; }
    void frameWriteDone(std::size_t, bool ok) override { written.push_back(ok); }
  };

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
  const Value before(ZPHStreamProtocol::ISODateString());
  protocol_->sendFrame(std::move(image), [&](bool sent) {
    ++calls;
    outcome = sent;
  });
  const Value after(ZPHStreamProtocol::ISODateString());
  // The sender is done with the bitmap before it calls back.
  EXPECT_TRUE(weakImage.expired());
  ASSERT_TRUE(waitFor([&] { return outcome.has_value(); }));
  EXPECT_TRUE(*outcome);
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 1));
  EXPECT_EQ(calls, 1);

  const Value data = receivedEvents(*streamServer_, "frame")[0].get("data");
  ASSERT_TRUE(data.isMap());
  ValueMap frame = *data.asMap();
  const Value jpegValue = frame.get("image");
  const Bytes* jpeg = jpegValue.asBytes();
  ASSERT_TRUE(jpeg && jpeg->size() > 4u);
  EXPECT_EQ((Bytes{jpeg->front(), (*jpeg)[1], (*jpeg)[jpeg->size() - 2], jpeg->back()}), (Bytes{0xFF, 0xD8, 0xFF, 0xD9}));
  // Stamped in the stream's date format when it is handed over.
  const Value timestamp = frame.get("timestamp");
  EXPECT_TRUE(timestamp == before || timestamp == after) << timestamp.debugString();
  for (const char* field : {"id", "image", "timestamp"}) frame.erase(field);
  EXPECT_EQ(frame, (ValueMap{{"type", "Frame"}, {"mime_type", "image/jpeg"}}));
}

TEST_F(FrameTransmissionTest, CongestionDropsTheFrameButUsesUpItsIdAndHoldsBackNothingElse) {
  openBoth();
  LogCapture log;
  auto reports = std::make_shared<Reports>();
  protocol_->registerFrameTransmissionObserver(reports);
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
  EXPECT_EQ(log.lines().size(), 1u);
  EXPECT_EQ(reports->refused, std::vector<GateVerdict>{GateVerdict::Congested});
  EXPECT_EQ(reports->handed, 2u);

  // The numbering runs on across protocol objects.
  protocol_->close();
  const auto session = ZPHSession::initWithResource({{"id", "s-1"}});
  const auto protocol = ZPHStreamProtocol::create(session);
  session->updateResource(sessionMap(false, true));
  ASSERT_TRUE(waitFor([&] { return protocol->stream()->isConneced(); }));
  ASSERT_EQ(sendFrame(*protocol), true);
  protocol->close();
  session->cleanup();
  ASSERT_TRUE(waitForEvents(*streamServer_, "frame", 3));
  const auto ids = frameIds();
  ASSERT_EQ(ids.size(), 3u);
  EXPECT_EQ(ids[1], ids[0] + 2);
  EXPECT_EQ(ids[2], ids[1] + 1);
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
  EXPECT_TRUE(log.lines().empty());
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

TEST_F(FrameTransmissionTest, CallbackRunsOnceWhenTheConnectionGoesUnderTheWrites) {
  openBoth();
  // The peer has stopped reading, so large frames queue behind each other.
  streamServer_->setReading(false);
  auto reports = std::make_shared<Reports>();
  protocol_->registerFrameTransmissionObserver(reports);
  std::vector<bool> outcomes;
  const FrameImage noise = makeImage(1280, 960, true);
  for (int i = 0; i < 8; ++i) protocol_->sendFrame(noise, [&](bool sent) { outcomes.push_back(sent); });
  streamServer_->dropConnections();
  ASSERT_TRUE(waitFor([&] { return outcomes.size() == 8 && !protocol_->stream()->isConneced(); }));
  EXPECT_FALSE(outcomes.back());  // cut off, so the frame loop sends it again
  streamServer_->setReading(true);
  ASSERT_TRUE(reconnect(*streamServer_));  // and no callback runs twice
  EXPECT_EQ(outcomes.size(), 8u);
  EXPECT_EQ(reports->written, outcomes);

  // Closed under a write still in flight.
  int calls = 0;
  protocol_->sendFrame(noise, [&](bool) { ++calls; });
  protocol_->close();
  ASSERT_TRUE(waitFor([&] { return calls >= 1 && streamServer_->openCount() == 0; }));
  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace zephlo
