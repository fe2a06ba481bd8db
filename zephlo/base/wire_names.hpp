// The wire format in one place: the message envelope, event names, REST paths,
// headers and resource fields shared by the client, the reference service and
// the tests. Changing a name here changes it on both sides of the wire.
#pragma once

#include <string_view>

namespace zephlo::wire {

// Socket message envelope (CBOR map).
inline constexpr std::string_view kEvent = "event";
inline constexpr std::string_view kData = "data";
inline constexpr std::string_view kId = "id";
inline constexpr std::string_view kAck = "ack";

// Events.
inline constexpr std::string_view kFilter = "filter";
inline constexpr std::string_view kFilterEvents = "events";
inline constexpr std::string_view kSessionEvent = "session";
inline constexpr std::string_view kFrameEvent = "frame";
inline constexpr std::string_view kScreenEvent = "screen";
inline constexpr std::string_view kDrawingEvent = "drawing";
inline constexpr std::string_view kLaserEvent = "laser";
inline constexpr std::string_view kTouchEvent = "touch";
inline constexpr std::string_view kKeyPressEvent = "keypress";
inline constexpr std::string_view kUrlEvent = "url";
inline constexpr std::string_view kSyncEvent = "sync";
inline constexpr std::string_view kProbeEvent = "probe";
inline constexpr std::string_view kAliveEvent = "alive";
inline constexpr std::string_view kNotificationEvent = "notification";

// Frame payload.
inline constexpr std::string_view kFrameType = "Frame";
inline constexpr std::string_view kImage = "image";
inline constexpr std::string_view kTimestamp = "timestamp";
inline constexpr std::string_view kMimeType = "mime_type";
inline constexpr std::string_view kJpegMimeType = "image/jpeg";
inline constexpr std::string_view kType = "type";

// REST paths (appended to the API base URL) and the socket path (appended to a
// socket base URL).
inline constexpr std::string_view kSessionsPath = "/api/1/sessions";
inline constexpr std::string_view kDevicesPath = "/api/1/devices";
inline constexpr std::string_view kSocketPath = "/sockets/1/ws";

// Headers.
inline constexpr std::string_view kPlatformHeader = "X-ZephloPlatform";
inline constexpr std::string_view kSdkVersionHeader = "X-ZephloSDKVersion";
inline constexpr std::string_view kDeviceHeader = "X-ZephloDevice";
inline constexpr std::string_view kJsonContentType = "application/json; charset=utf-8";

// Session resource fields.
inline constexpr std::string_view kSessionType = "Session";
inline constexpr std::string_view kState = "state";
inline constexpr std::string_view kCode = "code";
inline constexpr std::string_view kAgent = "agent";
inline constexpr std::string_view kRedactionSelectors = "redaction_selectors";
inline constexpr std::string_view kScale = "scale";
inline constexpr std::string_view kRequireConsent = "require_consent";
inline constexpr std::string_view kFullDevice = "full_device";
inline constexpr std::string_view kControlUrl = "control_url";
inline constexpr std::string_view kControlToken = "control_token";
inline constexpr std::string_view kStreamUrl = "stream_url";
inline constexpr std::string_view kStreamToken = "stream_token";
inline constexpr std::string_view kMessage = "message";
// Sent by the client when it activates a session (and with a device registration).
inline constexpr std::string_view kDevice = "device";
inline constexpr std::string_view kCustomData = "custom_data";

inline constexpr std::string_view kStatePending = "pending";
inline constexpr std::string_view kStateAuthorizing = "authorizing";
inline constexpr std::string_view kStateActive = "active";
inline constexpr std::string_view kStateEnded = "ended";

// Device resource fields.
inline constexpr std::string_view kNotificationUrl = "notification_url";
inline constexpr std::string_view kNotificationToken = "notification_token";
inline constexpr std::string_view kNextRegistration = "next_registration";

}  // namespace zephlo::wire
