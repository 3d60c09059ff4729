// CStringRef: an immutable, owned, NUL-terminated copy of a string's bytes,
// so that matching can run plain C string routines without converting text
// per comparison. The bytes are copied as given: no case change, no
// normalisation. Copies share the one allocation (it is never written after
// construction), so handing a CStringRef around costs no copy of the text.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

namespace quorvi {

class CStringRef {
 public:
  CStringRef() : CStringRef(std::string_view()) {}
  explicit CStringRef(std::string_view text);

  // Bytes including the terminating NUL.
  int64_t count() const { return count_; }
  const char* cstring() const { return buffer_.get(); }
  // The text as a C string sees it (up to the first NUL).
  std::string_view view() const { return std::string_view(cstring()); }
  // True when a C string routine sees no bytes at all.
  bool isEmpty() const { return cstring()[0] == '\0'; }

 private:
  std::shared_ptr<const char[]> buffer_;
  int64_t count_ = 1;
};

}  // namespace quorvi
