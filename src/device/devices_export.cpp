#include "device/devices.hpp"

#include <cstdlib>
#include <cstring>
#include <new>

#include <tarn/oneapi.h>

#include "device/callbacks.hpp"

namespace {

using tarn::device_callbacks;
using tarn::DeviceRecord;

char* duplicate(const std::string& text) {
    char* copy = strdup(text.c_str());
    if (copy == nullptr)
        throw std::bad_alloc();
    return copy;
}

void free_strings(DeviceInfo& info) {
    for (char* text : {info.reserved_text, info.backend, info.vendor, info.name, info.vendor_id})
        std::free(text);
}

/// Fills a zeroed C record with copies; on failure the caller frees what is there.
void fill(DeviceInfo& info, const DeviceRecord& record) {
    info.reserved_text = duplicate(record.reserved_text);
    info.kind = record.kind;
    info.backend = duplicate(record.backend);
    info.vendor = duplicate(record.vendor);
    info.name = duplicate(record.name);
    info.vendor_id = duplicate(record.vendor_id);
    info.reserved_flag = record.reserved_flag;
    info.needs_driver_update = record.needs_driver_update ? 1 : 0;
}

/// The count stands in the eight bytes before the first record, where FreeDevices finds it.
std::int64_t& record_count(DeviceInfo* first) {
    return reinterpret_cast<std::int64_t*>(first)[-1];
}

DeviceInfo* allocate_array(std::size_t count) {
    void* block = std::calloc(1, sizeof(std::int64_t) + count * sizeof(DeviceInfo));
    if (block == nullptr)
        throw std::bad_alloc();
    *static_cast<std::int64_t*>(block) = static_cast<std::int64_t>(count);
    return reinterpret_cast<DeviceInfo*>(static_cast<std::int64_t*>(block) + 1);
}

} // namespace

extern "C" {

TARN_API void GetDevices(DeviceInfo** devices, int32_t* count) {
    if (devices == nullptr || count == nullptr) {
        device_callbacks.log_error(devices == nullptr ? "GetDevices: devices is null" : "GetDevices: count is null");
        return;
    }
    *devices = nullptr;
    *count = 0;
    DeviceInfo* array = nullptr;
    try {
        device_callbacks.log_info("Device scan started (oneAPI)");
        const std::vector<DeviceRecord> records = tarn::scan_devices();
        array = allocate_array(records.size());
        for (std::size_t i = 0; i < records.size(); ++i)
            fill(array[i], records[i]);
        device_callbacks.log_info("Device scan finished");
        *devices = array;
        *count = static_cast<int32_t>(records.size());
    } catch (...) {
        FreeDevices(array);
    }
}

TARN_API void FreeDevices(DeviceInfo* devices) {
    if (devices == nullptr)
        return;
    for (std::int64_t i = 0; i < record_count(devices); ++i)
        free_strings(devices[i]);
    std::free(&record_count(devices));
}

TARN_API DeviceInfo* GetDeviceInfo(SyclQueue* queue) {
    DeviceInfo* info = nullptr;
    try {
        if (queue == nullptr)
            throw std::invalid_argument("queue is null");
        info = static_cast<DeviceInfo*>(std::calloc(1, sizeof(DeviceInfo)));
        if (info == nullptr)
            throw std::bad_alloc();
        fill(*info, tarn::describe_device(reinterpret_cast<sycl::queue*>(queue)->get_device()));
        return info;
    } catch (const std::exception& error) {
        device_callbacks.log_error("Exception caught while getting device info: ");
        device_callbacks.log_error(error.what());
    } catch (...) {
        device_callbacks.log_error("Unknown exception caught while getting device info");
    }
    FreeDeviceInfo(info);
    return nullptr;
}

TARN_API void FreeDeviceInfo(DeviceInfo* info) {
    if (info == nullptr)
        return;
    free_strings(*info);
    std::free(info);
}

} // extern "C"
