#include "fileindex/c_string_ref.h"

namespace quorvi {

CStringRef::CStringRef(std::string_view text) : count_(static_cast<int64_t>(text.size()) + 1) {
  std::shared_ptr<char[]> buffer(new char[text.size() + 1]);
  if (!text.empty()) std::memcpy(buffer.get(), text.data(), text.size());
  buffer[text.size()] = '\0';
  buffer_ = std::move(buffer);
}

}  // namespace quorvi
