#include "zephlo/platform/http_client.hpp"

#include <curl/curl.h>
#include <strings.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include "zephlo/base/error.hpp"
#include "zephlo/base/fatal_error.hpp"

namespace zephlo::platform {

namespace {

constexpr long kMaxRedirects = 16;

TransportError transportError(CURLcode code, const char* detail) {
  std::int64_t mapped = kURLErrorUnknown;
  const char* text = "An unknown error occurred.";
  switch (code) {
    case CURLE_URL_MALFORMAT:
      mapped = kURLErrorBadURL;
      text = "The URL is not valid.";
      break;
    case CURLE_UNSUPPORTED_PROTOCOL:
      mapped = kURLErrorUnsupportedURL;
      text = "The URL is not supported.";
      break;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      mapped = kURLErrorCannotFindHost;
      text = "A server with the specified hostname could not be found.";
      break;
    case CURLE_COULDNT_CONNECT:
      mapped = kURLErrorCannotConnectToHost;
      text = "Could not connect to the server.";
      break;
    case CURLE_OPERATION_TIMEDOUT:
      mapped = kURLErrorTimedOut;
      text = "The request timed out.";
      break;
    case CURLE_TOO_MANY_REDIRECTS:
      mapped = kURLErrorHTTPTooManyRedirects;
      text = "Too many HTTP redirects.";
      break;
    case CURLE_PEER_FAILED_VERIFICATION:
      mapped = kURLErrorServerCertificateUntrusted;
      text = "The certificate for this server is invalid.";
      break;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE:
    case CURLE_SSL_ENGINE_NOTFOUND:
    case CURLE_SSL_ENGINE_SETFAILED:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_SSL_CRL_BADFILE:
    case CURLE_SSL_ISSUER_ERROR:
      mapped = kURLErrorSecureConnectionFailed;
      text = "A TLS error occurred and a secure connection to the server cannot be made.";
      break;
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_PARTIAL_FILE:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      mapped = kURLErrorNetworkConnectionLost;
      text = "The network connection was lost.";
      break;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      mapped = kURLErrorBadServerResponse;
      text = "The server returned a bad response.";
      break;
    default:
      break;
  }
  std::string description = text;
  const std::string why = (detail && *detail) ? detail : curl_easy_strerror(code);
  description += " (" + why + ")";
  return TransportError{mapped, std::move(description)};
}

bool sameName(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

void initCurlOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) fatalError("libcurl failed to initialise");
  });
}

}  // namespace

std::optional<std::string> HTTPResponse::header(std::string_view name) const {
  for (const auto& [n, v] : headers)
    if (sameName(n, name)) return v;
  return std::nullopt;
}

// One transfer on the HTTP thread: its easy handle, what it sends and what it
// has received so far.
struct Transfer {
  CURL* easy = nullptr;
  curl_slist* headerList = nullptr;
  URLRequest request;
  HttpClient::Completion completion;
  HTTPResponse response;
  std::string body;
  char errorBuffer[CURL_ERROR_SIZE] = {};

  Transfer(URLRequest r, HttpClient::Completion c) : request(std::move(r)), completion(std::move(c)) {}
  ~Transfer() {
    if (easy) curl_easy_cleanup(easy);
    if (headerList) curl_slist_free_all(headerList);
  }
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  static size_t onBody(char* data, size_t size, size_t count, void* self) {
    static_cast<Transfer*>(self)->body.append(data, size * count);
    return size * count;
  }

  // Header lines of every response on the way (redirects, 100 Continue) arrive
  // here; a status line starts a new response, so the final one is what is kept.
  static size_t onHeader(char* data, size_t size, size_t count, void* self) {
    auto* t = static_cast<Transfer*>(self);
    const std::string_view line(data, size * count);
    if (line.starts_with("HTTP/")) {
      t->response.headers.clear();
    } else if (const auto colon = line.find(':'); colon != std::string_view::npos) {
      t->response.headers.emplace_back(std::string(trim(line.substr(0, colon))),
                                       std::string(trim(line.substr(colon + 1))));
    }
    return size * count;
  }

  bool configure() {
    easy = curl_easy_init();
    if (!easy) return false;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    // Ephemeral: nothing learned in this transfer serves another one.
    curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L);
    curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L);
    curl_easy_setopt(easy, CURLOPT_SSL_SESSIONID_CACHE, 0L);
    // libcurl does not read SSL_CERT_FILE itself; hosts and tests use it to name
    // their own trust store.
    if (const char* caFile = std::getenv("SSL_CERT_FILE"); caFile && *caFile)
      curl_easy_setopt(easy, CURLOPT_CAINFO, caFile);

    // The request's timeout bounds the connect and every stretch without progress,
    // as an idle timeout does; the speed check counts in whole seconds.
    const long timeoutMs = std::max<long>(1, static_cast<long>(request.timeout.count()));
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, timeoutMs);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, std::max<long>(1, (timeoutMs + 999) / 1000));

    if (request.method == "HEAD") {
      curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else {
      curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
    }
    if (request.body) {
      curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body->data());
      curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body->size()));
    }

    for (const auto& [name, value] : request.headers) {
      // "Name;" is how libcurl is told to send a header with an empty value.
      const std::string line = value.empty() ? name + ";" : name + ": " + value;
      headerList = curl_slist_append(headerList, line.c_str());
    }
    // Bodies go out at once rather than after a 100 Continue round trip.
    if (!request.header("Expect")) headerList = curl_slist_append(headerList, "Expect:");
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headerList);

    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Transfer::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Transfer::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    return true;
  }

  HttpResult finish(CURLcode code) {
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    char* effective = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &effective);
    response.statusCode = static_cast<int>(status);
    response.url = effective ? effective : request.url;

    HttpResult result;
    if (code != CURLE_OK) result.error = transportError(code, errorBuffer);
    if (status > 0) result.response = std::make_shared<const HTTPResponse>(std::move(response));
    if (code == CURLE_OK) result.body = std::move(body);
    return result;
  }
};

struct HttpClient::Core {
  CURLM* multi = nullptr;
  std::thread thread;
  std::atomic<std::thread::id> threadId;

  // The hand-over: filled by `start` on any thread, drained by the HTTP thread.
  std::mutex mutex;
  std::deque<std::unique_ptr<Transfer>> incoming;
  bool stopping = false;
  bool joined = false;

  // HTTP thread only.
  std::map<CURL*, std::unique_ptr<Transfer>> active;

  void run() {
    threadId = std::this_thread::get_id();
    for (;;) {
      std::deque<std::unique_ptr<Transfer>> batch;
      {
        std::lock_guard lock(mutex);
        if (stopping) break;
        batch.swap(incoming);
      }
      for (auto& t : batch) add(std::move(t));

      int running = 0;
      curl_multi_perform(multi, &running);
      int left = 0;
      while (CURLMsg* msg = curl_multi_info_read(multi, &left)) {
        if (msg->msg == CURLMSG_DONE) complete(msg->easy_handle, msg->data.result);
      }
      curl_multi_poll(multi, nullptr, 0, 1000, nullptr);
    }
    // Abandoned: handles are released, completions destroyed uncalled.
    for (auto& [easy, t] : active) curl_multi_remove_handle(multi, easy);
    active.clear();
  }

  void add(std::unique_ptr<Transfer> t) {
    if (!t->configure()) {
      auto completion = std::move(t->completion);
      HttpResult result;
      result.error = TransportError{kURLErrorUnknown, "An unknown error occurred. (no transfer handle)"};
      completion(std::move(result));
      return;
    }
    CURL* easy = t->easy;
    curl_multi_add_handle(multi, easy);
    active.emplace(easy, std::move(t));
  }

  void complete(CURL* easy, CURLcode code) {
    auto node = active.extract(easy);
    if (node.empty()) return;
    curl_multi_remove_handle(multi, easy);
    std::unique_ptr<Transfer> t = std::move(node.mapped());
    HttpResult result = t->finish(code);
    auto completion = std::move(t->completion);
    t.reset();  // the handle goes before the completion runs
    if (completion) completion(std::move(result));
  }
};

HttpClient::HttpClient() : core_(std::make_unique<Core>()) {
  initCurlOnce();
  core_->multi = curl_multi_init();
  if (!core_->multi) fatalError("libcurl could not create a multi handle");
  core_->thread = std::thread([core = core_.get()] { core->run(); });
}

HttpClient::~HttpClient() {
  shutdown();
  curl_multi_cleanup(core_->multi);
}

void HttpClient::start(URLRequest request, Completion completion) {
  auto t = std::make_unique<Transfer>(std::move(request), std::move(completion));
  {
    std::lock_guard lock(core_->mutex);
    if (core_->stopping) return;
    core_->incoming.push_back(std::move(t));
  }
  curl_multi_wakeup(core_->multi);
}

void HttpClient::shutdown() {
  if (isCurrent()) fatalError("HttpClient::shutdown called on its own thread");
  {
    std::lock_guard lock(core_->mutex);
    if (core_->joined) return;
    core_->stopping = true;
    core_->joined = true;
  }
  curl_multi_wakeup(core_->multi);
  if (core_->thread.joinable()) core_->thread.join();
  std::lock_guard lock(core_->mutex);
  core_->incoming.clear();
}

bool HttpClient::isCurrent() const { return core_->threadId.load() == std::this_thread::get_id(); }

namespace {
std::mutex gSharedMutex;
HttpClient* gShared = nullptr;
}  // namespace

HttpClient& HttpClient::shared() {
  std::lock_guard lock(gSharedMutex);
  if (!gShared) {
    // Kept for the life of the process: after shutdown it drops new requests
    // instead of leaving late callers with a dangling client.
    gShared = new HttpClient();
    std::atexit([] { HttpClient::shutdownShared(); });
  }
  return *gShared;
}

void HttpClient::shutdownShared() {
  HttpClient* client = nullptr;
  {
    std::lock_guard lock(gSharedMutex);
    client = gShared;
  }
  if (client) client->shutdown();
}

}  // namespace zephlo::platform
