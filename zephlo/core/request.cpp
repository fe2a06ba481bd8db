#include "zephlo/core/request.hpp"

#include <chrono>
#include <utility>

#include "zephlo/core/json.hpp"
#include "zephlo/platform/bundle.hpp"
#include "zephlo/platform/main_queue.hpp"
#include "zephlo/platform/sequence_checker.hpp"
#include "zephlo/base/wire_names.hpp"

namespace zephlo {

namespace {

constexpr std::chrono::seconds kSocketRequestTimeout{10};
constexpr std::string_view kRequestFailed = "Request failed";

// Written once at start-up, before any request is built (see the header).
ZPHRequest::HeaderMap& defaultHeaders() {
  static ZPHRequest::HeaderMap headers;
  return headers;
}

Error encodingError(const std::string& reason) {
  return Error{std::string(kJSONErrorDomain), kJSONEncodeError,
               "The request body cannot be written as JSON (" + reason + ")."};
}

Error decodingError(const std::string& reason) {
  return Error{std::string(kJSONErrorDomain), kJSONDecodeError,
               "The response body is not valid JSON (" + reason + ")."};
}

// Runs on the main queue with everything the HTTP thread learned.
void deliver(const RequestCallback& callback, const std::optional<Value>& decoded, const std::string& decodeError,
             const std::shared_ptr<const HTTPResponse>& response) {
  if (!callback) return;
  const int status = response ? response->statusCode : 0;
  if (status == 204) {
    callback(std::nullopt, Value(), response);
  } else if (!decoded) {
    callback(decodingError(decodeError), Value(), response);
  } else if (status >= 400) {
    std::string message(kRequestFailed);
    if (const auto* body = decoded->asMap())
      if (auto text = body->get(wire::kMessage).stringValue()) message = std::move(*text);
    callback(ZPHError(std::move(message), status), *decoded, response);
  } else {
    callback(std::nullopt, *decoded, response);
  }
}

}  // namespace

void ZPHRequest::setHeaders(const HeaderMap& headers) {
  ZEPHLO_DCHECK_ON_MAIN_QUEUE();
  for (const auto& [name, value] : headers) defaultHeaders()[name] = value;
}

ZPHRequest::HeaderMap ZPHRequest::headers() { return defaultHeaders(); }

platform::URLRequest ZPHRequest::urlRequest(const std::string& url) {
  platform::URLRequest request;
  request.url = url;
  for (const auto& [name, value] : defaultHeaders()) request.setHeader(name, value);
  return request;
}

platform::URLRequest ZPHRequest::socketRequest(const std::string& url, const std::string& token) {
  auto request = urlRequest(url + std::string(wire::kSocketPath));
  request.setHeader("Authorization", "Bearer " + token);
  // A missing entry reads as "(null)", as the formatted nil it stands for.
  const auto& bundle = platform::Bundle::main();
  request.setHeader("User-Agent", bundle.info("CFBundleName").value_or("(null)") + "/" +
                                      bundle.info("CFBundleVersion").value_or("(null)"));
  request.timeout = kSocketRequestTimeout;
  return request;
}

void ZPHRequest::request(const std::string& url, const ValueMap& options, RequestCallback callback) {
  auto request = urlRequest(url);
  request.setHeader("Content-Type", std::string(wire::kJsonContentType));
  if (auto method = options.get("method").stringValue()) request.method = std::move(*method);

  if (const Value* body = options.find("body")) {
    std::string reason;
    auto text = json::serialize(*body, &reason);
    if (!text) {
      platform::async([callback = std::move(callback), error = encodingError(reason)] {
        if (callback) callback(error, Value(), nullptr);
      });
      return;
    }
    request.body = std::move(*text);
  }

  platform::HttpClient::shared().start(std::move(request), [callback = std::move(callback)](
                                                               platform::HttpResult result) mutable {
    // HTTP thread.
    if (result.error) {
      if (callback)
        callback(Error{std::string(kURLLoadingErrorDomain), result.error->code, result.error->description},
                 Value(), result.response);
      return;
    }
    std::string decodeError;
    auto decoded = json::parse(result.body, &decodeError);
    platform::async([callback = std::move(callback), decoded = std::move(decoded),
                     decodeError = std::move(decodeError), response = std::move(result.response)] {
      deliver(callback, decoded, decodeError, response);
    });
  });
}

}  // namespace zephlo
