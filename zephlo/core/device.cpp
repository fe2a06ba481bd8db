#include "zephlo/core/device.hpp"

#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_generators.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <limits>

#include "zephlo/core/keychain.hpp"
#include "zephlo/core/request.hpp"
#include "zephlo/core/device_info.hpp"
#include "zephlo/platform/log.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/socket/cbor_socket.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

constexpr std::string_view kPushProvider = "APNS";
// Far enough for any schedule the service may name, near enough that the queue's
// deadline arithmetic (now + wait, in nanoseconds) cannot overflow.
constexpr std::uint64_t kLongestWait = 100ull * 365 * 24 * 3600;

std::optional<std::string> textField(const Value& value) {
  if (const auto* text = value.asString()) return *text;
  return std::nullopt;
}

std::string newDeviceId() {
  boost::uuids::random_generator generate;
  std::string id = boost::uuids::to_string(generate());
  std::transform(id.begin(), id.end(), id.begin(), [](unsigned char c) { return std::toupper(c); });
  return id;
}

// Runs `fn` on the main queue: at once when already there, else posted.
void onMainQueue(std::function<void()> fn) {
  if (platform::MainQueue::shared().isCurrent())
    fn();
  else
    platform::async(std::move(fn));
}

}  // namespace

std::shared_ptr<ZPHDevice> ZPHDevice::instance() {
  // Never destroyed: the device lives as long as the process.
  static auto* device = new std::shared_ptr<ZPHDevice>(std::make_shared<ZPHDevice>());
  return *device;
}

ZPHDevice::ZPHDevice() = default;

ZPHDevice::~ZPHDevice() {
  if (nextRegistration_) nextRegistration_->cancel();
  if (notificationSocket_) notificationSocket_->disconnect();
}

std::shared_ptr<ZPHDevice> ZPHDevice::self() {
  return std::static_pointer_cast<ZPHDevice>(shared_from_this());
}

std::string ZPHDevice::url() const {
  return baseUrl().value_or("(null)") + std::string(wire::kDevicesPath) + "/" + *id();
}

std::optional<std::string> ZPHDevice::id() const {
  const std::string key = kZPHDeviceIdKey();
  const std::string group = ZPHKeychain::privateGroup();
  if (auto stored = ZPHKeychain::getValue(key, group)) return stored;
  // A failed read counts as absence: a new id replaces whatever was there.
  std::string id = newDeviceId();
  ZPHKeychain::setValue(id, key, group);
  return id;
}

std::optional<std::string> ZPHDevice::notificationUrl() const { return textField(field(wire::kNotificationUrl)); }

std::optional<std::string> ZPHDevice::notificationToken() const {
  return textField(field(wire::kNotificationToken));
}

std::uint64_t ZPHDevice::registrationInterval() const {
  const Value value = field(wire::kNextRegistration);
  if (const auto* n = value.asUInt()) return *n;
  if (const auto* n = value.asInt()) return *n > 0 ? static_cast<std::uint64_t>(*n) : 0;
  if (const auto d = value.toDouble(); d && std::isfinite(*d) && *d >= 1)
    return *d >= 1.8e19 ? std::numeric_limits<std::uint64_t>::max() : static_cast<std::uint64_t>(*d);
  return 0;
}

ValueMap ZPHDevice::customData() const { return customData_; }

void ZPHDevice::setCustomData(const ValueMap& data) {
  for (const auto& [key, value] : data) customData_.set(key, value);
}

std::string ZPHDevice::stringWithDeviceToken(const SharedBytes& token) {
  std::string hex;
  if (!token) return hex;
  hex.reserve(token->size() * 2);
  // Two lower-case hex digits per byte, as the service stores push tokens.
  static constexpr char kDigits[] = "0123456789abcdef";
  for (const std::uint8_t byte : *token) {
    hex += kDigits[byte >> 4];
    hex += kDigits[byte & 0x0F];
  }
  return hex;
}

void ZPHDevice::updateNotificationSocket() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  if (notificationToken() && notificationUrl()) {
    if (!notificationSocket_) openNotificationSocket();
  } else if (notificationSocket_) {
    platform::log("Zephlo: Closing socket");
    closeNotificationSocket();
  }
}

void ZPHDevice::openNotificationSocket() {
  const std::weak_ptr<ZPHDevice> weakDevice = self();
  // Asked again before every reconnect, so a reconnect uses the current values.
  auto socket = CBORSocket::create([weakDevice] {
    const auto device = weakDevice.lock();
    const auto url = device ? device->notificationUrl() : std::nullopt;
    const auto token = device ? device->notificationToken() : std::nullopt;
    return ZPHRequest::socketRequest(url.value_or("(null)"), token.value_or("(null)"));
  });
  socket->maxReconnectDelay(kNotificationSocketMaxReconnectDelay);

  const std::weak_ptr<CBORSocket> weakSocket = socket;
  socket->onMessage(std::string(wire::kNotificationEvent), [weakDevice](const ValueMap& data) {
    const auto device = weakDevice.lock();
    if (device && device->onNotification_) device->onNotification_(data);
  });
  socket->onMessage(std::string(wire::kProbeEvent), [weakSocket](const ValueMap& data) {
    if (const auto s = weakSocket.lock()) s->send(wire::kAliveEvent, data);
  });
  // The service sends only what is asked for, and forgets it on every reconnect.
  socket->onConnect([weakSocket] {
    if (const auto s = weakSocket.lock())
      s->send(wire::kFilter,
              ValueMap{{wire::kFilterEvents, ValueArray{wire::kProbeEvent, wire::kNotificationEvent}}});
  });
  notificationSocket_ = std::move(socket);
}

void ZPHDevice::closeNotificationSocket() {
  if (!notificationSocket_) return;
  auto socket = std::move(notificationSocket_);
  notificationSocket_.reset();
  socket->disconnect();
}

void ZPHDevice::cancelNextRegistration() {
  if (!nextRegistration_) return;
  nextRegistration_->cancel();
  nextRegistration_.reset();
}

void ZPHDevice::register_(DeviceCallback callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  ValueMap body{
      {"push_token", stringWithDeviceToken(token_)},
      {"push_provider", kPushProvider},
      {"device", ZPHDeviceInfo::info()},
      {"custom_data", customData_},
  };
  update(body, [callback = std::move(callback)](OptionalError error, std::shared_ptr<ZPHRESTResource> resource) {
    onMainQueue([callback, error = std::move(error), resource = std::move(resource)] {
      auto device = std::static_pointer_cast<ZPHDevice>(resource);
      if (error) platform::log("Zephlo registration error: " + error->description);
      device->updateNotificationSocket();
      if (callback) callback(error, device);
    });
  });
}

void ZPHDevice::deregister(DeviceCallback callback) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  customData_.clear();
  closeNotificationSocket();
  cancelNextRegistration();
  delete_([callback = std::move(callback)](OptionalError error, std::shared_ptr<ZPHRESTResource> resource) {
    if (!callback) return;
    onMainQueue([callback, error = std::move(error), resource = std::move(resource)] {
      callback(error, std::static_pointer_cast<ZPHDevice>(resource));
    });
  });
  // At once: the reply, when it comes, is still taken as the resource.
  cleanup();
}

void ZPHDevice::reset() {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  updateResource(ValueMap{});
  cancelNextRegistration();
  closeNotificationSocket();
}

void ZPHDevice::runRegistrationLoop() {
  reset();
  loop(0);
}

std::int64_t ZPHDevice::retryDelay(std::int32_t attempt) {
  return std::clamp<std::int64_t>(static_cast<std::int64_t>(attempt) * kRetryStep, kMinRetryDelay, kMaxRetryDelay);
}

std::uint64_t ZPHDevice::successDelay(std::uint64_t interval) {
  return interval == 0 ? kDefaultRegistrationInterval : interval;
}

void ZPHDevice::loop(std::int32_t attempt) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  // One pass at a time between registrations. A registration in flight is not
  // guarded: its completion schedules the next pass whatever happened meanwhile.
  if (nextRegistration_ && nextRegistration_->isPending()) return;
  register_([attempt](OptionalError error, std::shared_ptr<ZPHDevice> device) {
    const std::uint64_t wait = error ? static_cast<std::uint64_t>(retryDelay(attempt))
                                     : successDelay(device->registrationInterval());
    const std::int32_t next =
        error ? (attempt == std::numeric_limits<std::int32_t>::max() ? attempt : attempt + 1) : 0;
    const std::weak_ptr<ZPHDevice> weak = device;
    auto item = std::make_shared<platform::WorkItem>([weak, next] {
      const auto d = weak.lock();
      if (!d) return;
      d->nextRegistration_.reset();
      d->loop(next);
    });
    device->nextRegistration_ = item;
    platform::MainQueue::shared().schedule(item, std::chrono::seconds(std::min(wait, kLongestWait)));
  });
}

}  // namespace zephlo
