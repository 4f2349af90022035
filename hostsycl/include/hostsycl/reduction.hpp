// Reductions. A launch is cut into blocks that depend on its size alone; each block has reducers of its own, and their
// values are combined in the order of the blocks. The result is thus the same bits for any number of threads.
#pragma once

#include <array>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>

#include "hostsycl/functional.hpp"
#include "hostsycl/launch.hpp"
#include "hostsycl/property.hpp"
#include "hostsycl/work_group.hpp"

namespace sycl {

/// What a kernel hands its contributions to.
template <class T, class Operation, bool has_identity>
class reducer {
  public:
    using value_type = T;
    using binary_operation = Operation;

    reducer(const T& identity, const Operation& operation)
        : value_(identity), identity_(identity), operation_(operation) {}
    reducer(const reducer&) = delete;
    reducer& operator=(const reducer&) = delete;

    reducer& combine(const T& contribution) {
        if constexpr (has_identity) {
            value_ = operation_(value_, contribution);
        } else {
            value_ = used_ ? operation_(value_, contribution) : contribution;
            used_ = true;
        }
        return *this;
    }

    T identity() const requires has_identity { return identity_; }

    friend reducer& operator+=(reducer& r, const T& value) requires detail::is_operation<Operation, plus, T> {
        return r.combine(value);
    }
    friend reducer& operator*=(reducer& r, const T& value) requires detail::is_operation<Operation, multiplies, T> {
        return r.combine(value);
    }
    friend reducer& operator&=(reducer& r, const T& value) requires detail::is_operation<Operation, bit_and, T> {
        return r.combine(value);
    }
    friend reducer& operator|=(reducer& r, const T& value) requires detail::is_operation<Operation, bit_or, T> {
        return r.combine(value);
    }
    friend reducer& operator^=(reducer& r, const T& value) requires detail::is_operation<Operation, bit_xor, T> {
        return r.combine(value);
    }
    friend reducer& operator++(reducer& r) requires(detail::is_operation<Operation, plus, T>&& std::is_integral_v<T>) {
        return r.combine(T{1});
    }

    /// For this implementation's own use: what has come together so far, and whether that is anything.
    const T& value() const { return value_; }
    bool used() const { return has_identity || used_; }

  private:
    T value_;
    T identity_;
    Operation operation_;
    bool used_ = false;
};

namespace detail {

/// What sycl::reduction makes.
template <class T, class Operation, bool has_identity>
struct reduction_variable {
    using value_type = T;
    using reducer_type = reducer<T, Operation, has_identity>;

    T* target;
    T identity;
    Operation operation;
    bool starts_at_identity;
};

template <class T>
inline constexpr bool is_reduction = false;
template <class T, class Operation, bool has_identity>
inline constexpr bool is_reduction<reduction_variable<T, Operation, has_identity>> = true;

template <class T, class Operation>
auto make_reduction(T* target, const Operation& operation, const property_list& properties) {
    constexpr bool known = has_known_identity_v<Operation, T>;
    const bool fresh = properties.has_property<property::reduction::initialize_to_identity>();
    if constexpr (known) {
        return reduction_variable<T, Operation, true>{target, known_identity_v<Operation, T>, operation, fresh};
    } else {
        if (fresh)
            throw exception(make_error_code(errc::invalid),
                            "a reduction without identity cannot start at its identity");
        return reduction_variable<T, Operation, false>{target, T{}, operation, false};
    }
}

/// What one block has contributed to one reduction.
template <class T>
struct partial_result {
    T value;
    bool used;
};

inline constexpr std::size_t reduction_blocks = 256;

/// Runs `run_block(begin, end, reducers...)` over [0, total) in blocks and leaves the results in the targets.
template <class RunBlock, class... Reductions>
class reduction_launch {
  public:
    reduction_launch(const RunBlock& run_block, std::size_t total, const Reductions&... reductions)
        : run_block_(run_block), reductions_(reductions...), total_(total),
          block_((total + reduction_blocks - 1) / reduction_blocks),
          blocks_(block_ == 0 ? 0 : (total + block_ - 1) / block_) {}

    void run() {
        run_adaptive(&reduction_launch::run_blocks, this, blocks_, 1);
        finish(std::index_sequence_for<Reductions...>());
    }

  private:
    static void run_blocks(const void* work, std::size_t begin, std::size_t end) {
        // Each block writes its own entry only.
        auto& launch = *const_cast<reduction_launch*>(static_cast<const reduction_launch*>(work));
        for (std::size_t block = begin; block < end; ++block)
            launch.run_one(block, std::index_sequence_for<Reductions...>());
    }

    template <std::size_t... I>
    void run_one(std::size_t block, std::index_sequence<I...>) {
        const std::size_t begin = block * block_;
        const std::size_t end = begin + block_ < total_ ? begin + block_ : total_;
        run_with(block, begin, end,
                 typename Reductions::reducer_type(std::get<I>(reductions_).identity,
                                                   std::get<I>(reductions_).operation)...);
    }

    void run_with(std::size_t block, std::size_t begin, std::size_t end,
                  typename Reductions::reducer_type&&... reducers) {
        run_block_(begin, end, reducers...);
        partials_[block] = {partial_result<typename Reductions::value_type>{reducers.value(), reducers.used()}...};
    }

    template <std::size_t... I>
    void finish(std::index_sequence<I...>) {
        (finish_one<I>(), ...);
    }

    template <std::size_t I>
    void finish_one() {
        auto& reduction = std::get<I>(reductions_);
        auto result = reduction.starts_at_identity ? reduction.identity : *reduction.target;
        for (std::size_t block = 0; block < blocks_; ++block)
            if (const auto& partial = std::get<I>(partials_[block]); partial.used)
                result = reduction.operation(result, partial.value);
        *reduction.target = result;
    }

    const RunBlock& run_block_;
    std::tuple<Reductions...> reductions_;
    std::size_t total_;
    std::size_t block_;
    std::size_t blocks_;
    // On the stack: a reduction needs no memory that could be missing.
    std::array<std::tuple<partial_result<typename Reductions::value_type>...>, reduction_blocks> partials_;
};

template <class Kernel, int D, class... Reductions>
void run_range_reduction(const Kernel& kernel, const range<D>& extent, const Reductions&... reductions) {
    const auto run_block = [&](std::size_t begin, std::size_t end, auto&... reducers) {
        for_cells(kernel, extent, begin, end, reducers...);
    };
    reduction_launch<decltype(run_block), Reductions...>(run_block, extent.size(), reductions...).run();
}

template <class Kernel, int D, class... Reductions>
void run_nd_range_reduction(const Kernel& kernel, const nd_range<D>& extent, const device_impl& device,
                            std::size_t local_bytes, const Reductions&... reductions) {
    const group_launch<Kernel, D> launch = make_group_launch(kernel, extent, device, local_bytes);
    const auto run_block = [&](std::size_t begin, std::size_t end, auto&... reducers) {
        group_runner<Kernel, D, std::remove_reference_t<decltype(reducers)>...>(launch, reducers...).run(begin, end);
    };
    reduction_launch<decltype(run_block), Reductions...>(run_block, extent.get_group_range().size(), reductions...)
        .run();
}

} // namespace detail

/// Combines all contributions into *target, which takes part with its own value unless the property
/// initialize_to_identity is given.
template <class T, class Operation>
auto reduction(T* target, Operation operation, const property_list& properties = {}) {
    return detail::make_reduction(target, operation, properties);
}

template <class T, class Operation>
auto reduction(T* target, const T& identity, Operation operation, const property_list& properties = {}) {
    return detail::reduction_variable<T, Operation, true>{
        target, identity, operation, properties.has_property<property::reduction::initialize_to_identity>()};
}

} // namespace sycl
