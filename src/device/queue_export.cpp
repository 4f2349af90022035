#include <fstream>
#include <iostream>
#include <stdexcept>
#include <string_view>

#include <tarn/oneapi.h>

#include "device/call_frame.hpp"
#include "device/devices.hpp"
#include "device/host_pinned_memory_pool.hpp"

namespace {

using tarn::device_callbacks;

#ifdef _WIN32
constexpr const char* null_device = "nul";
#else
constexpr const char* null_device = "/dev/null";
#endif

/// Keeps the SYCL runtime's chatter off the host's console. Only the buffer of std::cerr is exchanged: the file
/// descriptor stays as it is. The stream is never destroyed, since std::cerr refers to it until the process ends, also
/// after the library has been unloaded.
void silence_error_stream() {
    static std::ofstream& null_stream = *new std::ofstream(null_device, std::ios::out);
    std::cerr.rdbuf(null_stream.rdbuf());
}

sycl::queue* make_queue(const sycl::device& device) {
    return new sycl::queue(device, tarn::handle_asynchronous_errors, {sycl::property::queue::in_order()});
}

/// The queue for "kind token/backend/vendor/name/vendor id", or null.
sycl::queue* make_queue(std::string_view device_id) {
    const std::vector<std::string> tokens = tarn::split(device_id, '/');
    if (tokens.size() < 5)
        return nullptr;
    tarn::DeviceRecord wanted;
    wanted.kind = tarn::kind_of_token(tokens[0]);
    wanted.backend = tokens[1];
    wanted.vendor = tokens[2];
    wanted.name = tokens[3];
    wanted.vendor_id = tokens[4];
    for (const sycl::device& device : sycl::device::get_devices(sycl::info::device_type::all)) {
        tarn::DeviceRecord record;
        try {
            record = tarn::describe_device(device);
        } catch (const std::logic_error&) {
            continue; // a driver version that is no number: this device cannot be named, the others can
        }
        if (record.names_same_device(wanted))
            return record.needs_driver_update ? nullptr : make_queue(device);
    }
    return nullptr;
}

} // namespace

extern "C" {

TARN_API SyclQueue* CreateSyclQueue(const char* device_id, const HostCallbacks* callbacks) {
    if (device_id == nullptr || callbacks == nullptr)
        return nullptr;
    device_callbacks.set(*callbacks);
    try {
        silence_error_stream();
        sycl::queue* queue = std::string_view(device_id) == "cpu" ? make_queue(sycl::device(sycl::cpu_selector_v))
                                                                  : make_queue(std::string_view(device_id));
        return reinterpret_cast<SyclQueue*>(queue);
    } catch (...) {
        return nullptr;
    }
}

TARN_API void DestroySyclQueue(SyclQueue* handle) {
    if (handle == nullptr)
        return;
    auto* queue = reinterpret_cast<sycl::queue*>(handle);
    try {
        tarn::release_pinned_pools(*queue);
        delete queue;
    } catch (const std::exception& error) {
        device_callbacks.log_error("Exception caught while deactivating device: ");
        device_callbacks.log_error(error.what());
    } catch (...) {
        device_callbacks.log_error("Unknown exception caught while deactivating device");
    }
}

} // extern "C"
