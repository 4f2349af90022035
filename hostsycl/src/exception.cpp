#include "hostsycl/exception.hpp"

namespace sycl {

namespace {

class sycl_error_category final : public std::error_category {
  public:
    const char* name() const noexcept override { return "sycl"; }
    std::string message(int value) const override { return "SYCL error " + std::to_string(value); }
};

} // namespace

const std::error_category& sycl_category() noexcept {
    static const sycl_error_category category;
    return category;
}

std::error_code make_error_code(errc code) noexcept {
    return {static_cast<int>(code), sycl_category()};
}

exception::exception(std::error_code code, const std::string& message)
    : code_(code), message_(std::make_shared<const std::string>(message)) {}

} // namespace sycl
