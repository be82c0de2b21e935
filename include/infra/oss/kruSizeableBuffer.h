#pragma once

#include <cstddef>
#include <cstring>
#include <limits>
#include <new>
#include <type_traits>

namespace tq::oss {

/// Room for bytes (or other trivial elements): N of them inside the object, more on the heap when
/// asked for. The elements are not initialised. Nothing here throws: a buffer that cannot be had
/// says so in its result. Cannot be copied. Calls on one object must not overlap.
template <typename T, std::size_t N>
class SizeableBuffer {
  static_assert(std::is_trivial_v<T>, "elements are moved as bytes and never constructed");
  static_assert(alignof(T) <= __STDCPP_DEFAULT_NEW_ALIGNMENT__, "plain allocation must suffice");

 public:
  SizeableBuffer() noexcept {}
  ~SizeableBuffer() { release(); }
  SizeableBuffer(const SizeableBuffer&) = delete;
  SizeableBuffer& operator=(const SizeableBuffer&) = delete;

  /// The first element; never null, and valid until the next `resize` or `grow`.
  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }
  /// Elements that fit. N at first; 0 after a `resize` that got no memory.
  std::size_t capacity() const noexcept { return capacity_; }

  /// Makes room for n elements and loses what was there. Up to N elements stand inside the object;
  /// more stand in a heap block, whose size in elements is n rounded up to a power of two and never
  /// below 4. False when there is no memory: the capacity is 0 then, until a later `resize`
  /// succeeds.
  bool resize(std::size_t n) noexcept {
    if (n > N) return takeBlock(n);
    release();
    capacity_ = N;
    return true;
  }

  /// Makes room for at least n elements and keeps the first `keep` of the present ones (at most the
  /// capacity). Never shrinks. False when there is no memory: nothing has changed then.
  bool grow(std::size_t n, std::size_t keep) noexcept {
    return n <= capacity_ || growBeyond(n, keep);
  }

 private:
  // Rarely called, so kept out of line: inlining them would only make the common path longer.
  [[gnu::noinline]] bool takeBlock(std::size_t n) noexcept {
    const std::size_t wanted = blockSize(n);
    if (onHeap() && capacity_ == wanted) return true;
    release();
    T* block = allocate(wanted);
    capacity_ = block != nullptr ? wanted : 0;
    if (block != nullptr) data_ = block;
    return block != nullptr;
  }

  [[gnu::noinline]] bool growBeyond(std::size_t n, std::size_t keep) noexcept {
    if (n <= N) {
      capacity_ = N;
      return true;
    }
    const std::size_t wanted = blockSize(n);
    T* block = allocate(wanted);
    if (block == nullptr) return false;
    const std::size_t kept = keep < capacity_ ? keep : capacity_;
    if (kept != 0) std::memcpy(block, data_, kept * sizeof(T));
    release();
    data_ = block;
    capacity_ = wanted;
    return true;
  }

  /// 0 when no power of two is large enough.
  static std::size_t blockSize(std::size_t n) noexcept {
    std::size_t size = 4;
    while (size < n && size != 0) size <<= 1;
    return size;
  }

  static T* allocate(std::size_t count) noexcept {
    // The largest object: pointers to the ends of a larger one could not be subtracted.
    constexpr auto kLargest = static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    if (count == 0 || count > kLargest / sizeof(T)) return nullptr;
    return static_cast<T*>(::operator new(count * sizeof(T), std::nothrow));
  }

  void release() noexcept {
    if (onHeap()) ::operator delete(data_);
    data_ = inline_;
  }

  bool onHeap() const noexcept { return data_ != inline_; }

  T* data_ = inline_;
  std::size_t capacity_ = N;
  T inline_[N];
};

}  // namespace tq::oss
