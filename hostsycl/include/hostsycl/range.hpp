// Index spaces: range, id, item, nd_range.
#pragma once

#include <concepts>
#include <cstddef>
#include <type_traits>

#include "hostsycl/exception.hpp"

namespace sycl {

template <int D>
class id;
template <int D>
class item;

namespace detail {

/// What range and id have in common: D sizes and element-wise arithmetic. `Self` is the class that derives from it.
template <class Self, int D>
class index_array {
    static_assert(D >= 1 && D <= 3);

  public:
    static constexpr int dimensions = D;

    constexpr std::size_t get(int dimension) const { return values_[dimension]; }
    constexpr std::size_t& operator[](int dimension) { return values_[dimension]; }
    constexpr std::size_t operator[](int dimension) const { return values_[dimension]; }

    friend constexpr bool operator==(const Self& a, const Self& b) {
        for (int d = 0; d < D; ++d)
            if (a[d] != b[d])
                return false;
        return true;
    }
    template <std::integral Number>
    requires(D == 1) friend constexpr bool operator==(const Self& a, Number b) {
        return a[0] == static_cast<std::size_t>(b);
    }

#define HOSTSYCL_INDEX_BINARY(op)                                                                                      \
    friend constexpr Self operator op(const Self& a, const Self& b) {                                                  \
        return Self::apply([](std::size_t x, std::size_t y) -> std::size_t { return x op y; }, a, b);                  \
    }                                                                                                                  \
    template <std::integral Number>                                                                                    \
    friend constexpr Self operator op(const Self& a, Number b) {                                                       \
        return a op Self::filled(static_cast<std::size_t>(b));                                                         \
    }                                                                                                                  \
    template <std::integral Number>                                                                                    \
    friend constexpr Self operator op(Number a, const Self& b) {                                                       \
        return Self::filled(static_cast<std::size_t>(a)) op b;                                                         \
    }
    HOSTSYCL_INDEX_BINARY(+)
    HOSTSYCL_INDEX_BINARY(-)
    HOSTSYCL_INDEX_BINARY(*)
    HOSTSYCL_INDEX_BINARY(/)
#undef HOSTSYCL_INDEX_BINARY

  protected:
    std::size_t values_[D] = {};

  private:
    static constexpr Self filled(std::size_t value) {
        Self result = Self::zero();
        for (int d = 0; d < D; ++d)
            result[d] = value;
        return result;
    }

    template <class Operation>
    static constexpr Self apply(Operation operation, const Self& a, const Self& b) {
        Self result = Self::zero();
        for (int d = 0; d < D; ++d)
            result[d] = operation(a[d], b[d]);
        return result;
    }
};

} // namespace detail

/// The extent of an index space. The last dimension is the one that runs fastest.
template <int D = 1>
class range : public detail::index_array<range<D>, D> {
  public:
    constexpr range() = default;
    constexpr range(std::size_t size0) requires(D == 1) { this->values_[0] = size0; }
    constexpr range(std::size_t size0, std::size_t size1) requires(D == 2) {
        this->values_[0] = size0;
        this->values_[1] = size1;
    }
    constexpr range(std::size_t size0, std::size_t size1, std::size_t size2) requires(D == 3) {
        this->values_[0] = size0;
        this->values_[1] = size1;
        this->values_[2] = size2;
    }

    constexpr std::size_t size() const {
        std::size_t product = 1;
        for (int d = 0; d < D; ++d)
            product *= this->values_[d];
        return product;
    }

  private:
    friend detail::index_array<range, D>;
    static constexpr range zero() { return {}; }
};

range(std::size_t)->range<1>;
range(std::size_t, std::size_t)->range<2>;
range(std::size_t, std::size_t, std::size_t)->range<3>;

/// A place in an index space.
template <int D = 1>
class id : public detail::index_array<id<D>, D> {
  public:
    constexpr id() = default;
    constexpr id(std::size_t index0) requires(D == 1) { this->values_[0] = index0; }
    constexpr id(std::size_t index0, std::size_t index1) requires(D == 2) {
        this->values_[0] = index0;
        this->values_[1] = index1;
    }
    constexpr id(std::size_t index0, std::size_t index1, std::size_t index2) requires(D == 3) {
        this->values_[0] = index0;
        this->values_[1] = index1;
        this->values_[2] = index2;
    }
    constexpr id(const range<D>& sizes) {
        for (int d = 0; d < D; ++d)
            this->values_[d] = sizes[d];
    }
    template <class Item>
    requires std::is_same_v<Item, item<D>>
    constexpr id(const Item& place) : id(place.get_id()) {}

    /// An id of one dimension is a number wherever one is wanted.
    constexpr operator std::size_t() const requires(D == 1) { return this->values_[0]; }

  private:
    friend detail::index_array<id, D>;
    static constexpr id zero() { return {}; }
};

id(std::size_t)->id<1>;
id(std::size_t, std::size_t)->id<2>;
id(std::size_t, std::size_t, std::size_t)->id<3>;

namespace detail {

template <int D>
constexpr std::size_t linear_index(const id<D>& index, const range<D>& extent) {
    std::size_t linear = index[0];
    for (int d = 1; d < D; ++d)
        linear = linear * extent[d] + index[d];
    return linear;
}

/// The inverse of linear_index.
template <int D>
constexpr id<D> index_at(std::size_t linear, const range<D>& extent) {
    id<D> index;
    for (int d = D - 1; d > 0; --d) {
        index[d] = linear % extent[d];
        linear /= extent[d];
    }
    index[0] = linear;
    return index;
}

/// Bytes of an array of this extent.
template <int D>
std::size_t checked_bytes(const range<D>& extent, std::size_t element_size) {
    std::size_t bytes = element_size;
    bool overflows = false;
    for (int d = 0; d < D; ++d) {
        if (extent[d] == 0)
            return 0;
        overflows = __builtin_mul_overflow(bytes, extent[d], &bytes) || overflows;
    }
    if (overflows)
        throw exception(errc::memory_allocation, "an array would have more bytes than can be counted");
    return bytes;
}

} // namespace detail

/// A work-item of a launch over a range: its id together with the range.
template <int D = 1>
class item {
  public:
    static constexpr int dimensions = D;

    constexpr item(const range<D>& extent, const id<D>& index) : extent_(extent), index_(index) {}

    constexpr id<D> get_id() const { return index_; }
    constexpr std::size_t get_id(int dimension) const { return index_[dimension]; }
    constexpr std::size_t operator[](int dimension) const { return index_[dimension]; }
    constexpr range<D> get_range() const { return extent_; }
    constexpr std::size_t get_range(int dimension) const { return extent_[dimension]; }
    constexpr std::size_t get_linear_id() const { return detail::linear_index(index_, extent_); }

    constexpr operator std::size_t() const requires(D == 1) { return index_[0]; }

  private:
    range<D> extent_;
    id<D> index_;
};

/// A launch in work-groups: the extent of the whole and of one group, which must divide it.
template <int D = 1>
class nd_range {
  public:
    static constexpr int dimensions = D;

    constexpr nd_range(const range<D>& global, const range<D>& local) : global_(global), local_(local) {}

    constexpr range<D> get_global_range() const { return global_; }
    constexpr range<D> get_local_range() const { return local_; }
    constexpr range<D> get_group_range() const { return global_ / local_; }

  private:
    range<D> global_;
    range<D> local_;
};

} // namespace sycl
