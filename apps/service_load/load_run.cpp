#include "apps/service_load/load_run.hpp"

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "zephlo/testing/http_call.hpp"
#include "zephlo/testing/wire_client.hpp"
#include "apps/service/value_fields.hpp"
#include "zephlo/core/json.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo::service {

using testing::HttpCallRequest;
using testing::HttpResult;
using testing::WireClient;
using testing::httpCall;

namespace {

constexpr auto kSettleLimit = std::chrono::seconds(3);
constexpr auto kSettlePoll = std::chrono::milliseconds(20);

platform::Duration now() { return platform::MainQueue::shared().now(); }

double millis(platform::Duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto rank = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(rank, values.size() - 1)];
}

// The path of a ws:// URL ("ws://host:port/path" -> "/path").
std::string pathOfUrl(const std::string& url) {
  const auto scheme = url.find("://");
  if (scheme == std::string::npos) return {};
  const auto slash = url.find('/', scheme + 3);
  return slash == std::string::npos ? std::string("/") : url.substr(slash);
}

}  // namespace

std::string LoadFigures::describe() const {
  char text[1024];
  std::snprintf(text, sizeof text,
                "clients streaming: %d\n"
                "frames sent: %llu, acknowledged: %llu, held back by a full window: %llu\n"
                "frames per second (all clients): %.1f, per client: %.1f\n"
                "bytes per second (all clients): %.0f\n"
                "acknowledgement round trip ms: p50 %.2f, p95 %.2f, p99 %.2f, max %.2f\n"
                "message lag: mean first third %.2f, mean last third %.2f, max %llu\n",
                clientsStreaming, static_cast<unsigned long long>(sent),
                static_cast<unsigned long long>(acknowledged), static_cast<unsigned long long>(heldBack),
                seconds > 0 ? static_cast<double>(sent) / seconds : 0.0,
                seconds > 0 && clientsStreaming > 0 ? static_cast<double>(sent) / seconds / clientsStreaming : 0.0,
                seconds > 0 ? static_cast<double>(bytes) / seconds : 0.0, ackP50Ms, ackP95Ms, ackP99Ms, ackMaxMs,
                lagMeanFirstThird, lagMeanLastThird, static_cast<unsigned long long>(lagMax));
  std::string out = text;
  for (const std::string& f : failures) out += "failure: " + f + "\n";
  return out;
}

LoadRun::LoadRun(LoadOptions options) : options_(std::move(options)) {}

LoadRun::~LoadRun() {
  if (ticker_) ticker_->invalidate();
  if (stopAt_) stopAt_->cancel();
}

std::shared_ptr<LoadRun> LoadRun::start(LoadOptions options, std::function<void()> done) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  std::shared_ptr<LoadRun> run(new LoadRun(std::move(options)));
  run->done_ = std::move(done);
  run->clients_.resize(static_cast<std::size_t>(std::max(run->options_.clients, 0)));
  if (run->clients_.empty() || run->options_.frames.empty()) {
    run->figures_.failures.push_back("nothing to run: no clients or no frames");
    run->finished_ = true;
    if (auto d = std::move(run->done_)) d();
    return run;
  }
  for (std::size_t i = 0; i < run->clients_.size(); ++i) run->setUp(i);
  return run;
}

std::vector<std::string> LoadRun::sessionIds() const {
  std::vector<std::string> ids;
  for (const Client& c : clients_)
    if (!c.sessionId.empty()) ids.push_back(c.sessionId);
  return ids;
}

void LoadRun::setUp(std::size_t index) {
  std::weak_ptr<LoadRun> weak = weak_from_this();
  const bool feed = !options_.sessionId.empty();
  HttpCallRequest request{options_.host, options_.port, feed ? "GET" : "POST",
                          std::string(wire::kSessionsPath) + (feed ? "/" + options_.sessionId : ""),
                          feed ? "" : "{}", {}};
  httpCall(request, [weak, index, feed](HttpResult reply) {
    auto self = weak.lock();
    if (!self) return;
    const auto session = json::parse(reply.body);
    const ValueMap* fields = session ? session->asMap() : nullptr;
    if (reply.status != (feed ? 200 : 201) || !fields) return self->fail(index, "no session");
    const std::string* id = textField(*fields, wire::kId);
    const std::string* url = textField(*fields, wire::kStreamUrl);
    const std::string* token = textField(*fields, wire::kStreamToken);
    if (!id || !url || !token) return self->fail(index, "session without stream socket");
    self->clients_[index].sessionId = *id;
    const std::string target = pathOfUrl(*url) + std::string(wire::kSocketPath);
    if (feed) return self->connectStream(index, target, *token);
    HttpCallRequest activate{self->options_.host, self->options_.port, "PUT",
                             std::string(wire::kSessionsPath) + "/" + *id,
                             R"({"state":"active","full_device":true})", {}};
    httpCall(activate, [weak, index, target, token = *token](HttpResult activated) {
      auto self = weak.lock();
      if (!self) return;
      if (activated.status != 200) return self->fail(index, "session not activated");
      self->connectStream(index, target, token);
    });
  });
}

void LoadRun::connectStream(std::size_t index, const std::string& target, const std::string& token) {
  std::weak_ptr<LoadRun> weak = weak_from_this();
  auto socket = WireClient::connect(options_.host, options_.port, target, token);
  clients_[index].socket = socket;
  socket->onAck = [weak, index](std::uint64_t id) {
    auto run = weak.lock();
    if (!run) return;
    Client& client = run->clients_[index];
    auto it = client.sentAt.find(id);
    if (it == client.sentAt.end()) return;  // the filter's acknowledgement
    run->ackMs_.push_back(millis(now() - it->second));
    client.sentAt.erase(it);
    ++client.acknowledged;
  };
  socket->onSettled = [weak, index](WireClient::State state) {
    auto run = weak.lock();
    if (!run) return;
    if (state != WireClient::State::Open) return run->fail(index, "stream socket refused");
    ValueArray events;
    for (auto name : {wire::kDrawingEvent, wire::kLaserEvent, wire::kUrlEvent, wire::kTouchEvent,
                      wire::kKeyPressEvent, wire::kSyncEvent, wire::kProbeEvent})
      events.emplace_back(name);
    run->clients_[index].socket->send(wire::kFilter, ValueMap{{wire::kFilterEvents, events}});
    ++run->ready_;
    run->onReady();
  };
}

void LoadRun::fail(std::size_t index, std::string why) {
  clients_[index].failed = true;
  figures_.failures.push_back("client " + std::to_string(index) + ": " + why);
  onReady();
}

void LoadRun::onReady() {
  std::size_t failed = 0;
  for (const Client& c : clients_) failed += c.failed ? 1 : 0;
  if (started_ || ready_ + failed < clients_.size()) return;
  started_ = true;
  startedAt_ = now();
  std::weak_ptr<LoadRun> weak = weak_from_this();
  const auto interval = std::chrono::duration_cast<platform::Duration>(
      std::chrono::duration<double>(1.0 / std::max(options_.framesPerSecond, 0.1)));
  ticker_ = std::make_unique<platform::RepeatingTimer>(interval, [weak] {
    if (auto run = weak.lock()) run->tick();
  });
  stopAt_ = platform::after(options_.duration, [weak] {
    if (auto run = weak.lock()) run->finish();
  });
  if (ready_ == 0) finish();
}

void LoadRun::tick() {
  const platform::Duration t = now();
  for (Client& client : clients_) {
    if (client.failed || !client.socket || client.socket->state() != WireClient::State::Open) continue;
    const std::uint64_t lag = client.sentAt.size();
    lagSamples_.emplace_back(t - startedAt_, lag);
    figures_.lagMax = std::max(figures_.lagMax, lag);
    if (lag >= options_.window) {
      ++figures_.heldBack;
      continue;
    }
    // Each client numbers its frames from 0 without gaps, so the service's count
    // of missing ids stays 0 unless frames are lost.
    const std::uint64_t frameId = client.nextFrame;
    const SharedBytes& jpeg = options_.frames[client.nextFrame++ % options_.frames.size()];
    const ValueMap frame{{wire::kType, wire::kFrameType},
                         {wire::kId, frameId},
                         {wire::kImage, jpeg},
                         {wire::kTimestamp, "2024-05-01T13:45:07+00:00"},
                         {wire::kMimeType, wire::kJpegMimeType}};
    const std::uint64_t id = client.socket->send(wire::kFrameEvent, frame);
    client.sentAt[id] = t;
    ++figures_.sent;
    figures_.bytes += jpeg->size();
  }
}

void LoadRun::finish() {
  if (finished_) return;
  finished_ = true;
  ticker_.reset();
  figures_.seconds = std::chrono::duration<double>(now() - startedAt_).count();
  awaitAcknowledgements(now() + kSettleLimit);
}

void LoadRun::awaitAcknowledgements(platform::Duration deadline) {
  bool outstanding = false;
  for (const Client& c : clients_)
    outstanding |= !c.sentAt.empty() && c.socket && c.socket->state() == WireClient::State::Open;
  if (outstanding && now() < deadline) {
    std::weak_ptr<LoadRun> weak = weak_from_this();
    platform::after(kSettlePoll, [weak, deadline] {
      if (auto run = weak.lock()) run->awaitAcknowledgements(deadline);
    });
    return;
  }
  settle();
}

void LoadRun::settle() {
  for (Client& c : clients_) {
    figures_.acknowledged += c.acknowledged;
    if (!c.failed && c.socket) ++figures_.clientsStreaming;
    if (c.socket) c.socket->close();
  }
  figures_.ackP50Ms = percentile(ackMs_, 0.50);
  figures_.ackP95Ms = percentile(ackMs_, 0.95);
  figures_.ackP99Ms = percentile(ackMs_, 0.99);
  figures_.ackMaxMs = ackMs_.empty() ? 0 : *std::max_element(ackMs_.begin(), ackMs_.end());
  double firstSum = 0, lastSum = 0;
  std::size_t firstCount = 0, lastCount = 0;
  const platform::Duration span = std::chrono::duration_cast<platform::Duration>(
      std::chrono::duration<double>(figures_.seconds));
  for (const auto& [at, lag] : lagSamples_) {
    if (at < span / 3) {
      firstSum += static_cast<double>(lag);
      ++firstCount;
    } else if (at >= span - span / 3) {
      lastSum += static_cast<double>(lag);
      ++lastCount;
    }
  }
  figures_.lagMeanFirstThird = firstCount ? firstSum / static_cast<double>(firstCount) : 0;
  figures_.lagMeanLastThird = lastCount ? lastSum / static_cast<double>(lastCount) : 0;
  if (auto d = std::move(done_)) d();
}

}  // namespace zephlo::service
