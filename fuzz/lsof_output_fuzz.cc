// What `lsof -nP +c 0 -iTCP` prints, or anything a broken tool could print.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/lsof_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view output(reinterpret_cast<const char*>(data), size);
  quorvi::parseLsofOutput(output);
  quorvi::parseLsofLine(output.substr(0, output.find('\n')));
  return 0;
}
