// The agent console's files (index.html, console.css, console.js), built into the
// program so that it serves its console wherever it is installed.
// Immutable data; any thread.
#pragma once

#include <string_view>

namespace zephlo::service {

struct ConsoleAsset {
  std::string_view path;  // "/" for the page itself
  std::string_view contentType;
  std::string_view content;
};

// The file served at `path`, or null.
const ConsoleAsset* consoleAsset(std::string_view path);

}  // namespace zephlo::service
