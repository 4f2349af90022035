#include "hostsycl/exception.hpp"

#include "hostsycl/device.hpp"

namespace sycl {

namespace {

class sycl_error_category final : public std::error_category {
  public:
    const char* name() const noexcept override { return "sycl"; }

    std::string message(int value) const override {
        switch (static_cast<errc>(value)) {
        case errc::success:
            return "success";
        case errc::runtime:
            return "runtime error";
        case errc::kernel:
            return "error in a kernel";
        case errc::accessor:
            return "error with an accessor";
        case errc::nd_range:
            return "invalid range of work-items";
        case errc::event:
            return "error with an event";
        case errc::kernel_argument:
            return "invalid kernel argument";
        case errc::build:
            return "kernel build failed";
        case errc::invalid:
            return "invalid use";
        case errc::memory_allocation:
            return "memory allocation failed";
        case errc::platform:
            return "platform error";
        case errc::profiling:
            return "profiling error";
        case errc::feature_not_supported:
            return "feature not supported by the device";
        case errc::kernel_not_supported:
            return "kernel not supported by the device";
        case errc::backend_mismatch:
            return "objects of different back ends";
        }
        return "unknown error";
    }
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
exception::exception(std::error_code code, const char* message) : exception(code, std::string(message)) {}
exception::exception(std::error_code code) : exception(code, code.message()) {}
exception::exception(int value, const std::error_category& category, const std::string& message)
    : exception(std::error_code(value, category), message) {}
exception::exception(int value, const std::error_category& category, const char* message)
    : exception(std::error_code(value, category), message) {}
exception::exception(int value, const std::error_category& category) : exception(std::error_code(value, category)) {}
exception::exception(context where, std::error_code code, const std::string& message) : exception(code, message) {
    context_ = where.impl();
}
exception::exception(context where, std::error_code code, const char* message) : exception(code, message) {
    context_ = where.impl();
}
exception::exception(context where, std::error_code code) : exception(code) {
    context_ = where.impl();
}

context exception::get_context() const {
    if (context_ == nullptr)
        throw exception(errc::invalid, "the exception has no context");
    return context(context_);
}

} // namespace sycl
