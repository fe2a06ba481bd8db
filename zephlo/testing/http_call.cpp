#include "zephlo/testing/http_call.hpp"

#include <memory>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/http/write.hpp>

#include "zephlo/platform/main_queue.hpp"

namespace zephlo::testing {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

struct Call : std::enable_shared_from_this<Call> {
  beast::tcp_stream stream{platform::ioContext()};
  beast::flat_buffer buffer;
  http::request<http::string_body> request;
  http::response<http::string_body> response;
  std::function<void(HttpResult)> done;

  void finish(bool completed) {
    HttpResult result;
    result.completed = completed;
    if (completed) {
      result.status = static_cast<int>(response.result_int());
      result.contentType = std::string(response[http::field::content_type]);
      result.body = std::move(response.body());
    }
    beast::error_code ignored;
    stream.socket().close(ignored);
    if (auto d = std::move(done)) d(std::move(result));
  }
};

}  // namespace

void httpCall(HttpCallRequest outgoing, std::function<void(HttpResult)> done) {
  auto call = std::make_shared<Call>();
  call->done = std::move(done);
  boost::system::error_code ec;
  const auto address = asio::ip::make_address(outgoing.host, ec);
  if (ec) return call->finish(false);
  call->request.method_string(outgoing.method);
  call->request.target(outgoing.target);
  call->request.version(11);
  call->request.set(http::field::host, outgoing.host + ":" + std::to_string(outgoing.port));
  for (auto& [name, value] : outgoing.headers) call->request.set(name, value);
  call->request.body() = std::move(outgoing.body);
  call->request.prepare_payload();
  call->stream.expires_after(std::chrono::seconds(30));
  call->stream.async_connect(asio::ip::tcp::endpoint(address, outgoing.port), [call](beast::error_code e) {
    if (e) return call->finish(false);
    http::async_write(call->stream, call->request, [call](beast::error_code e2, std::size_t) {
      if (e2) return call->finish(false);
      http::async_read(call->stream, call->buffer, call->response,
                       [call](beast::error_code e3, std::size_t) { call->finish(!e3); });
    });
  });
}

}  // namespace zephlo::testing
