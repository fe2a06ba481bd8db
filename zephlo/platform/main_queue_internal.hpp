// The event loop under the main queue, for the platform's own network code
// (WebSocket client, test servers). Nothing above the platform layer includes this.
#pragma once

#include <boost/asio/io_context.hpp>

namespace zephlo::platform {

// The io_context that the main queue runs. Handlers posted to it run on the main
// queue's thread.
boost::asio::io_context& ioContext();

}  // namespace zephlo::platform
