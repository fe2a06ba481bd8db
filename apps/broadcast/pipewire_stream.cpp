#include "apps/broadcast/pipewire_stream.hpp"

#include <linux/dma-buf.h>
#include <pipewire/pipewire.h>
#include <spa/param/video/format-utils.h>
#include <spa/utils/result.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>

#include "apps/broadcast/pixel_conversion.hpp"

namespace zephlo {

namespace {

// One buffer held downstream (the newest sample, or the one being encoded) and
// one being filled: a third would only ever hold a picture nobody takes.
constexpr std::size_t kPoolBuffers = 2;

bool isRgbOrder(std::uint32_t format) { return format == SPA_VIDEO_FORMAT_RGBx || format == SPA_VIDEO_FORMAT_RGBA; }

// A DmaBuf is mapped for the one copy and unmapped at once; the others are
// mapped by PipeWire for as long as the buffer lives.
class MappedData {
 public:
  explicit MappedData(const spa_data& data, std::size_t fallbackSize) {
    if (data.type != SPA_DATA_DmaBuf) {
      base_ = static_cast<const std::uint8_t*>(data.data);
      size_ = data.maxsize;
      return;
    }
    length_ = (data.maxsize ? data.maxsize : fallbackSize) + data.mapoffset;
    void* mapped = ::mmap(nullptr, length_, PROT_READ, MAP_SHARED, static_cast<int>(data.fd), 0);
    if (mapped == MAP_FAILED) return;
    fd_ = static_cast<int>(data.fd);
    mapped_ = mapped;
    base_ = static_cast<const std::uint8_t*>(mapped) + data.mapoffset;
    size_ = length_ - data.mapoffset;
    dma_buf_sync sync{DMA_BUF_SYNC_START | DMA_BUF_SYNC_READ};
    ::ioctl(fd_, DMA_BUF_IOCTL_SYNC, &sync);
  }
  ~MappedData() {
    if (!mapped_) return;
    dma_buf_sync sync{DMA_BUF_SYNC_END | DMA_BUF_SYNC_READ};
    ::ioctl(fd_, DMA_BUF_IOCTL_SYNC, &sync);
    ::munmap(mapped_, length_);
  }
  MappedData(const MappedData&) = delete;
  MappedData& operator=(const MappedData&) = delete;

  const std::uint8_t* base() const { return base_; }
  std::size_t size() const { return size_; }

 private:
  const std::uint8_t* base_ = nullptr;
  std::size_t size_ = 0;
  void* mapped_ = nullptr;
  std::size_t length_ = 0;
  int fd_ = -1;
};

// Where one plane's first visible byte is: `offset` into `data`, rows `stride`
// apart; null when `rows` rows of `rowBytes` do not fit in what was mapped.
const std::uint8_t* planeStart(const MappedData& data, std::size_t offset, int stride, int rows, int rowBytes) {
  if (!data.base() || stride < rowBytes || rows <= 0) return nullptr;
  const std::size_t needed = offset + static_cast<std::size_t>(stride) * (rows - 1) + rowBytes;
  return needed <= data.size() ? data.base() + offset : nullptr;
}

}  // namespace

struct PipeWireStream::Listeners {
  spa_hook core{};
  spa_hook registry{};
  spa_hook stream{};
};

std::unique_ptr<PipeWireStream> PipeWireStream::open(int fd, std::uint32_t nodeId, platform::PixelFormat format,
                                                     std::int64_t orientation, std::string* error) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { pw_init(nullptr, nullptr); });

  std::unique_ptr<PipeWireStream> stream(new PipeWireStream(nodeId, format, orientation));
  stream->loop_ = pw_thread_loop_new("zephlo-screen", nullptr);
  stream->context_ = stream->loop_ ? pw_context_new(pw_thread_loop_get_loop(stream->loop_), nullptr, 0) : nullptr;
  if (!stream->context_ || pw_thread_loop_start(stream->loop_) < 0) {
    ::close(fd);
    *error = "cannot set up PipeWire";
    return nullptr;
  }

  static const pw_core_events coreEvents = [] {
    pw_core_events events{};
    events.version = PW_VERSION_CORE_EVENTS;
    events.error = [](void* data, std::uint32_t id, int, int res, const char* message) {
      if (id != PW_ID_CORE) return;
      static_cast<PipeWireStream*>(data)->end(res == -EPIPE ? std::string("PipeWire went away")
                                                            : std::string("PipeWire failed: ") + message);
    };
    return events;
  }();
  static const pw_registry_events registryEvents = [] {
    pw_registry_events events{};
    events.version = PW_VERSION_REGISTRY_EVENTS;
    events.global_remove = [](void* data, std::uint32_t id) {
      auto* self = static_cast<PipeWireStream*>(data);
      if (id == self->nodeId_) self->end("The shared screen went away");
    };
    return events;
  }();
  static const pw_stream_events streamEvents = [] {
    pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.state_changed = [](void* data, pw_stream_state, pw_stream_state state, const char* message) {
      auto* self = static_cast<PipeWireStream*>(data);
      if (state == PW_STREAM_STATE_ERROR) {
        self->end(std::string("The screen stream failed: ") + (message ? message : "unknown error"));
      } else if (state == PW_STREAM_STATE_UNCONNECTED) {
        self->end("The screen stream was disconnected");
      }
    };
    events.param_changed = [](void* data, std::uint32_t id, const spa_pod* param) {
      if (id == SPA_PARAM_Format && param) static_cast<PipeWireStream*>(data)->formatChanged(param);
    };
    events.process = [](void* data) { static_cast<PipeWireStream*>(data)->process(); };
    events.remove_buffer = [](void* data, pw_buffer* buffer) {
      auto* self = static_cast<PipeWireStream*>(data);
      if (self->held_ == buffer) self->held_ = nullptr;
    };
    return events;
  }();

  pw_thread_loop_lock(stream->loop_);
  stream->retry_ = pw_loop_add_timer(
      pw_thread_loop_get_loop(stream->loop_),
      [](void* data, std::uint64_t) { static_cast<PipeWireStream*>(data)->process(); }, stream.get());
  stream->core_ = pw_context_connect_fd(stream->context_, fd, nullptr, 0);
  if (stream->core_) {
    stream->listeners_ = std::make_unique<Listeners>();
    pw_core_add_listener(stream->core_, &stream->listeners_->core, &coreEvents, stream.get());
    stream->registry_ = pw_core_get_registry(stream->core_, PW_VERSION_REGISTRY, 0);
    pw_registry_add_listener(stream->registry_, &stream->listeners_->registry, &registryEvents, stream.get());
    stream->stream_ = pw_stream_new(stream->core_, "zephlo-screen",
                                    pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY, "Capture",
                                                      PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    if (stream->stream_) {
      pw_stream_add_listener(stream->stream_, &stream->listeners_->stream, &streamEvents, stream.get());
    }
  }
  const int connectError = errno;
  pw_thread_loop_unlock(stream->loop_);
  if (!stream->core_ || !stream->stream_) {
    *error = std::string("cannot connect to PipeWire: ") + std::strerror(connectError);
    return nullptr;
  }
  return stream;
}

PipeWireStream::PipeWireStream(std::uint32_t nodeId, platform::PixelFormat format, std::int64_t orientation)
    : nodeId_(nodeId), outputFormat_(format), orientation_(orientation) {}

PipeWireStream::~PipeWireStream() {
  stop();
  // The loop's thread has ended: nothing else touches these any more.
  if (stream_) pw_stream_destroy(stream_);
  if (registry_) pw_proxy_destroy(reinterpret_cast<pw_proxy*>(registry_));
  if (core_) pw_core_disconnect(core_);
  if (context_) pw_context_destroy(context_);
  if (loop_) pw_thread_loop_destroy(loop_);
}

void PipeWireStream::start(FrameHandler frame, EndHandler ended) {
  pw_thread_loop_lock(loop_);
  frame_ = std::move(frame);
  ended_ = std::move(ended);
  running_ = true;
  std::uint8_t storage[1024];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof storage);
  spa_rectangle size{1920, 1080}, smallest{1, 1}, largest{16384, 16384};
  // 0/1 is "as the screen changes", which is what compositors offer.
  spa_fraction rate{0, 1}, slowest{0, 1}, fastest{360, 1};
  const spa_pod* params[1];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video),
      SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw), SPA_FORMAT_VIDEO_format,
      SPA_POD_CHOICE_ENUM_Id(6, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRA,
                             SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA, SPA_VIDEO_FORMAT_NV12),
      SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&size, &smallest, &largest), SPA_FORMAT_VIDEO_framerate,
      SPA_POD_CHOICE_RANGE_Fraction(&rate, &slowest, &fastest)));
  // Never moved to another source when this screen's node goes away: the
  // session manager would otherwise link us to whatever video source is left.
  const int r = pw_stream_connect(stream_, PW_DIRECTION_INPUT, nodeId_,
                                  static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS |
                                                              PW_STREAM_FLAG_DONT_RECONNECT),
                                  params, 1);
  if (r < 0) end(std::string("cannot connect to the screen stream: ") + spa_strerror(r));
  pw_thread_loop_unlock(loop_);
}

void PipeWireStream::stop() {
  if (!loop_) return;
  pw_thread_loop_lock(loop_);
  running_ = false;
  pw_thread_loop_unlock(loop_);
  // Joins the loop's thread; must not hold the lock.
  pw_thread_loop_stop(loop_);
}

std::optional<std::pair<int, int>> PipeWireStream::waitForSize(std::chrono::milliseconds limit) {
  std::unique_lock lock(sizeMutex_);
  sizeKnown_.wait_for(lock, limit, [this] { return size_.has_value(); });
  return size_;
}

void PipeWireStream::end(const std::string& why) {
  if (!running_) return;
  running_ = false;
  if (ended_) std::exchange(ended_, nullptr)(why);
}

void PipeWireStream::formatChanged(const spa_pod* param) {
  std::uint32_t mediaType = 0, mediaSubtype = 0;
  spa_video_info_raw info{};
  if (spa_format_parse(param, &mediaType, &mediaSubtype) < 0 || mediaType != SPA_MEDIA_TYPE_video ||
      mediaSubtype != SPA_MEDIA_SUBTYPE_raw || spa_format_video_raw_parse(param, &info) < 0) {
    return;
  }
  videoFormat_ = info.format;
  width_ = static_cast<int>(info.size.width);
  height_ = static_cast<int>(info.size.height);
  {
    std::lock_guard lock(sizeMutex_);
    size_ = std::pair(width_, height_);
  }
  sizeKnown_.notify_all();

  std::uint8_t storage[512];
  spa_pod_builder builder = SPA_POD_BUILDER_INIT(storage, sizeof storage);
  const spa_pod* params[3];
  params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_buffers,
      SPA_POD_CHOICE_RANGE_Int(8, 2, 16), SPA_PARAM_BUFFERS_dataType,
      SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemFd) | (1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_DmaBuf))));
  params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header),
      SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header))));
  params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
      &builder, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop),
      SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region))));
  pw_stream_update_params(stream_, params, 3);
}

void PipeWireStream::process() {
  // Only the newest picture matters; older ones go back unread.
  pw_buffer* newest = std::exchange(held_, nullptr);
  while (pw_buffer* buffer = pw_stream_dequeue_buffer(stream_)) {
    if (newest) pw_stream_queue_buffer(stream_, newest);
    newest = buffer;
  }
  if (!newest) return;
  bool poolFull = false;
  auto sample = running_ ? deliver(newest->buffer, &poolFull) : std::nullopt;
  if (poolFull) {
    // Kept for a moment rather than dropped: on a screen that then stays still
    // it would be the last picture, and no other would come to replace it.
    held_ = newest;
    timespec soon{0, 4'000'000};
    pw_loop_update_timer(pw_thread_loop_get_loop(loop_), retry_, &soon, nullptr, false);
    return;
  }
  // Given back before the sample travels on: the compositor draws into it next.
  pw_stream_queue_buffer(stream_, newest);
  if (sample && running_ && frame_) frame_(*sample);
}

std::optional<platform::SampleBuffer> PipeWireStream::deliver(const spa_buffer* buffer, bool* poolFull) {
  if (buffer->n_datas < 1 || width_ <= 0 || height_ <= 0) return std::nullopt;
  const auto* header =
      static_cast<const spa_meta_header*>(spa_buffer_find_meta_data(buffer, SPA_META_Header, sizeof(spa_meta_header)));
  if (header && (header->flags & SPA_META_HEADER_FLAG_CORRUPTED)) return std::nullopt;
  const spa_data& data = buffer->datas[0];
  if (!data.chunk || (data.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED)) return std::nullopt;
  // An empty chunk is a pointer-only update; a DmaBuf's size says nothing.
  if (data.type != SPA_DATA_DmaBuf && data.chunk->size == 0) return std::nullopt;

  const bool nv12 = videoFormat_ == SPA_VIDEO_FORMAT_NV12;
  const int bytesPerPixel = nv12 ? 1 : 4;
  const int stride = data.chunk->stride > 0 ? data.chunk->stride : width_ * bytesPerPixel;
  // The picture may be a part of the buffer (a window on a whole screen).
  int x = 0, y = 0, width = width_, height = height_;
  if (const auto* crop = static_cast<const spa_meta_region*>(
          spa_buffer_find_meta_data(buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)));
      crop && crop->region.size.width > 0 && crop->region.size.height > 0 && crop->region.position.x >= 0 &&
      crop->region.position.y >= 0 && crop->region.position.x + crop->region.size.width <= std::uint32_t(width_) &&
      crop->region.position.y + crop->region.size.height <= std::uint32_t(height_)) {
    x = crop->region.position.x;
    y = crop->region.position.y;
    width = static_cast<int>(crop->region.size.width);
    height = static_cast<int>(crop->region.size.height);
    if (nv12) {
      x &= ~1;
      y &= ~1;
    }
  }

  const std::size_t lumaSize = static_cast<std::size_t>(stride) * height_;
  MappedData mapped(data, lumaSize + (nv12 && buffer->n_datas < 2 ? lumaSize / 2 : 0));
  const std::size_t offset = std::min<std::size_t>(data.chunk->offset, mapped.size());
  const std::uint8_t* first = planeStart(mapped, offset, stride, height_, width_ * bytesPerPixel);
  if (!first) return std::nullopt;
  first += static_cast<std::ptrdiff_t>(y) * stride + x * bytesPerPixel;

  if (!pool_ || pool_->width() != width || pool_->height() != height) {
    pool_ = std::make_unique<PixelBufferPool>(outputFormat_, width, height, kPoolBuffers);
  }
  auto out = pool_->acquire();
  if (!out) {
    *poolFull = pool_->size() == kPoolBuffers;
    return std::nullopt;
  }

  if (nv12) {
    // The chroma plane is the second data, or follows the luma in the first.
    std::optional<MappedData> second;
    const std::uint8_t* chroma = nullptr;
    int chromaStride = stride;
    const int chromaRows = (height_ + 1) / 2, chromaBytes = (width_ + 1) / 2 * 2;
    if (buffer->n_datas >= 2 && buffer->datas[1].chunk) {
      const spa_data& plane = buffer->datas[1];
      chromaStride = plane.chunk->stride > 0 ? plane.chunk->stride : chromaBytes;
      second.emplace(plane, static_cast<std::size_t>(chromaStride) * chromaRows);
      chroma = planeStart(*second, std::min<std::size_t>(plane.chunk->offset, second->size()), chromaStride,
                          chromaRows, chromaBytes);
    } else {
      chroma = planeStart(mapped, offset + lumaSize, stride, chromaRows, chromaBytes);
    }
    if (!chroma) return std::nullopt;
    chroma += static_cast<std::ptrdiff_t>(y / 2) * chromaStride + x;
    if (outputFormat_ == platform::PixelFormat::NV12) {
      copyNv12(first, stride, chroma, chromaStride, width, height, *out);
    } else {
      convertNv12ToBgra(first, stride, chroma, chromaStride, width, height, *out);
    }
  } else if (outputFormat_ == platform::PixelFormat::BGRA) {
    copyToOpaqueBgra(first, stride, width, height, isRgbOrder(videoFormat_), *out);
  } else if (!isRgbOrder(videoFormat_)) {
    convertBgraToNv12(first, stride, width, height, *out);
  } else {
    scratch_.resize(static_cast<std::size_t>(width) * height * 4);
    for (int row = 0; row < height; ++row) {
      const std::uint8_t* in = first + static_cast<std::ptrdiff_t>(row) * stride;
      std::uint8_t* to = scratch_.data() + static_cast<std::size_t>(row) * width * 4;
      for (int column = 0; column < width; ++column) {
        to[4 * column] = in[4 * column + 2];
        to[4 * column + 1] = in[4 * column + 1];
        to[4 * column + 2] = in[4 * column];
        to[4 * column + 3] = 255;
      }
    }
    convertBgraToNv12(scratch_.data(), width * 4, width, height, *out);
  }
  return platform::SampleBuffer(std::move(out), orientation_);
}

}  // namespace zephlo
