// Reads what `lsof -nP +c 0 -iTCP` prints into Listener records. Lines that
// are not listening sockets (the header, connections, short or odd lines)
// yield nothing; the parser never fails.
#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "processes/listener.h"

namespace quorvi {

// One line of the tool's output: a listener, or nothing.
std::optional<Listener> parseLsofLine(std::string_view line);

// The whole output, in the tool's order, one listener per (pid, port).
// Output that is not valid UTF-8 gives no listeners at all.
std::vector<Listener> parseLsofOutput(std::string_view output);

}  // namespace quorvi
