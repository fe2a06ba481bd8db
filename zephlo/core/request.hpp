// ZPHRequest: the one place where requests to the service are formed and sent.
// It keeps the process-wide default headers, builds plain requests for REST calls
// and authenticated requests for WebSocket upgrades, and runs JSON REST calls with
// one uniform completion.
//
// Class-level only; no instances. The default headers are written once at start
// (before any request is built) and read by every request built afterwards.
//
// THREADING: `setHeaders`, `urlRequest` and `socketRequest` belong to the main
// queue (the default headers are not guarded, so writers and builders must not
// overlap). `request` may be called from any thread; its callback runs on the
// main queue, except for a transport error (no response at all), which is called
// back at once on the HTTP thread. That asymmetry is deliberate: callers that
// care post it on themselves.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "zephlo/base/error.hpp"
#include "zephlo/platform/http_client.hpp"
#include "zephlo/platform/url_request.hpp"
#include "zephlo/base/value.hpp"

namespace zephlo {

using HTTPResponse = platform::HTTPResponse;

// (error or null, decoded JSON body or null, HTTP response or null).
using RequestCallback =
    std::function<void(OptionalError error, Value body, std::shared_ptr<const HTTPResponse> response)>;

class ZPHRequest {
 public:
  using HeaderMap = std::map<std::string, std::string>;

  ZPHRequest() = delete;

  // Merges `headers` into the default headers: names given get the new value,
  // names not given keep theirs.
  static void setHeaders(const HeaderMap& headers);
  // A copy of the default headers.
  static HeaderMap headers();

  // A request for `url` carrying exactly the default headers; method, body and
  // timeout are the platform's defaults.
  static platform::URLRequest urlRequest(const std::string& url);

  // A WebSocket upgrade request for the socket base `url`: `url` + "/sockets/1/ws"
  // (appended verbatim), the default headers, "Authorization: Bearer <token>",
  // "User-Agent: <CFBundleName>/<CFBundleVersion>" and a 10 s timeout.
  static platform::URLRequest socketRequest(const std::string& url, const std::string& token);

  // Runs a JSON REST call. `options`: "method" (text, default "GET") and "body"
  // (any JSON-encodable value, sent as the request body). Outcomes:
  //  - body not encodable: (encoding error, null, null) on the main queue, and
  //    nothing is sent;
  //  - transport error: (error, null, response or null) on the HTTP thread;
  //  - 204: (null, null, response), whatever the body;
  //  - body not JSON: (decode error, null, response), whatever the status;
  //  - status >= 400: (ZPHError(body's "message" or "Request failed", status),
  //    body, response);
  //  - otherwise (null, body, response).
  // A null callback is allowed.
  static void request(const std::string& url, const ValueMap& options, RequestCallback callback);

};

}  // namespace zephlo
