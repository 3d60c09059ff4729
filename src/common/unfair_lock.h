// UnfairLock and the lock-guarded containers that every index keeps its
// records in. Readers copy the value out under the lock and work on the copy;
// writers mutate in place under the lock. Never hold two containers' locks.
#pragma once

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace quorvi {

// A non-recursive lock; lock and unlock on the same thread. The word lives on
// the heap so that its address never moves with the owning object.
class UnfairLock {
 public:
  UnfairLock() : _lock(std::make_unique<std::mutex>()) {}
  void lock() { _lock->lock(); }
  void unlock() { _lock->unlock(); }
  bool try_lock() { return _lock->try_lock(); }

 private:
  std::unique_ptr<std::mutex> _lock;
};

template <typename T>
class UnfairlockArray {
 public:
  UnfairlockArray() = default;
  explicit UnfairlockArray(std::vector<T> initial) : array(std::move(initial)) {}

  std::vector<T> copy() const {
    std::lock_guard guard(unfairlock);
    return array;
  }
  std::size_t size() const {
    std::lock_guard guard(unfairlock);
    return array.size();
  }
  bool empty() const { return size() == 0; }
  void replace(std::vector<T> values) {
    std::lock_guard guard(unfairlock);
    array = std::move(values);
  }
  void append(T value) {
    std::lock_guard guard(unfairlock);
    array.push_back(std::move(value));
  }
  template <typename Mutator>
  void mutate(Mutator&& mutator) {
    std::lock_guard guard(unfairlock);
    mutator(array);
  }
  template <typename Predicate>
  std::size_t removeIf(Predicate&& predicate) {
    std::lock_guard guard(unfairlock);
    auto end = std::remove_if(array.begin(), array.end(), predicate);
    std::size_t removed = static_cast<std::size_t>(array.end() - end);
    array.erase(end, array.end());
    return removed;
  }
  // Removes, in place and keeping the order of the rest, every element whose
  // key (keyOf(element), a path) begins with one of the prefixes.
  template <typename KeyOf>
  std::size_t removeByPrefixes(const std::vector<std::string>& prefixes, KeyOf&& keyOf) {
    if (prefixes.empty()) return 0;
    return removeIf([&](const T& element) {
      std::string_view key = keyOf(element);
      return std::any_of(prefixes.begin(), prefixes.end(),
                         [&](const std::string& prefix) { return key.starts_with(prefix); });
    });
  }

 protected:
  mutable UnfairLock unfairlock;
  std::vector<T> array;
};

template <typename T>
class UnfairlockSet {
 public:
  std::set<T> copy() const {
    std::lock_guard guard(unfairlock);
    return set;
  }
  bool insert(T value) {
    std::lock_guard guard(unfairlock);
    return set.insert(std::move(value)).second;
  }
  bool erase(const T& value) {
    std::lock_guard guard(unfairlock);
    return set.erase(value) > 0;
  }
  bool contains(const T& value) const {
    std::lock_guard guard(unfairlock);
    return set.count(value) > 0;
  }

 private:
  mutable UnfairLock unfairlock;
  std::set<T> set;
};

}  // namespace quorvi
