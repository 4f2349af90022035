// Errors: error codes, sycl::exception, and the list that asynchronous handlers are given.
#pragma once

#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace sycl {

namespace detail {
struct queue_impl;
} // namespace detail

enum class errc {
    success = 0,
    runtime,
    kernel,
    accessor,
    nd_range,
    event,
    kernel_argument,
    build,
    invalid,
    memory_allocation,
    platform,
    profiling,
    feature_not_supported,
    kernel_not_supported,
    backend_mismatch,
};

const std::error_category& sycl_category() noexcept;
std::error_code make_error_code(errc code) noexcept;

} // namespace sycl

template <>
struct std::is_error_code_enum<sycl::errc> : std::true_type {};

namespace sycl {

class exception : public virtual std::exception {
  public:
    exception(std::error_code code, const std::string& message);

    const std::error_code& code() const noexcept { return code_; }
    const char* what() const noexcept override { return message_->c_str(); }

  private:
    std::error_code code_;
    // Shared, so that copying an exception cannot throw.
    std::shared_ptr<const std::string> message_;
};

/// Asynchronous errors in the order in which they were raised.
class exception_list {
  public:
    using iterator = std::vector<std::exception_ptr>::const_iterator;

    std::size_t size() const { return errors_.size(); }
    iterator begin() const { return errors_.begin(); }
    iterator end() const { return errors_.end(); }

  private:
    friend struct detail::queue_impl;
    explicit exception_list(std::vector<std::exception_ptr> errors) : errors_(std::move(errors)) {}

    std::vector<std::exception_ptr> errors_;
};

using async_handler = std::function<void(exception_list)>;

} // namespace sycl
