// ZPHDevice: the service's record of this device, a REST resource at
// "<baseUrl>/api/1/devices/<id>". The id is generated once and kept in the
// private keychain group. The device registers its push token and the app's
// custom data, re-registers on the schedule the service sets ("next_registration",
// one hour by default; failures retry after 5, 15, 30, 45 ... s up to an hour) and
// keeps a notification socket open while the service hands out a notification
// URL and token, answering "probe" with "alive" and passing "notification"
// messages to `onNotification`.
//
// Ownership: the process uses the one `instance()`, created on first use and
// kept for the life of the process; tests may make devices of their own with
// std::make_shared. A device owns its notification socket and its pending
// registration pass, and ends both when it is destroyed.
//
// THREADING: main queue only. Replies that ZPHRequest delivers off the main
// queue (transport errors) are moved onto it before the device acts on them, so
// callbacks given to `register_` and `deregister` always run on the main queue.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "zephlo/core/rest_resource.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

class CBORSocket;

class ZPHDevice : public ZPHRESTResource {
 public:
  // (error or null, the device).
  using DeviceCallback = std::function<void(OptionalError error, std::shared_ptr<ZPHDevice> device)>;
  using NotificationCallback = std::function<void(const ValueMap& data)>;

  static constexpr std::uint64_t kDefaultRegistrationInterval = 3600;  // seconds
  static constexpr std::int64_t kMinRetryDelay = 5;                    // seconds
  static constexpr std::int64_t kRetryStep = 15;                       // seconds per failed attempt
  static constexpr std::int64_t kMaxRetryDelay = 3600;                 // seconds
  static constexpr double kNotificationSocketMaxReconnectDelay = 60.0;  // seconds

  // The shared device. Its first call must be on the main queue.
  static std::shared_ptr<ZPHDevice> instance();

  // An empty resource and empty custom data. Use `instance()`; tests make their own.
  ZPHDevice();
  ~ZPHDevice() override;

  // "<baseUrl>/api/1/devices/<id>".
  std::string url() const override;
  // The local device id, never taken from the resource: read from the private
  // keychain group on every call, and generated (an upper-case UUID) and stored
  // when absent or unreadable. Always has a value.
  std::optional<std::string> id() const override;

  std::optional<std::string> notificationUrl() const;
  std::optional<std::string> notificationToken() const;
  // "next_registration" in whole seconds; 0 when absent or not a non-negative number.
  std::uint64_t registrationInterval() const;

  // A copy of the custom data; `setCustomData` merges into it (keys are never
  // removed, except by `deregister`).
  ValueMap customData() const;
  void setCustomData(const ValueMap& data);

  // The push token (raw bytes), sent as lower-case hex.
  SharedBytes token() const { return token_; }
  void setToken(SharedBytes token) { token_ = std::move(token); }

  NotificationCallback onNotification() const { return onNotification_; }
  void setOnNotification(NotificationCallback callback) { onNotification_ = std::move(callback); }

  // Opens the notification socket when the resource names a URL and a token and
  // none is open (an open one is kept as it is, even for new values); closes it
  // when either is missing.
  void updateNotificationSocket();

  // PUTs the registration (push token, provider, device info, custom data), takes
  // the reply as the resource, logs a failure, re-evaluates the notification
  // socket and then calls `callback`. Named with a trailing underscore because
  // `register` is a C++ keyword.
  void register_(DeviceCallback callback = nullptr);
  // Empties the custom data, closes the socket, stops the loop between passes,
  // DELETEs the device (`callback` gets the outcome) and empties the resource at
  // once, without waiting for the reply.
  void deregister(DeviceCallback callback = nullptr);

  // Lower-case hex of `token`, two digits a byte; "" for none.
  static std::string stringWithDeviceToken(const SharedBytes& token);

  // Empties the resource, cancels the pending pass and closes the socket.
  void reset();
  // `reset`, then the first pass.
  void runRegistrationLoop();
  // One pass: registers unless a pass is already pending, then schedules the next
  // one. `attempt` counts consecutive failed registrations.
  void loop(std::int32_t attempt);

  // The wait before the next pass, in seconds, after a registration that failed
  // on attempt `attempt` or succeeded with `interval` from the service.
  static std::int64_t retryDelay(std::int32_t attempt);
  static std::uint64_t successDelay(std::uint64_t interval);

 private:
  std::shared_ptr<ZPHDevice> self();
  void openNotificationSocket();
  void closeNotificationSocket();
  void cancelNextRegistration();

  ValueMap customData_;
  std::shared_ptr<CBORSocket> notificationSocket_;
  platform::WorkItemPtr nextRegistration_;
  SharedBytes token_;
  NotificationCallback onNotification_;
};

}  // namespace zephlo
