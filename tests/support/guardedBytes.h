#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace tq::test {

/// Bytes behind which no memory is: reading one beyond their end ends the process, with a sanitizer
/// and without.
class GuardedBytes {
 public:
  explicit GuardedBytes(std::size_t largest) : page_(static_cast<std::size_t>(::getpagesize())) {
    size_ = (largest + page_ - 1) / page_ * page_;
    void* const taken =
        ::mmap(nullptr, size_ + page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (taken == MAP_FAILED) throw std::runtime_error("no memory to guard");
    begin_ = static_cast<char*>(taken);
    if (::mprotect(begin_ + size_, page_, PROT_NONE) != 0) throw std::runtime_error("no guard");
  }
  ~GuardedBytes() { ::munmap(begin_, size_ + page_); }
  GuardedBytes(const GuardedBytes&) = delete;
  GuardedBytes& operator=(const GuardedBytes&) = delete;

  /// Where this many bytes end at the guard; at most the largest number.
  char* last(std::size_t count) { return begin_ + size_ - count; }
  /// A copy of the bytes that ends at the guard, until the next one.
  const char* hold(std::string_view bytes) {
    char* const place = last(bytes.size());
    std::memcpy(place, bytes.data(), bytes.size());
    return place;
  }

 private:
  std::size_t page_;
  std::size_t size_ = 0;
  char* begin_ = nullptr;
};

}  // namespace tq::test
