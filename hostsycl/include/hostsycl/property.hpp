// Properties of queues, buffers, accessors and reductions. All of them are plain flags.
#pragma once

#include <cstdint>
#include <type_traits>

#include "hostsycl/exception.hpp"

namespace sycl {

namespace property {
namespace queue {
struct in_order {};
struct enable_profiling {};
} // namespace queue
namespace buffer {
struct use_host_ptr {};
} // namespace buffer
namespace reduction {
struct initialize_to_identity {};
} // namespace reduction
struct no_init {};
} // namespace property

inline constexpr property::no_init no_init{};

namespace detail {

template <class Property>
inline constexpr std::uint32_t property_bit = 0;
template <>
inline constexpr std::uint32_t property_bit<property::queue::in_order> = 1u << 0;
template <>
inline constexpr std::uint32_t property_bit<property::queue::enable_profiling> = 1u << 1;
template <>
inline constexpr std::uint32_t property_bit<property::buffer::use_host_ptr> = 1u << 2;
template <>
inline constexpr std::uint32_t property_bit<property::reduction::initialize_to_identity> = 1u << 3;
template <>
inline constexpr std::uint32_t property_bit<property::no_init> = 1u << 4;

} // namespace detail

template <class Property>
struct is_property : std::bool_constant<detail::property_bit<Property> != 0> {};
template <class Property>
inline constexpr bool is_property_v = is_property<Property>::value;

class property_list {
  public:
    template <class... Properties>
    requires(is_property_v<Properties>&&...) constexpr property_list(Properties...)
        : bits_((0u | ... | detail::property_bit<Properties>)) {}

    template <class Property>
    constexpr bool has_property() const noexcept {
        return (bits_ & detail::property_bit<Property>) != 0;
    }

    template <class Property>
    Property get_property() const {
        if (!has_property<Property>())
            throw exception(make_error_code(errc::invalid), "the object has no such property");
        return {};
    }

  private:
    std::uint32_t bits_ = 0;
};

} // namespace sycl
