#include "apps/broadcast/pipewire_test_producer.hpp"

#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <thread>

namespace zephlo::testing {

using namespace std::chrono_literals;

struct PipeWireTestProducer::Hooks {
  spa_hook stream{};
};

PipeWireTestProducer::PipeWireTestProducer(const std::string& directory) : directory_(directory) {
  const std::map<std::string, std::string> environment = {
      {"XDG_RUNTIME_DIR", directory},         {"PIPEWIRE_RUNTIME_DIR", directory},
      {"HOME", directory},                    {"XDG_CONFIG_HOME", directory + "/config"},
      {"XDG_STATE_HOME", directory + "/state"}, {"DBUS_SESSION_BUS_ADDRESS", ""},
      {"PIPEWIRE_REMOTE", ""},                {"DISPLAY", ""}};
  daemon_ = std::make_unique<ChildProcess>("/usr/bin/pipewire", std::vector<std::string>{}, environment);
  const auto socket = std::filesystem::path(directory) / "pipewire-0";
  for (auto end = std::chrono::steady_clock::now() + 20s; std::chrono::steady_clock::now() < end;) {
    if (std::filesystem::exists(socket)) {
      ready_ = true;
      break;
    }
    std::this_thread::sleep_for(20ms);  // polling for the socket, bounded above
  }
  if (!ready_) {
    for (const auto& line : daemon_->stderrLines()) std::cerr << "pipewire: " << line << "\n";
    return;
  }
  // The session manager wants a session bus; it gets a private one, with no
  // services to start.
  const std::string config = directory + "/session-bus.conf";
  std::ofstream(config) << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                           "<busconfig><type>session</type><listen>unix:path="
                        << directory
                        << "/session-bus</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                           "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                           "<allow own=\"*\"/></policy></busconfig>\n";
  bus_ = std::make_unique<ChildProcess>(
      "/usr/bin/dbus-daemon",
      std::vector<std::string>{"--config-file=" + config, "--nofork", "--nopidfile", "--print-address=1"},
      environment);
  if (!bus_->waitForStdout([](const std::string& line) { return line.starts_with("unix:"); })) {
    ready_ = false;
    return;
  }
  auto withBus = environment;
  withBus["DBUS_SESSION_BUS_ADDRESS"] = bus_->stdoutLines().front();
  sessionManager_ = std::make_unique<ChildProcess>("/usr/bin/wireplumber", std::vector<std::string>{}, withBus);
}

PipeWireTestProducer::~PipeWireTestProducer() {
  stopStream();
  sessionManager_.reset();
  bus_.reset();
  daemon_.reset();
}

int PipeWireTestProducer::connect() const {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = directory_ + "/pipewire-0";
  std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
  if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd);
    return -1;
  }
  return fd;
}

std::optional<std::uint32_t> PipeWireTestProducer::startStream(int width, int height, bool rgbOrder, Picture first) {
  pw_init(nullptr, nullptr);
  loop_ = pw_thread_loop_new("test-producer", nullptr);
  context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
  pw_thread_loop_start(loop_);
  static const pw_stream_events events = [] {
    pw_stream_events e{};
    e.version = PW_VERSION_STREAM_EVENTS;
    e.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
      if (id == SPA_PARAM_Format && param) static_cast<PipeWireTestProducer*>(data)->formatChanged(param);
    };
    e.process = [](void* data) { static_cast<PipeWireTestProducer*>(data)->fill(); };
    return e;
  }();

  pw_thread_loop_lock(loop_);
  rgbOrder_ = rgbOrder;
  pictures_ = {first};
  core_ = pw_context_connect_fd(context_, connect(), nullptr, 0);
  if (core_) {
    stream_ = pw_stream_new(core_, "test-screen",
                            pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", PW_KEY_MEDIA_TYPE, "Video", nullptr));
  }
  std::optional<std::uint32_t> node;
  if (stream_) {
    hooks_ = std::make_unique<Hooks>();
    pw_stream_add_listener(stream_, &hooks_->stream, &events, this);
    offerFormat(width, height);
    for (int i = 0; i < 200 && pw_stream_get_node_id(stream_) == SPA_ID_INVALID; ++i) {
      pw_thread_loop_timed_wait(loop_, 1);
    }
    if (pw_stream_get_node_id(stream_) != SPA_ID_INVALID) node = pw_stream_get_node_id(stream_);
  }
  pw_thread_loop_unlock(loop_);
  return node;
}

void PipeWireTestProducer::show(Picture picture) {
  pw_thread_loop_lock(loop_);
  pictures_.push_back(picture);
  pw_thread_loop_unlock(loop_);
}

void PipeWireTestProducer::resize(int width, int height) {
  pw_thread_loop_lock(loop_);
  offerFormat(width, height);
  pw_thread_loop_unlock(loop_);
}

// Under the loop's lock: the one format the stream has, at this size and only
// "as it changes"; connects the stream the first time.
void PipeWireTestProducer::offerFormat(int width, int height) {
  wantedWidth_ = width;
  wantedHeight_ = height;
  std::uint8_t storage[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof storage);
  spa_rectangle size{static_cast<std::uint32_t>(width), static_cast<std::uint32_t>(height)};
  spa_fraction rate{0, 1};
  const spa_pod* params[1] = {static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
      SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
      SPA_POD_Id(rgbOrder_ ? SPA_VIDEO_FORMAT_RGBx : SPA_VIDEO_FORMAT_BGRx), SPA_FORMAT_VIDEO_size,
      SPA_POD_Rectangle(&size), SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate)))};
  if (pw_stream_get_state(stream_, nullptr) == PW_STREAM_STATE_UNCONNECTED) {
    pw_stream_connect(stream_, PW_DIRECTION_OUTPUT, PW_ID_ANY, PW_STREAM_FLAG_MAP_BUFFERS, params, 1);
  } else {
    pw_stream_update_params(stream_, params, 1);
  }
}

// On the loop's thread: the size just settled, and buffers for it with room for
// the header (its corrupted flag) and the crop.
void PipeWireTestProducer::formatChanged(const spa_pod* param) {
  spa_video_info_raw info{};
  if (spa_format_video_raw_parse(param, &info) < 0) return;
  width_ = static_cast<int>(info.size.width);
  height_ = static_cast<int>(info.size.height);
  std::uint8_t storage[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof storage);
  const int stride = rowBytes();
  const spa_pod* params[3];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1), SPA_PARAM_BUFFERS_size,
      SPA_POD_Int(stride * height_), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(stride), SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd)));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
      SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
      SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region))));
  pw_stream_update_params(stream_, params, 3);
}

// On the loop's thread, at each turn of the graph: the next waiting picture,
// once the size asked for is the one negotiated, into a free buffer.
void PipeWireTestProducer::fill() {
  if (pictures_.empty() || width_ != wantedWidth_ || height_ != wantedHeight_) return;
  pw_buffer* buffer = pw_stream_dequeue_buffer(stream_);
  if (!buffer) return;
  const Picture picture = pictures_.front();
  pictures_.pop_front();
  spa_data& data = buffer->buffer->datas[0];
  const int stride = rowBytes();
  auto* pixels = static_cast<std::uint8_t*>(data.data);
  if (pixels && static_cast<std::size_t>(stride) * height_ <= data.maxsize) {
    for (int y = 0; y < height_; ++y) {
      std::uint8_t* row = pixels + static_cast<std::ptrdiff_t>(y) * stride;
      for (int x = 0; x < width_; ++x) {
        const Rgb c = y >= height_ / 2 ? picture.bottom : x < width_ / 2 ? picture.topLeft : picture.topRight;
        row[4 * x] = rgbOrder_ ? c.r : c.b;
        row[4 * x + 1] = c.g;
        row[4 * x + 2] = rgbOrder_ ? c.b : c.r;
        row[4 * x + 3] = 0;  // the padding byte; readers must not take it for alpha
      }
    }
    data.chunk->offset = 0;
    data.chunk->stride = stride;
    data.chunk->size = static_cast<std::uint32_t>(stride * height_);
  }
  if (auto* header = static_cast<spa_meta_header*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
    header->flags = picture.corrupted ? SPA_META_HEADER_FLAG_CORRUPTED : 0;
  }
  if (auto* crop = static_cast<spa_meta_region*>(
          spa_buffer_find_meta_data(buffer->buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)))) {
    const Rect r = picture.crop.value_or(Rect{0, 0, width_, height_});
    crop->region.position.x = r.x;
    crop->region.position.y = r.y;
    crop->region.size.width = static_cast<std::uint32_t>(r.width);
    crop->region.size.height = static_cast<std::uint32_t>(r.height);
  }
  pw_stream_queue_buffer(stream_, buffer);
}

void PipeWireTestProducer::stopStream() {
  if (!loop_) return;
  pw_thread_loop_lock(loop_);
  if (stream_) pw_stream_destroy(stream_);
  stream_ = nullptr;
  pw_thread_loop_unlock(loop_);
  pw_thread_loop_stop(loop_);
  if (core_) pw_core_disconnect(core_);
  pw_context_destroy(context_);
  pw_thread_loop_destroy(loop_);
  loop_ = nullptr;
  core_ = nullptr;
}

void PipeWireTestProducer::killDaemon() {
  if (daemon_) daemon_->signal(SIGKILL);
}

}  // namespace zephlo::testing
