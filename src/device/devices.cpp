#include "device/devices.hpp"

#include <algorithm>
#include <array>
#include <optional>
#include <tuple>
#include <unordered_set>

#include "device/backend.hpp"
#include "device/call_frame.hpp"
#include "device/processor.hpp"

namespace tarn {

namespace {

constexpr std::size_t smallest_memory = 0x40000000; // 1 GiB

/// Hashes of the kind tokens that hosts may use. The last five are those of the readable tokens of the public header.
struct KindToken {
    std::uint32_t hash;
    std::int32_t kind;
};
constexpr std::array<KindToken, 10> kind_tokens{{
    {0x0B8A1051u, 1},
    {0x504A2F1Eu, 2},
    {0x54C35C5Cu, 3},
    {0x150D17A8u, 4},
    {0xCB60D22Eu, 5},
    {0xD0553421u, 1}, // "native-cpu"
    {0x0B8866EDu, 2}, // "cpu"
    {0x19327845u, 3}, // "integrated-gpu"
    {0xB177C591u, 4}, // "discrete-gpu"
    {0xB32A04CAu, 5}, // "accelerator"
}};

/// Hash of the back end text that marks a CPU device as kind 1. None of the texts of backend_name has it.
constexpr std::uint32_t native_backend_hash = 0xF8D70BF0u;

std::int32_t device_kind(const sycl::device& device, const std::string& backend) {
    if (device.is_cpu())
        return token_hash(backend) == native_backend_hash ? 1 : 2;
    if (device.is_gpu())
        return is_discrete_gpu(device) ? 4 : 3;
    return device.is_accelerator() ? 5 : 0;
}

int run_test_kernel(const sycl::device& device) {
    sycl::queue queue(device, [](const sycl::exception_list& errors) {
        for (const std::exception_ptr& error : errors) {
            try {
                std::rethrow_exception(error);
            } catch (const sycl::exception&) {
                // The sum tells whether the kernel ran.
            }
        }
    });
    int a = 1, b = 2, c = 0;
    std::optional<sycl::buffer<int, 1>> buffers[3];
    int* const values[3] = {&a, &b, &c};
    for (int i = 0; i < 3; ++i)
        buffers[i].emplace(values[i], sycl::range<1>(1));
    queue.submit([&](sycl::handler& handler) {
        sycl::accessor in_a(*buffers[0], handler, sycl::read_only);
        sycl::accessor in_b(*buffers[1], handler, sycl::read_only);
        sycl::accessor out(*buffers[2], handler, sycl::write_only);
        handler.parallel_for(sycl::range<1>(1), [=](sycl::id<1> i) { out[i] = in_a[i] + in_b[i]; });
    });
    try {
        for (auto& buffer : buffers)
            buffer.reset(); // writes the sum back
    } catch (...) {
        // The sum tells whether it came back.
    }
    queue.wait_and_throw();
    return c;
}

} // namespace

bool DeviceRecord::names_same_device(const DeviceRecord& other) const {
    const auto identity = [](const DeviceRecord& record) {
        return std::tie(record.reserved_text, record.backend, record.vendor, record.name, record.vendor_id,
                        record.reserved_flag, record.kind);
    };
    return identity(*this) == identity(other);
}

DeviceRecord describe_device(const sycl::device& device) {
    DeviceRecord record;
    record.needs_driver_update = !driver_is_supported(device);
    record.vendor = device.get_info<sycl::info::device::vendor>();
    record.name = device.get_info<sycl::info::device::name>();
    record.vendor_id = std::to_string(device.get_info<sycl::info::device::vendor_id>());
    if (record.name == "AdaptiveCpp OpenMP host device")
        record.name = processor_brand();
    if (record.vendor == "the AdaptiveCpp project")
        record.vendor = processor_vendor();
    record.backend = backend_name(device);
    record.kind = device_kind(device, record.backend);
    return record;
}

std::vector<DeviceRecord> scan_devices() {
    std::vector<DeviceRecord> records;
    std::unordered_set<std::string> rejected;
    for (const sycl::device& device : sycl::device::get_devices(sycl::info::device_type::all)) {
        try {
            const std::string key = device.get_info<sycl::info::device::name>() + "/" +
                                    std::to_string(device.get_info<sycl::info::device::vendor_id>());
            if (rejected.contains(key))
                continue;
            if (!is_device_usable(device)) {
                rejected.insert(key);
                continue;
            }
            DeviceRecord record = describe_device(device);
            if (!record.needs_driver_update && !test_device(device)) {
                rejected.insert(key);
                continue;
            }
            records.push_back(std::move(record));
        } catch (...) {
            // A device that cannot even be asked is not offered.
        }
    }
    return records;
}

bool is_device_usable(const sycl::device& device) {
    if (!device.get_info<sycl::info::device::is_available>())
        return false;
    if (device.get_info<sycl::info::device::global_mem_size>() < smallest_memory)
        return false;
    if (!is_level_zero(device.get_backend())) {
        const auto capabilities = device.get_info<sycl::info::device::execution_capabilities>();
        if (std::find(capabilities.begin(), capabilities.end(), sycl::info::execution_capability::exec_kernel) ==
            capabilities.end())
            return false;
    }
    return device.has(sycl::aspect::usm_device_allocations);
}

bool test_device(const sycl::device& device) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            return run_test_kernel(device) == 3;
        } catch (...) {
            // The first failure may be a driver waking up; the second one counts.
        }
    }
    return false;
}

bool driver_is_supported(const sycl::device& device) {
    if (!is_opencl(device.get_backend()) || device.is_cpu() || device.is_accelerator() || is_discrete_gpu(device))
        return true;
    if (device.get_info<sycl::info::device::vendor>().find("Intel") == std::string::npos)
        return true;
    std::vector<std::string> fields = split(device.get_info<sycl::info::device::driver_version>(), '.');
    fields.resize(std::max<std::size_t>(fields.size(), 4)); // an absent field is no number either
    const int major = std::stoi(fields[2]);
    if (major != 101)
        return major > 101;
    return std::stoi(fields[3]) >= 4313;
}

std::uint32_t token_hash(std::string_view token) {
    std::uint32_t hash = 5381;
    for (const char character : token)
        hash = hash * 33u + static_cast<std::uint32_t>(static_cast<signed char>(character));
    return hash;
}

std::int32_t kind_of_token(std::string_view token) {
    const std::uint32_t hash = token_hash(token);
    for (const KindToken& known : kind_tokens)
        if (known.hash == hash)
            return known.kind;
    return 0;
}

std::vector<std::string> split(std::string_view text, char separator) {
    std::vector<std::string> fields;
    for (std::size_t start = 0;;) {
        const std::size_t end = text.find(separator, start);
        fields.emplace_back(text.substr(start, end - start));
        if (end == std::string_view::npos)
            return fields;
        start = end + 1;
    }
}

} // namespace tarn
