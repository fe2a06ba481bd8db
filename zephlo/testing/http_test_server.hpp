// HttpTestServer: a small real HTTP/1.1 server for tests, listening on 127.0.0.1
// on a port the OS picks. It answers each request with the canned response set
// for its method and path (query ignored), or 404 with an empty body when none
// is set, and records every request it reads. Given a TLS identity it serves
// https, and a client that refuses the certificate never gets to send a request.
//
// It runs on a thread of its own (its own event loop), so it answers whether or
// not the test is pumping the main queue; tests wait for replies with
// MainQueue::runUntil.
//
// OWNERSHIP: owned by the test. Destroying it closes the listener and every
// connection (a held request is dropped unanswered) and joins its thread.
//
// THREADING: every method may be called from any thread; the routes and the
// record are guarded by one mutex shared with the server thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zephlo/testing/test_certificates.hpp"

namespace zephlo::testing {

class HttpTestServer {
 public:
  using Headers = std::vector<std::pair<std::string, std::string>>;

  struct Response {
    int status = 200;
    Headers headers;
    std::string body;
    // Never answer: the request is read and recorded, the connection stays open
    // without a reply until the server is destroyed (for timeout tests).
    bool hold = false;

    // A response with a JSON body and "Content-Type: application/json".
    static Response json(int status, std::string body);
  };

  struct Request {
    std::string method;
    std::string target;  // path and query as sent
    Headers headers;
    std::string body;
    // The header's value, matched case-insensitively.
    std::optional<std::string> header(std::string_view name) const;
  };

  explicit HttpTestServer(std::optional<TlsIdentity> tls = std::nullopt);
  ~HttpTestServer();
  HttpTestServer(const HttpTestServer&) = delete;
  HttpTestServer& operator=(const HttpTestServer&) = delete;

  std::uint16_t port() const;
  // "http://127.0.0.1:<port>" (https with TLS) followed by `path`.
  std::string url(std::string_view path = "") const;

  // Answers `method` requests for `path` with `response` from now on, replacing
  // an earlier route for the same pair.
  void route(std::string method, std::string path, Response response);

  std::vector<Request> requests() const;
  std::size_t requestCount() const;
  // Blocks until at least `count` requests were read or `limit` has passed;
  // returns whether they were. For tests whose client runs off the main queue.
  bool waitForRequests(std::size_t count, std::chrono::milliseconds limit = std::chrono::seconds(10)) const;
  // Connections accepted so far.
  std::size_t connectionCount() const;

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace zephlo::testing
