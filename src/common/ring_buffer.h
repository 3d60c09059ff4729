// A fixed-capacity ring of the most recent elements, oldest first. The owner
// guards it; it has no lock of its own. Every slot starts as `empty`.
#pragma once

#include <cstddef>
#include <sstream>
#include <string>
#include <vector>

namespace quorvi {

template <typename T>
class RingBuffer {
 public:
  RingBuffer(std::size_t capacity, T empty) : count(capacity ? capacity : 1), buffer(count, empty) {}

  void push(T element) {
    buffer[writeIndex] = std::move(element);
    writeIndex = (writeIndex + 1) % count;
    ++pushCount;
  }

  // All slots, oldest first and newest last.
  std::vector<T> elements() const {
    std::vector<T> out;
    out.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      std::size_t slot = i + writeIndex;
      if (slot >= count) slot -= count;
      out.push_back(buffer[slot]);
    }
    return out;
  }

  std::size_t newestIndex() const { return writeIndex == 0 ? count - 1 : writeIndex - 1; }
  const T& newest() const { return buffer[newestIndex()]; }
  const T& oldest() const { return buffer[writeIndex]; }
  std::size_t capacity() const { return count; }
  std::size_t pushes() const { return pushCount; }

  std::string description() const {
    std::ostringstream out;
    bool first = true;
    for (const auto& element : elements()) {
      if (!first) out << ", ";
      out << element;
      first = false;
    }
    out << ", writeIndex: " << writeIndex << ", readIndex: " << newestIndex() << ", newest: " << newest()
        << ", oldest: " << oldest();
    return out.str();
  }

 private:
  std::size_t count;
  std::vector<T> buffer;
  std::size_t pushCount = 0;
  std::size_t writeIndex = 0;
};

}  // namespace quorvi
