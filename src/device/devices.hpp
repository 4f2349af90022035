// The devices that the library offers, and how a host names them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sycl/sycl.hpp>

namespace tarn {

/// A DeviceInfo with owned strings; the exports turn it into the C record.
struct DeviceRecord {
    std::string reserved_text;
    std::int32_t kind = 0;
    std::string backend;
    std::string vendor;
    std::string name;
    std::string vendor_id;
    std::uint8_t reserved_flag = 0;
    bool needs_driver_update = false;

    /// Whether both name the same device. The state of its driver is no part of that.
    bool names_same_device(const DeviceRecord& other) const;
};

/// The record of a device. Throws what the driver version's fields throw when they are no numbers.
DeviceRecord describe_device(const sycl::device& device);

/// Every device that passes the filters and a test kernel, in the order in which the SYCL runtime lists them.
std::vector<DeviceRecord> scan_devices();

/// True for a device with at least 1 GiB of memory that is available, runs kernels and has USM device allocations.
bool is_device_usable(const sycl::device& device);

/// Runs a one-item kernel on the device, a second time if the first attempt throws.
bool test_device(const sycl::device& device);

/// False for integrated Intel GPUs on OpenCL with a driver before build 101.4313, which computes wrong results.
bool driver_is_supported(const sycl::device& device);

/// Bernstein's string hash, h = h * 33 + c from 5381, over signed characters in 32 bits.
std::uint32_t token_hash(std::string_view token);

/// The device kind that a kind token stands for; 0 for an unknown one.
std::int32_t kind_of_token(std::string_view token);

/// Splits at each `separator`; neighbouring separators give empty fields.
std::vector<std::string> split(std::string_view text, char separator);

} // namespace tarn
