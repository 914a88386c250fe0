#pragma once

#include <string_view>

namespace velmora {

// The one logging call: the journal at once, the log file asynchronously and in call order,
// standard error too when it is a terminal. Callable from any thread; never fails.
void log(std::string_view message);

// Waits until every line logged so far has been written to the file.
void flushLog();

}  // namespace velmora
