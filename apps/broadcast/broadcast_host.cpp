#include "apps/broadcast/broadcast_host.hpp"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <ostream>
#include <string>

#include "apps/broadcast/broadcast_stats.hpp"
#include "apps/broadcast/image_folder_source.hpp"
#include "apps/broadcast/test_pattern_source.hpp"
#include "apps/broadcast/wayland_screen_source.hpp"
#include "apps/broadcast/x11_screen_source.hpp"
#include "zephlo/extension/zephlo_replay_kit_extension.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/keychain_store.hpp"
#include "zephlo/platform/log.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/screen.hpp"

namespace zephlo {

namespace {

// Seconds into the local day, for the test pattern's clock.
std::int64_t localSecondsIntoDay() {
  const std::time_t now = std::time(nullptr);
  std::tm local{};
  localtime_r(&now, &local);
  return local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
}

// The end message is one line whatever the service wrote: each run of line
// breaks becomes one space.
std::string oneLine(const std::string& text) {
  std::string line;
  for (const char c : text) {
    const bool breaks = c == '\n' || c == '\r';
    if (!breaks) line += c;
    else if (line.empty() || line.back() != ' ') line += ' ';
  }
  return line;
}

}  // namespace

std::unique_ptr<ScreenSource> makeScreenSource(const BroadcastOptions& options, std::string* error) {
  switch (options.source.kind) {
    case SourceKind::TestPattern:
      return std::make_unique<TestPatternSource>(options.pixelFormat, options.sampleWidth(), options.sampleHeight(),
                                                 options.orientation, localSecondsIntoDay(), options.sampleRate);
    case SourceKind::Images:
      return ImageFolderSource::open(options.source.argument, options.pixelFormat, options.sampleWidth(),
                                     options.sampleHeight(), options.orientation, options.sampleRate, error);
    case SourceKind::X11:
      return X11ScreenSource::open(options.source.argument, options.pixelFormat, options.orientation,
                                   options.sampleRate, error);
    case SourceKind::Wayland:
      return WaylandScreenSource::open(RestoreTokenFile::besideKeychain(options.keychainPath), options.pixelFormat,
                                       options.orientation, error);
    case SourceKind::Screen: {
      const char* wayland = std::getenv("WAYLAND_DISPLAY");
      const char* display = std::getenv("DISPLAY");
      if (!(wayland && *wayland) && !display) {
        *error = "screen: neither $WAYLAND_DISPLAY nor $DISPLAY is set: no desktop to capture";
        return nullptr;
      }
      BroadcastOptions resolved = options;
      resolved.source.kind = wayland && *wayland ? SourceKind::Wayland : SourceKind::X11;
      return makeScreenSource(resolved, error);
    }
  }
  return nullptr;
}

BroadcastHost::BroadcastHost(BroadcastOptions options) : options_(std::move(options)) {}

BroadcastHost::~BroadcastHost() {
  if (source_) source_->stop();
  if (stats_) stats_->stop();
}

std::optional<std::string> BroadcastHost::setUp() {
  if (options_.syslog) platform::setLogTarget(platform::LogTarget::Syslog);
  if (options_.bundlePath) {
    std::string error;
    auto bundle = platform::Bundle::load(*options_.bundlePath, &error);
    if (!bundle) return "--bundle " + *options_.bundlePath + ": " + error;
    platform::Bundle::setMain(std::move(*bundle));
  }
  // The source first: a desktop's sharing dialog that is cancelled or fails
  // ends the program before the keychain is touched.
  std::string error;
  source_ = makeScreenSource(options_, &error);
  if (!source_) return "--source: " + error;
  auto store = platform::KeychainStore::open(options_.keychainPath);
  if (!store->isOpen()) return "--keychain " + options_.keychainPath + ": " + store->openError();
  platform::KeychainStore::setShared(store);
  // A real screen's size comes with its first sample (see makeSink); until then
  // the main screen has the given size in points at the screen's scale.
  platform::ScreenBounds screen = options_.screen;
  if (options_.source.isRealScreen()) {
    realScreenScale_ = options_.screenGiven ? options_.screen.scale : source_->desktopScale().value_or(1);
    screen.scale = *realScreenScale_;
  }
  platform::Screen::setMain(screen);
  return std::nullopt;
}

ScreenSource::Sink BroadcastHost::makeSink() {
  // The source stops before the extension goes (in `end`, `run` and the destructor).
  auto* extension = extension_.get();
  if (!realScreenScale_) {
    return [extension](const platform::SampleBuffer& sample) {
      extension->processSampleBuffer(sample, platform::kSampleBufferTypeVideo);
    };
  }
  return [extension, scale = *realScreenScale_, width = 0, height = 0](const platform::SampleBuffer& sample) mutable {
    const auto& pixels = sample.imageBuffer();
    if (pixels && (pixels->width() != width || pixels->height() != height)) {
      width = pixels->width();
      height = pixels->height();
      platform::async([bounds = platform::ScreenBounds{width / scale, height / scale, scale}] {
        platform::Screen::setMain(bounds);
      });
    }
    extension->processSampleBuffer(sample, platform::kSampleBufferTypeVideo);
  };
}

int BroadcastHost::run(std::ostream& err) {
  err_ = &err;
  if (auto error = setUp()) {
    err << "zephlo-broadcast: " << *error << std::endl;
    return kExitSetupFailed;
  }

  extension_ = ZephloReplayKitExtension::init();
  extension_->setFinishHandler([this](const Error& error) { broadcastDidFinish(error); });
  extension_->broadcastStarted({});
  if (options_.stats) {
    stats_ = BroadcastStats::attach(extension_->stream());
    stats_->startReporting([](const std::string& line) { platform::writeStdout(line); });
  }

  source_->start(makeSink(), [this](const std::string& why) { platform::async([this, why] { sourceDidEnd(why); }); });

  platform::MainQueue::shared().run();

  source_->stop();
  if (stats_) stats_->stop();
  extension_.reset();
  return status_.value_or(kExitStopped);
}

void BroadcastHost::handleSignal(int signal) {
  if (!extension_ || status_) return;
  switch (signal) {
    case SIGUSR1:
      extension_->broadcastPaused();
      break;
    case SIGUSR2:
      extension_->broadcastResumed();
      break;
    case SIGINT:
    case SIGTERM:
      extension_->broadcastFinished();
      end(kExitStopped);
      break;
    default:
      break;
  }
}

void BroadcastHost::sourceDidEnd(const std::string& why) {
  if (!extension_ || status_) return;
  extension_->broadcastFinished();
  *err_ << why << std::endl;
  end(kExitStopped);
}

void BroadcastHost::broadcastDidFinish(const Error& error) {
  if (status_) return;
  source_->stop();
  *err_ << "Broadcast ended: " << oneLine(error.description) << std::endl;
  end(kExitEndedByExtension);
}

void BroadcastHost::end(int status) {
  if (status_) return;
  status_ = status;
  source_->stop();
  platform::MainQueue::shared().stop();
}

}  // namespace zephlo
