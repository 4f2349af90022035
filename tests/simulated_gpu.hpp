// A simulated GPU with a queue like those that CreateSyclQueue makes.
#pragma once

#include <utility>

#include <hostsycl/simulation.hpp>

#include "device/call_frame.hpp"

namespace tarn_test {

inline hostsycl::simulated_device discrete_gpu(std::size_t memory = std::size_t{2} << 30) {
    hostsycl::simulated_device description;
    description.name = "Discrete GPU";
    description.global_mem_size = memory;
    return description;
}

inline hostsycl::simulated_device integrated_gpu(std::size_t memory = std::size_t{2} << 30) {
    hostsycl::simulated_device description = discrete_gpu(memory);
    description.kind = hostsycl::device_kind::integrated_gpu;
    description.name = "Integrated GPU";
    return description;
}

inline sycl::queue library_queue(const sycl::device& device) {
    return sycl::queue(device, tarn::handle_asynchronous_errors,
                       sycl::property_list{sycl::property::queue::in_order()});
}

struct SimulatedGpu {
    explicit SimulatedGpu(const hostsycl::simulated_device& description = discrete_gpu())
        : device(description), queue(library_queue(device.get())) {}

    hostsycl::simulated_device_guard device;
    sycl::queue queue;
};

} // namespace tarn_test
