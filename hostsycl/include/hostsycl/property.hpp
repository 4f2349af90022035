// Properties of queues, buffers and accessors. All of them are plain flags.
#pragma once

#include <cstdint>
#include <type_traits>

namespace sycl {

namespace property {
namespace queue {
struct in_order {};
} // namespace queue
namespace buffer {
struct use_host_ptr {};
} // namespace buffer
struct no_init {};
} // namespace property

inline constexpr property::no_init no_init{};

namespace detail {

template <class Property>
inline constexpr std::uint32_t property_bit = 0;
template <>
inline constexpr std::uint32_t property_bit<property::queue::in_order> = 1u << 0;
template <>
inline constexpr std::uint32_t property_bit<property::buffer::use_host_ptr> = 1u << 1;
template <>
inline constexpr std::uint32_t property_bit<property::no_init> = 1u << 2;

} // namespace detail

class property_list {
  public:
    template <class... Properties>
    requires((detail::property_bit<Properties> != 0) && ...) constexpr property_list(Properties...)
        : bits_((0u | ... | detail::property_bit<Properties>)) {}

    template <class Property>
    constexpr bool has_property() const noexcept {
        return (bits_ & detail::property_bit<Property>) != 0;
    }

  private:
    std::uint32_t bits_ = 0;
};

} // namespace sycl
