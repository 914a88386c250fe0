#pragma once

#include <string>
#include <string_view>

namespace velmora {

// The one logging call: the system log (the journal on Linux) at once, the log file asynchronously
// and in call order, standard error too when it is a terminal. Callable from any thread; never
// fails.
void log(std::string_view message);

// A value taken from a request (a header, a page's text) made fit to be part of a log message:
// every control character is written visibly (\n, \r, \t, \x1b, \x7f, and the C1 controls
// as \u0085), so the value can't end the line and forge another, or drive a terminal.
// Everything else is kept byte for byte.
std::string visibleInLog(std::string_view value);

// Waits until every line logged so far has been written to the file.
void flushLog();

}  // namespace velmora
