// Error: the one error value of the system. It is a plain value (domain, integer
// code, the localized description) handed to callbacks as their first argument;
// nothing in the system throws.
//
// `ZPHError` builds the product's own errors (domain "Zephlo"): HTTP failures
// carry the status code, a rejected session representation code 0, the
// extension's own finishing errors 400. Transport and JSON failures keep domains
// of their own, so callers can tell a dead network from a bad reply.
//
// A plain value: build, copy and read it on any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace zephlo {

struct Error {
  std::string domain;
  std::int64_t code = 0;
  // The localized description: the one line a user or a log is shown.
  std::string description;

  bool operator==(const Error&) const = default;
};

// "Error or null", the first argument of every REST and resource callback.
using OptionalError = std::optional<Error>;

// The product's own errors.
inline constexpr std::string_view kZephloErrorDomain = "Zephlo";

// The HTTP client could not complete the exchange (no response at all). Codes
// follow the phone platform's URL-loading codes so that logs read the same.
inline constexpr std::string_view kURLLoadingErrorDomain = "Zephlo.URLLoading";
enum URLLoadingErrorCode : std::int64_t {
  kURLErrorUnknown = -1,
  kURLErrorCancelled = -999,
  kURLErrorBadURL = -1000,
  kURLErrorTimedOut = -1001,
  kURLErrorUnsupportedURL = -1002,
  kURLErrorCannotFindHost = -1003,
  kURLErrorCannotConnectToHost = -1004,
  kURLErrorNetworkConnectionLost = -1005,
  kURLErrorHTTPTooManyRedirects = -1007,
  kURLErrorBadServerResponse = -1011,
  kURLErrorSecureConnectionFailed = -1200,
  kURLErrorServerCertificateUntrusted = -1202,
};

// A request body that cannot be written as JSON, or a reply body that is not JSON.
inline constexpr std::string_view kJSONErrorDomain = "Zephlo.JSON";
enum JSONErrorCode : std::int64_t {
  kJSONDecodeError = 1,
  kJSONEncodeError = 2,
};

// An error of domain "Zephlo" with `code` and `message` as its description.
Error ZPHError(std::string message, std::int64_t code);

}  // namespace zephlo
