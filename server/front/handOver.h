#pragma once

#include <array>
#include <asio/post.hpp>
#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <utility>

namespace corvaned {

/// Hands a request from one thread to another in memory that was made in time. Where memory is out,
/// a request would otherwise be left between two threads, and its client without an answer.
///
/// May be used from any thread.
class HandOver {
 public:
  HandOver() : blocks_(std::make_shared<Blocks>()) {}

  /// As asio::post().
  template <typename Executor, typename Call>
  void post(Executor&& executor, Call call) const noexcept {
    asio::post(std::forward<Executor>(executor), Handler<Call>{std::move(call), {blocks_}});
  }

 private:
  // A strand takes two for what is posted to it. One request is handed over at a time, beside the
  // grant of memory that came too late, and the end of the connection.
  static constexpr std::size_t kBlocks = 8;
  static constexpr std::size_t kBlockBytes = 128;

  struct Block {
    alignas(std::max_align_t) std::array<std::byte, kBlockBytes> bytes;
    std::atomic<bool> taken = false;
  };
  using Blocks = std::array<Block, kBlocks>;

  /// Belongs to what stands in it, which may outlive the connection.
  template <typename Object>
  class Memory {
   public:
    using value_type = Object;

    Memory(std::shared_ptr<Blocks> blocks) noexcept : blocks_(std::move(blocks)) {}
    template <typename Other>
    Memory(const Memory<Other>& other) noexcept : blocks_(other.blocks_) {}

    Object* allocate(std::size_t count) {
      static_assert(sizeof(Object) <= kBlockBytes);
      static_assert(alignof(Object) <= alignof(std::max_align_t));
      for (Block& block : *blocks_) {
        if (count == 1 && !block.taken.exchange(true)) {
          return static_cast<Object*>(static_cast<void*>(block.bytes.data()));
        }
      }
      return static_cast<Object*>(::operator new(count * sizeof(Object)));
    }

    void deallocate(Object* object, std::size_t) noexcept {
      for (Block& block : *blocks_) {
        if (static_cast<void*>(block.bytes.data()) != object) continue;
        block.taken = false;
        return;
      }
      ::operator delete(object);
    }

    template <typename Other>
    bool operator==(const Memory<Other>& other) const noexcept {
      return blocks_ == other.blocks_;
    }

   private:
    template <typename Other>
    friend class Memory;

    std::shared_ptr<Blocks> blocks_;
  };

  template <typename Call>
  struct Handler {
    using allocator_type = Memory<std::byte>;

    allocator_type get_allocator() const noexcept { return memory; }
    void operator()() { call(); }

    Call call;
    allocator_type memory;
  };

  const std::shared_ptr<Blocks> blocks_;
};

}  // namespace corvaned
