#include "apps/broadcast/broadcast_host.hpp"

#include <chrono>
#include <csignal>
#include <ctime>
#include <ostream>

#include "apps/broadcast/broadcast_stats.hpp"
#include "apps/broadcast/capture_thread.hpp"
#include "apps/broadcast/image_folder_source.hpp"
#include "apps/broadcast/test_pattern_source.hpp"
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

}  // namespace

std::unique_ptr<ScreenSource> makeScreenSource(const BroadcastOptions& options, std::string* error) {
  switch (options.source.kind) {
    case SourceKind::TestPattern:
      return std::make_unique<TestPatternSource>(options.pixelFormat, options.sampleWidth(), options.sampleHeight(),
                                                 options.orientation, localSecondsIntoDay());
    case SourceKind::Images:
      return ImageFolderSource::open(options.source.argument, options.pixelFormat, options.sampleWidth(),
                                     options.sampleHeight(), options.orientation, error);
    case SourceKind::X11:
      return X11ScreenSource::open(options.source.argument, options.pixelFormat, options.orientation, error);
  }
  return nullptr;
}

BroadcastHost::BroadcastHost(BroadcastOptions options) : options_(std::move(options)) {}

BroadcastHost::~BroadcastHost() {
  if (capture_) capture_->stop();
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
  auto store = platform::KeychainStore::open(options_.keychainPath);
  if (!store->isOpen()) return "--keychain " + options_.keychainPath + ": " + store->openError();
  platform::KeychainStore::setShared(store);

  std::string error;
  source_ = makeScreenSource(options_, &error);
  if (!source_) return "--source: " + error;
  // An X11 screen has the size it has; the phone's screen is then that many
  // pixels at the given scale.
  platform::ScreenBounds screen = options_.screen;
  if (auto* x11 = dynamic_cast<X11ScreenSource*>(source_.get())) {
    screen.width = x11->width() / screen.scale;
    screen.height = x11->height() / screen.scale;
  }
  platform::Screen::setMain(screen);
  return std::nullopt;
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

  // The capture thread ends before the extension does (in `end` or below).
  auto* extension = extension_.get();
  capture_ = std::make_unique<CaptureThread>(std::move(source_), options_.sampleRate,
                                             [extension](const platform::SampleBuffer& sample) {
                                               extension->processSampleBuffer(sample, platform::kSampleBufferTypeVideo);
                                             });
  capture_->start();

  platform::MainQueue::shared().run();

  capture_->stop();
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

void BroadcastHost::broadcastDidFinish(const Error& error) {
  if (status_) return;
  capture_->stop();
  *err_ << "Broadcast ended: " << error.description << std::endl;
  end(kExitEndedByExtension);
}

void BroadcastHost::end(int status) {
  if (status_) return;
  status_ = status;
  capture_->stop();
  platform::MainQueue::shared().stop();
}

}  // namespace zephlo
