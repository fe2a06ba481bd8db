#include "apps/broadcast/screen_cast_portal.hpp"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <utility>
#include <random>

namespace zephlo {

namespace {

constexpr const char* kPortal = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr std::uint32_t kMonitor = 1;
constexpr std::uint32_t kCursorEmbedded = 2;
// Remembered until the user revokes it, where the desktop allows that.
constexpr std::uint32_t kPersistUntilRevoked = 2;

std::string errorText(const sd_bus_error& error, int r) {
  if (sd_bus_error_is_set(&error)) return error.message ? error.message : error.name;
  return std::strerror(-r);
}

// The portal rejects a malformed restore token outright (and closes the
// session), so only something shaped like the UUID it hands out is passed on.
bool looksLikeToken(const std::string& token) {
  if (token.size() != 36) return false;
  for (std::size_t i = 0; i < token.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash != (token[i] == '-')) return false;
    if (!dash && !std::isxdigit(static_cast<unsigned char>(token[i]))) return false;
  }
  return true;
}

// Calls `visit(key, message)` for each entry of the a{sv} at the read position,
// positioned at the entry's variant; entries it leaves unread are skipped.
template <typename Visit>
int readVardict(sd_bus_message* m, Visit visit) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* key = nullptr;
    if ((r = sd_bus_message_read(m, "s", &key)) < 0) return r;
    const char* contents = nullptr;
    if ((r = sd_bus_message_peek_type(m, nullptr, &contents)) < 0) return r;
    if ((r = sd_bus_message_enter_container(m, 'v', contents)) < 0) return r;
    if (!visit(std::string(key), std::string(contents), m)) {
      if ((r = sd_bus_message_skip(m, contents)) < 0) return r;
    }
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

std::uint32_t readUnsignedProperty(sd_bus* bus, const char* name, sd_bus_error* error, int* r) {
  std::uint32_t value = 0;
  *r = sd_bus_get_property_trivial(bus, kPortal, kPortalPath, kScreenCast, name, error, 'u', &value);
  return value;
}

}  // namespace

struct ScreenCastPortal::Reply {
  sd_bus_message* response = nullptr;
  ~Reply() { sd_bus_message_unref(response); }
};

std::unique_ptr<ScreenCastPortal> ScreenCastPortal::connect(std::string* error, const std::string& busAddress) {
  sd_bus* bus = nullptr;
  int opened = 0;
  if (busAddress.empty()) {
    opened = sd_bus_open_user(&bus);
  } else if ((opened = sd_bus_new(&bus)) >= 0) {
    sd_bus_set_address(bus, busAddress.c_str());
    sd_bus_set_bus_client(bus, 1);
    opened = sd_bus_start(bus);
    if (opened < 0) bus = sd_bus_unref(bus);
  }
  if (int r = opened; r < 0) {
    *error = std::string("cannot reach the desktop session's bus: ") + std::strerror(-r);
    return nullptr;
  }
  std::unique_ptr<ScreenCastPortal> portal(new ScreenCastPortal(bus));
  sd_bus_error busError = SD_BUS_ERROR_NULL;
  int r = 0;
  portal->version_ = readUnsignedProperty(bus, "version", &busError, &r);
  if (r >= 0) portal->cursorModes_ = readUnsignedProperty(bus, "AvailableCursorModes", &busError, &r);
  if (r < 0) {
    *error = "no screen-sharing portal on the session bus (" + errorText(busError, r) +
             "); install xdg-desktop-portal and your desktop's backend (xdg-desktop-portal-gnome, "
             "xdg-desktop-portal-kde or xdg-desktop-portal-wlr)";
    sd_bus_error_free(&busError);
    return nullptr;
  }
  const char* unique = nullptr;
  sd_bus_get_unique_name(bus, &unique);
  // Request and session objects are named after the caller: ":1.42" -> "1_42".
  std::string sender = unique && *unique == ':' ? unique + 1 : (unique ? unique : "");
  for (char& c : sender) {
    if (c == '.') c = '_';
  }
  portal->senderPath_ = sender;
  return portal;
}

ScreenCastPortal::ScreenCastPortal(sd_bus* bus) : bus_(bus), wake_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ScreenCastPortal::~ScreenCastPortal() {
  close();
  sd_bus_flush_close_unref(bus_);
  if (wake_ >= 0) ::close(wake_);
}

// Calls a portal method that answers through a Request object and waits for its
// Response, however long the user takes. Returns an error line, or empty with
// `reply` holding the Response signal.
std::string ScreenCastPortal::request(const char* method, Reply* reply,
                                      const std::function<int(void* message)>& append) {
  const std::string token = "zephlo" + std::to_string(std::random_device()()) + "_" + std::to_string(++tokens_);
  std::string path = std::string(kPortalPath) + "/request/" + senderPath_ + "/" + token;
  auto onResponse = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
    auto* r = static_cast<Reply*>(userdata);
    if (!r->response) r->response = sd_bus_message_ref(m);
    return 0;
  };
  // Subscribed before the call, so that a quick answer cannot be missed.
  sd_bus_slot* slot = nullptr;
  sd_bus_match_signal(bus_, &slot, nullptr, path.c_str(), "org.freedesktop.portal.Request", "Response", onResponse,
                      reply);

  sd_bus_message* call = nullptr;
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* answer = nullptr;
  int r = sd_bus_message_new_method_call(bus_, &call, kPortal, kPortalPath, kScreenCast, method);
  if (r >= 0) r = append(call);
  if (r >= 0) r = sd_bus_message_append(call, "{sv}", "handle_token", "s", token.c_str());
  if (r >= 0) r = sd_bus_message_close_container(call);
  if (r >= 0) r = sd_bus_call(bus_, call, 0, &error, &answer);
  sd_bus_message_unref(call);
  std::string failure;
  if (r < 0) {
    failure = std::string(method) + ": " + errorText(error, r);
  } else {
    const char* handle = nullptr;
    if (sd_bus_message_read(answer, "o", &handle) >= 0 && handle && path != handle) {
      // The portal picked another name (ours was taken): follow that one.
      sd_bus_slot_unref(slot);
      slot = nullptr;
      path = handle;
      sd_bus_match_signal(bus_, &slot, nullptr, path.c_str(), "org.freedesktop.portal.Request", "Response",
                          onResponse, reply);
    }
    while (!reply->response) {
      r = sd_bus_process(bus_, nullptr);
      if (r < 0) {
        failure = std::string("the session bus went away: ") + std::strerror(-r);
        break;
      }
      if (r == 0) sd_bus_wait(bus_, UINT64_MAX);
    }
  }
  sd_bus_message_unref(answer);
  sd_bus_error_free(&error);
  sd_bus_slot_unref(slot);
  return failure;
}

ScreenCastPortal::Result ScreenCastPortal::start(const std::string& restoreToken) {
  Result result;
  // Each step answers with a code: 0 go on, 1 the user cancelled, 2 it failed.
  auto step = [&](const char* method, const std::function<int(void*)>& append,
                  const std::function<bool(const std::string&, const std::string&, sd_bus_message*)>& visit =
                      nullptr) {
    Reply reply;
    if (auto failure = request(method, &reply, append); !failure.empty()) {
      result.message = "the screen-sharing portal failed: " + failure;
      return false;
    }
    std::uint32_t code = 2;
    sd_bus_message_read(reply.response, "u", &code);
    if (code == 1) {
      result.outcome = Outcome::Cancelled;
      result.message = "screen sharing was cancelled in the desktop's dialog";
      return false;
    }
    if (code != 0) {
      result.message = std::string("the desktop refused to share the screen (") + method + " failed)";
      return false;
    }
    if (visit) readVardict(reply.response, visit);
    return true;
  };

  const std::string sessionToken = "zephlo_session" + std::to_string(std::random_device()());
  // Each reader reads the whole value it takes, or leaves it to be skipped.
  auto readSession = [&](const std::string& key, const std::string& type, sd_bus_message* m) {
    const char* value = nullptr;
    if (key != "session_handle" || (type != "s" && type != "o") || sd_bus_message_read_basic(m, type[0], &value) <= 0) {
      return false;
    }
    session_ = value;
    return true;
  };
  if (!step("CreateSession",
            [&](void* m) {
              auto* call = static_cast<sd_bus_message*>(m);
              int r = sd_bus_message_open_container(call, 'a', "{sv}");
              if (r >= 0) r = sd_bus_message_append(call, "{sv}", "session_handle_token", "s", sessionToken.c_str());
              return r;
            },
            readSession)) {
    return result;
  }
  if (session_.empty()) {
    result.message = "the screen-sharing portal answered without a session";
    return result;
  }

  const bool remembers = version_ >= 4;
  if (!step("SelectSources", [&](void* m) {
        auto* call = static_cast<sd_bus_message*>(m);
        int r = sd_bus_message_append(call, "o", session_.c_str());
        if (r >= 0) r = sd_bus_message_open_container(call, 'a', "{sv}");
        if (r >= 0) r = sd_bus_message_append(call, "{sv}{sv}", "types", "u", kMonitor, "multiple", "b", 0);
        // Only a mode the portal lists is accepted; without it the pointer is left out.
        if (r >= 0 && (cursorModes_ & kCursorEmbedded))
          r = sd_bus_message_append(call, "{sv}", "cursor_mode", "u", kCursorEmbedded);
        if (r >= 0 && remembers) r = sd_bus_message_append(call, "{sv}", "persist_mode", "u", kPersistUntilRevoked);
        if (r >= 0 && remembers && looksLikeToken(restoreToken))
          r = sd_bus_message_append(call, "{sv}", "restore_token", "s", restoreToken.c_str());
        return r;
      })) {
    return result;
  }

  bool haveStream = false;
  auto readStart = [&](const std::string& key, const std::string& type, sd_bus_message* m) {
    const char* token = nullptr;
    if (key == "restore_token" && type == "s") {
      if (sd_bus_message_read(m, "s", &token) > 0) result.restoreToken = token;
      return true;
    }
    if (key != "streams" || type != "a(ua{sv})" || sd_bus_message_enter_container(m, 'a', "(ua{sv})") < 0) {
      return false;
    }
    // One monitor was asked for; the first stream is it.
    while (sd_bus_message_enter_container(m, 'r', "ua{sv}") > 0) {
      std::uint32_t node = 0;
      sd_bus_message_read(m, "u", &node);
      int width = 0, height = 0;
      readVardict(m, [&](const std::string& property, const std::string& kind, sd_bus_message* v) {
        return property == "size" && kind == "(ii)" && sd_bus_message_read(v, "(ii)", &width, &height) > 0;
      });
      sd_bus_message_exit_container(m);
      if (!haveStream) {
        haveStream = true;
        result.nodeId = node;
        result.logicalWidth = width;
        result.logicalHeight = height;
      }
    }
    sd_bus_message_exit_container(m);
    return true;
  };
  if (!step("Start",
            [&](void* m) {
              auto* call = static_cast<sd_bus_message*>(m);
              int r = sd_bus_message_append(call, "os", session_.c_str(), "");
              if (r >= 0) r = sd_bus_message_open_container(call, 'a', "{sv}");
              return r;
            },
            readStart)) {
    return result;
  }
  if (!haveStream) {
    result.message = "the screen-sharing portal started without a screen stream";
    return result;
  }

  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* answer = nullptr;
  int r = sd_bus_call_method(bus_, kPortal, kPortalPath, kScreenCast, "OpenPipeWireRemote", &error, &answer, "oa{sv}",
                             session_.c_str(), 0);
  int fd = -1;
  if (r >= 0) r = sd_bus_message_read(answer, "h", &fd);
  // The message owns the descriptor it carries; keep a copy of our own.
  if (r >= 0) result.pipewireFd = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  if (r < 0 || result.pipewireFd < 0) {
    result.message = "the screen-sharing portal gave no PipeWire connection: " + errorText(error, r < 0 ? r : -errno);
  } else {
    result.outcome = Outcome::Started;
  }
  sd_bus_message_unref(answer);
  sd_bus_error_free(&error);
  return result;
}

void ScreenCastPortal::watch(ClosedHandler closed) {
  if (session_.empty() || watcher_.joinable()) return;
  closed_ = std::move(closed);
  auto onClosed = [](sd_bus_message*, void* userdata, sd_bus_error*) -> int {
    auto* self = static_cast<ScreenCastPortal*>(userdata);
    if (self->closed_) std::exchange(self->closed_, nullptr)("Screen sharing was stopped from the desktop");
    return 0;
  };
  auto onOwner = [](sd_bus_message* m, void* userdata, sd_bus_error*) -> int {
    auto* self = static_cast<ScreenCastPortal*>(userdata);
    const char *name = nullptr, *from = nullptr, *to = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &from, &to) > 0 && to && !*to && self->closed_) {
      std::exchange(self->closed_, nullptr)("The desktop's screen-sharing portal went away");
    }
    return 0;
  };
  sd_bus_match_signal(bus_, nullptr, nullptr, session_.c_str(), "org.freedesktop.portal.Session", "Closed", onClosed,
                      this);
  sd_bus_add_match(bus_, nullptr,
                   "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
                   "member='NameOwnerChanged',arg0='org.freedesktop.portal.Desktop'",
                   onOwner, this);
  watcher_ = std::thread([this] { runWatcher(); });
}

void ScreenCastPortal::runWatcher() {
  while (!closing_) {
    const int r = sd_bus_process(bus_, nullptr);
    if (r < 0) {
      if (closed_) std::exchange(closed_, nullptr)("The desktop session's bus went away");
      return;
    }
    if (r > 0) continue;
    pollfd fds[2] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0}, {wake_, POLLIN, 0}};
    ::poll(fds, 2, -1);
  }
}

void ScreenCastPortal::close() {
  if (closing_.exchange(true)) return;
  if (watcher_.joinable()) {
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
    watcher_.join();
  }
  if (session_.empty()) return;
  // The portal ends the desktop's sharing indicator with the session.
  sd_bus_message* call = nullptr;
  if (sd_bus_message_new_method_call(bus_, &call, kPortal, session_.c_str(), "org.freedesktop.portal.Session",
                                     "Close") >= 0) {
    sd_bus_call(bus_, call, 2'000'000, nullptr, nullptr);
  }
  sd_bus_message_unref(call);
}

}  // namespace zephlo
