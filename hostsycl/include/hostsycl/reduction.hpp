// Reductions. A launch is cut into blocks that depend on its size alone; each block has reducers of its own, and their
// values are combined in the order of the blocks. The result is thus the same bits for any number of threads.
#pragma once

#include <array>
#include <cstddef>
#include <tuple>
#include <utility>

#include "hostsycl/functional.hpp"
#include "hostsycl/launch.hpp"

namespace sycl {

/// What a kernel hands its contributions to.
template <class T, class Operation>
class reducer {
  public:
    explicit reducer(const Operation& operation) : operation_(operation) {}
    reducer(const reducer&) = delete;
    reducer& operator=(const reducer&) = delete;

    reducer& combine(const T& contribution) {
        value_ = operation_(value_, contribution);
        return *this;
    }

    /// For this implementation's own use: what has come together so far.
    const T& value() const { return value_; }

  private:
    T value_ = known_identity_v<Operation, T>;
    Operation operation_;
};

namespace detail {

/// What sycl::reduction makes.
template <class T, class Operation>
struct reduction_variable {
    using value_type = T;
    using reducer_type = reducer<T, Operation>;

    T* target;
    Operation operation;
};

template <class T>
inline constexpr bool is_reduction = false;
template <class T, class Operation>
inline constexpr bool is_reduction<reduction_variable<T, Operation>> = true;

/// A launch over `extent` with reductions.
template <class Kernel, int D, class... Reductions>
class reduction_launch {
  public:
    reduction_launch(const Kernel& kernel, const range<D>& extent, const Reductions&... reductions)
        : kernel_(kernel), extent_(extent), reductions_(reductions...), total_(extent.size()),
          block_((total_ + most_blocks - 1) / most_blocks), blocks_(block_ == 0 ? 0 : (total_ + block_ - 1) / block_) {}

    void run() {
        run_adaptive(&reduction_launch::run_blocks, this, blocks_, 1);
        finish(std::index_sequence_for<Reductions...>());
    }

  private:
    static constexpr std::size_t most_blocks = 256;

    static void run_blocks(const void* work, std::size_t begin, std::size_t end) {
        // Each block writes its own entry only.
        auto& launch = *const_cast<reduction_launch*>(static_cast<const reduction_launch*>(work));
        for (std::size_t block = begin; block < end; ++block)
            std::apply(
                [&](const Reductions&... reductions) {
                    launch.run_block(block, typename Reductions::reducer_type(reductions.operation)...);
                },
                launch.reductions_);
    }

    void run_block(std::size_t block, typename Reductions::reducer_type&&... reducers) {
        const std::size_t begin = block * block_;
        const std::size_t end = begin + block_ < total_ ? begin + block_ : total_;
        for_cells(kernel_, extent_, begin, end, reducers...);
        partials_[block] = {reducers.value()...};
    }

    template <std::size_t... I>
    void finish(std::index_sequence<I...>) {
        (finish_one<I>(), ...);
    }

    template <std::size_t I>
    void finish_one() {
        auto& reduction = std::get<I>(reductions_);
        auto result = *reduction.target;
        for (std::size_t block = 0; block < blocks_; ++block)
            result = reduction.operation(result, std::get<I>(partials_[block]));
        *reduction.target = result;
    }

    const Kernel& kernel_;
    range<D> extent_;
    std::tuple<Reductions...> reductions_;
    std::size_t total_;
    std::size_t block_;
    std::size_t blocks_;
    // On the stack: a reduction needs no memory that could be missing.
    std::array<std::tuple<typename Reductions::value_type...>, most_blocks> partials_;
};

} // namespace detail

/// Combines all contributions and the old value of *target into *target.
template <class T, class Operation>
auto reduction(T* target, Operation operation) {
    return detail::reduction_variable<T, Operation>{target, operation};
}

} // namespace sycl
