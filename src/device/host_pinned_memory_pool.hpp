// Staging memory for copies between host and device. Copies from pageable memory are slow, so up to ten page-locked
// blocks are kept for reuse during a run.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include <sycl/sycl.hpp>

namespace tarn {

class HostPinnedMemoryPool : public std::enable_shared_from_this<HostPinnedMemoryPool> {
  public:
    /// Most page-locked blocks that one pool holds, lent out or waiting.
    static constexpr std::size_t max_pinned_blocks = 10;

    /// Gives a block back. It keeps the pool alive, so a pool outlives every block that it has lent out.
    class Deleter {
      public:
        explicit Deleter(std::shared_ptr<HostPinnedMemoryPool> pool) : pool_(std::move(pool)) {}
        void operator()(void* block) const { pool_->give_back(block); }

      private:
        std::shared_ptr<HostPinnedMemoryPool> pool_;
    };

    /// The pool of the queue's context, made on first need.
    static std::shared_ptr<HostPinnedMemoryPool> for_queue(sycl::queue& queue);

    explicit HostPinnedMemoryPool(const sycl::queue& queue);
    ~HostPinnedMemoryPool() { release_all(); }
    HostPinnedMemoryPool(const HostPinnedMemoryPool&) = delete;
    HostPinnedMemoryPool& operator=(const HostPinnedMemoryPool&) = delete;

    /// A block of at least `bytes` bytes: the smallest waiting block that fits, else a new page-locked one, else (ten
    /// blocks exist, the device has none, or the driver refuses) plain memory aligned to 64 bytes. Throws
    /// std::bad_alloc when even that fails.
    void* rent(std::size_t bytes);

    /// Frees every block, lent out or not.
    void release_all();

    const sycl::queue& queue() const { return queue_; }

  private:
    using Block = std::pair<void*, std::size_t>;

    void give_back(void* block);

    sycl::queue queue_;
    std::vector<Block> rented_;
    std::vector<Block> available_;
    bool pinned_supported_;
};

/// Drops the pools of the queue's context. Blocks that are still lent out keep theirs alive until they come back.
void release_pinned_pools(sycl::queue& queue);

} // namespace tarn
