// fatalError: the one way the system stops itself, for the few conditions that are
// deliberately fatal (a checked counter overflow, an impossible map key, a misuse
// of the main queue). Any thread.
#pragma once

#include <string_view>

namespace zephlo {

// Writes "Fatal error: <message>" to stderr and aborts the process.
[[noreturn]] void fatalError(std::string_view message);

}  // namespace zephlo
