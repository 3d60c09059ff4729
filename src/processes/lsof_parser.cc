#include "processes/lsof_parser.h"

#include "processes/text_util.h"

namespace quorvi {

namespace {

// Columns: COMMAND PID USER FD TYPE DEVICE SIZE/OFF NODE NAME (STATE).
constexpr size_t kNameColumn = 8;
constexpr size_t kColumnsOfListeningSocket = 10;

int64_t portOfSocketName(std::string_view socketName) {
  size_t colon = socketName.rfind(':');
  std::string_view port = colon == std::string_view::npos ? socketName : socketName.substr(colon + 1);
  return text::parseDecimal(port).value_or(0);
}

}  // namespace

std::optional<Listener> parseLsofLine(std::string_view line) {
  auto pieces = text::splitDroppingEmpty(line, ' ');
  if (pieces.size() < kColumnsOfListeningSocket) return std::nullopt;
  std::string_view socketName = pieces[kNameColumn];
  if (socketName.find("->") != std::string_view::npos) return std::nullopt;  // a connection
  Listener listener;
  // The tool writes a blank inside a command name as the four characters \x20.
  listener.name = text::replaceAll(std::string(pieces[0]), "\\x20", " ");
  listener.pid = text::parseDecimal(pieces[1]).value_or(0);
  listener.user = std::string(pieces[2]);
  listener.port = portOfSocketName(socketName);
  return listener;
}

std::vector<Listener> parseLsofOutput(std::string_view output) {
  if (output.empty() || !text::isValidUtf8(output)) return {};
  std::vector<Listener> listeners;
  size_t start = 0;
  while (start <= output.size()) {
    size_t end = output.find('\n', start);
    if (end == std::string_view::npos) end = output.size();
    if (auto listener = parseLsofLine(output.substr(start, end - start))) listeners.push_back(*listener);
    start = end + 1;
  }
  return withoutDuplicatePorts(std::move(listeners));
}

}  // namespace quorvi
