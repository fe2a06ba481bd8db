#include "apps/broadcast/portal_stand_in.hpp"

#include <poll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <fstream>

namespace zephlo::testing {

namespace {

constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";

int unsignedProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply, void*,
                     sd_bus_error*) {
  const std::string name = property;
  const std::uint32_t value = name == "version" ? 4 : name == "AvailableCursorModes" ? 3 : 1;
  return sd_bus_message_append(reply, "u", value);
}

int methodThunk(sd_bus_message* m, void* userdata, sd_bus_error* error) {
  return PortalStandIn::onMethodFor(m, userdata, error);
}

}  // namespace

PortalStandIn::PortalStandIn(const std::string& directory, bool portal) : portal_(portal) {
  const std::string config = directory + "/bus.conf";
  std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                           "<busconfig><type>session</type><listen>unix:path="
                        << directory
                        << "/bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                           "<allow own=\"*\"/></policy></busconfig>\n";
  daemon_ = std::make_unique<ChildProcess>("/usr/bin/dbus-daemon",
                                           std::vector<std::string>{"--config-file=" + config, "--nofork",
                                                                    "--nopidfile", "--print-address=1"});
  if (!daemon_->waitForStdout([](const std::string& line) { return line.starts_with("unix:"); })) return;
  address_ = daemon_->stdoutLines().front();
  if (!portal_) return;

  sd_bus* bus = nullptr;
  if (sd_bus_new(&bus) < 0) return;
  sd_bus_set_address(bus, address_.c_str());
  sd_bus_set_bus_client(bus, 1);
  if (sd_bus_start(bus) < 0) {
    sd_bus_unref(bus);
    return;
  }
  static const sd_bus_vtable screenCast[] = {
      SD_BUS_VTABLE_START(0),
      SD_BUS_PROPERTY("version", "u", unsignedProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
      SD_BUS_PROPERTY("AvailableSourceTypes", "u", unsignedProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
      SD_BUS_PROPERTY("AvailableCursorModes", "u", unsignedProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
      SD_BUS_METHOD("CreateSession", "a{sv}", "o", methodThunk, 0),
      SD_BUS_METHOD("SelectSources", "oa{sv}", "o", methodThunk, 0),
      SD_BUS_METHOD("Start", "osa{sv}", "o", methodThunk, 0),
      SD_BUS_METHOD("OpenPipeWireRemote", "oa{sv}", "h", methodThunk, 0),
      SD_BUS_VTABLE_END};
  static const sd_bus_vtable session[] = {SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Close", "", "", methodThunk, 0),
                                          SD_BUS_VTABLE_END};
  sd_bus_add_object_vtable(bus, nullptr, kPortalPath, "org.freedesktop.portal.ScreenCast", screenCast, this);
  sd_bus_add_fallback_vtable(bus, nullptr, "/org/freedesktop/portal/desktop/session", "org.freedesktop.portal.Session",
                             session, nullptr, this);
  if (sd_bus_request_name(bus, "org.freedesktop.portal.Desktop", 0) < 0) {
    sd_bus_unref(bus);
    return;
  }
  bus_ = bus;
  wake_ = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  thread_ = std::thread([this] { run(); });
}

PortalStandIn::~PortalStandIn() {
  if (thread_.joinable()) {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    const std::uint64_t one = 1;
    [[maybe_unused]] auto written = ::write(wake_, &one, sizeof one);
    thread_.join();
  }
  if (bus_) sd_bus_flush_close_unref(bus_);
  if (wake_ >= 0) ::close(wake_);
  if (daemon_) daemon_->signal(SIGTERM);
}

void PortalStandIn::run() {
  for (;;) {
    {
      std::lock_guard lock(mutex_);
      if (stopping_) return;
      while (sd_bus_process(bus_, nullptr) > 0) {
      }
    }
    pollfd fds[2] = {{sd_bus_get_fd(bus_), static_cast<short>(sd_bus_get_events(bus_)), 0}, {wake_, POLLIN, 0}};
    ::poll(fds, 2, -1);
    std::uint64_t drained;
    [[maybe_unused]] auto read = ::read(wake_, &drained, sizeof drained);
  }
}

void PortalStandIn::setAnswers(Answers answers) {
  std::lock_guard lock(mutex_);
  answers_ = std::move(answers);
}

std::map<std::string, std::string> PortalStandIn::selectOptions() {
  std::lock_guard lock(mutex_);
  return selectOptions_;
}

bool PortalStandIn::sessionClosed() {
  std::lock_guard lock(mutex_);
  return sessionClosed_;
}

void PortalStandIn::closeSession() {
  std::lock_guard lock(mutex_);
  sd_bus_emit_signal(bus_, session_.c_str(), "org.freedesktop.portal.Session", "Closed", "a{sv}", 0);
  sd_bus_flush(bus_);
}

int PortalStandIn::onMethodFor(void* m, void* userdata, void*) {
  return static_cast<PortalStandIn*>(userdata)->answer(m);
}

// Runs on the stand-in's thread with the mutex held.
int PortalStandIn::answer(void* raw) {
  auto* m = static_cast<sd_bus_message*>(raw);
  const std::string member = sd_bus_message_get_member(m);
  if (member == "Close") {
    sessionClosed_ = true;
    return sd_bus_reply_method_return(m, "");
  }
  if (member == "OpenPipeWireRemote") {
    const int fd = answers_.openRemote ? answers_.openRemote() : ::eventfd(0, EFD_CLOEXEC);
    const int r = sd_bus_reply_method_return(m, "h", fd);
    ::close(fd);
    return r;
  }
  std::string session;
  if (member != "CreateSession") {
    const char* path = nullptr;
    sd_bus_message_read(m, "o", &path);
    session = path;
    if (member == "Start") sd_bus_message_skip(m, "s");
  }
  // The options: remember SelectSources' and find the tokens.
  std::map<std::string, std::string> options;
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* type = nullptr;
    sd_bus_message_read(m, "s", &key);
    sd_bus_message_peek_type(m, nullptr, &type);
    sd_bus_message_enter_container(m, 'v', type);
    const std::string kind = type;
    if (kind == "s") {
      const char* text = nullptr;
      sd_bus_message_read(m, "s", &text);
      options[key] = "s " + std::string(text);
    } else if (kind == "u" || kind == "b") {
      std::uint32_t value = 0;
      sd_bus_message_read_basic(m, kind[0], &value);
      options[key] = kind + " " + std::to_string(value);
    } else {
      sd_bus_message_skip(m, type);
    }
    sd_bus_message_exit_container(m);
    sd_bus_message_exit_container(m);
  }
  const char* sender = sd_bus_message_get_sender(m);
  std::string caller = sender + 1;
  for (char& c : caller) {
    if (c == '.') c = '_';
  }
  const std::string request =
      std::string(kPortalPath) + "/request/" + caller + "/" + options["handle_token"].substr(2);
  std::uint32_t code = 0;
  sd_bus_message* response = nullptr;
  sd_bus_message_new_signal(bus_, &response, request.c_str(), "org.freedesktop.portal.Request", "Response");
  sd_bus_message_set_destination(response, sender);
  if (member == "CreateSession") {
    code = answers_.createSession;
    session_ = std::string(kPortalPath) + "/session/" + caller + "/" + options["session_handle_token"].substr(2);
    sd_bus_message_append(response, "ua{sv}", code, 1, "session_handle", "s", session_.c_str());
  } else if (member == "SelectSources") {
    code = answers_.selectSources;
    selectOptions_ = options;
    sd_bus_message_append(response, "ua{sv}", code, 0);
  } else {
    code = answers_.start;
    sd_bus_message_append(response, "u", code);
    sd_bus_message_open_container(response, 'a', "{sv}");
    sd_bus_message_open_container(response, 'e', "sv");
    sd_bus_message_append(response, "s", "streams");
    sd_bus_message_open_container(response, 'v', "a(ua{sv})");
    sd_bus_message_append(response, "a(ua{sv})", 1, answers_.nodeId, 2, "size", "(ii)", answers_.logicalWidth,
                          answers_.logicalHeight, "source_type", "u", 1u);
    sd_bus_message_close_container(response);
    sd_bus_message_close_container(response);
    if (!answers_.restoreToken.empty()) {
      sd_bus_message_append(response, "{sv}{sv}", "restore_token", "s", answers_.restoreToken.c_str(), "persist_mode",
                            "u", 2u);
    }
    sd_bus_message_close_container(response);
  }
  // The handle first, then its answer, as the portal does.
  int r = sd_bus_reply_method_return(m, "o", request.c_str());
  if (r >= 0) r = sd_bus_send(bus_, response, nullptr);
  sd_bus_message_unref(response);
  return r;
}

}  // namespace zephlo::testing
