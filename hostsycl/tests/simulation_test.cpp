// Simulated devices and planned faults.
#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>

namespace {

using hostsycl::device_kind;
using hostsycl::simulated_device;
using hostsycl::simulated_device_guard;

TEST(SimulationTest, DevicesReportWhatTheyAreTold) {
    simulated_device description;
    description.kind = device_kind::integrated_gpu;
    description.backend = sycl::backend::opencl;
    description.vendor = "A Vendor";
    description.name = "A GPU";
    description.vendor_id = 7;
    description.driver_version = "1.2.101.3";
    description.global_mem_size = 12345;
    description.available = false;
    description.exec_kernel = false;
    description.aspects_removed = {sycl::aspect::usm_host_allocations};
    description.sub_group_sizes = {8};
    const simulated_device_guard guard(description);
    const sycl::device device = guard.get();
    namespace query = sycl::info::device;
    EXPECT_TRUE(device.is_gpu());
    EXPECT_EQ(device.get_info<query::device_type>(), sycl::info::device_type::gpu);
    EXPECT_TRUE(device.get_info<query::host_unified_memory>());
    EXPECT_EQ(device.get_backend(), sycl::backend::opencl);
    EXPECT_EQ(device.get_info<query::vendor>(), "A Vendor");
    EXPECT_EQ(device.get_info<query::name>(), "A GPU");
    EXPECT_EQ(device.get_info<query::vendor_id>(), 7u);
    EXPECT_EQ(device.get_info<query::driver_version>(), "1.2.101.3");
    EXPECT_EQ(device.get_info<query::global_mem_size>(), 12345u);
    EXPECT_FALSE(device.get_info<query::is_available>());
    EXPECT_TRUE(device.get_info<query::execution_capabilities>().empty());
    EXPECT_FALSE(device.has(sycl::aspect::usm_host_allocations));
    EXPECT_TRUE(device.has(sycl::aspect::usm_device_allocations));
    EXPECT_EQ(device.get_info<query::sub_group_sizes>(), std::vector<std::size_t>{8});
    EXPECT_THROW(sycl::malloc_host(1, sycl::queue(device)), sycl::exception);
}

TEST(SimulationTest, DevicesComeAfterTheCpuAndGoWithTheirGuard) {
    sycl::queue outlives;
    {
        simulated_device_guard first({.name = "first"});
        const simulated_device_guard second({.kind = device_kind::accelerator, .name = "second"});
        const auto devices = sycl::device::get_devices();
        ASSERT_EQ(devices.size(), 3u);
        EXPECT_TRUE(devices[0].is_cpu());
        EXPECT_EQ(devices[1], first.get());
        EXPECT_TRUE(devices[2].is_accelerator());
        EXPECT_EQ(sycl::device(sycl::default_selector_v), first.get());
        EXPECT_NE(sycl::queue(devices[1]).get_context(), sycl::queue(devices[2]).get_context());
        outlives = sycl::queue(first.get());
        first.remove();
        EXPECT_EQ(sycl::device::get_devices().size(), 2u);
        const hostsycl::hidden_cpu_guard hidden;
        EXPECT_THROW(static_cast<void>(sycl::device(sycl::cpu_selector_v)), sycl::exception);
        EXPECT_EQ(sycl::device::get_devices().size(), 1u);
    }
    EXPECT_EQ(sycl::device::get_devices().size(), 1u);
    int value = 0;
    outlives.single_task([&value] { value = 1; });
    EXPECT_EQ(value, 1);
}

TEST(SimulationTest, MemoryIsLimitedCountedAndPoisoned) {
    simulated_device_guard gpu({.global_mem_size = 1000});
    sycl::queue queue(gpu.get());
    float* a = sycl::malloc_device<float>(100, queue);
    ASSERT_NE(a, nullptr);
    EXPECT_TRUE(std::isnan(a[99]));
    EXPECT_EQ(sycl::malloc_device(601, queue), nullptr);
    void* b = sycl::malloc_device(600, queue);
    EXPECT_NE(b, nullptr);
    EXPECT_EQ(gpu.counters().bytes_in_use, 1000u);
    EXPECT_EQ(gpu.counters().live_allocations, 2u);
    sycl::free(b, queue);
    sycl::free(a, queue);
    EXPECT_EQ(gpu.counters().bytes_in_use, 0u);
    EXPECT_EQ(gpu.counters().peak_bytes_in_use, 1000u);
    EXPECT_EQ(gpu.counters().allocations, 2u);
    sycl::buffer<char> buffer(1001);
    EXPECT_THROW(queue.submit([&](sycl::handler& command) { sycl::accessor data(buffer, command); }), sycl::exception);
}

TEST(SimulationTest, TransfersAreCountedAndMadeOnlyWhenNeeded) {
    simulated_device_guard gpu;
    sycl::queue queue(gpu.get());
    std::vector<int> host(25, 1);
    const auto run = [&](auto& buffer, auto tag, auto... properties) {
        queue.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command, tag, properties...);
            command.parallel_for(25, [=](sycl::id<1> i) { static_cast<void>(data[i]); });
        });
    };
    {
        sycl::buffer<int> buffer(host.data(), 25);
        run(buffer, sycl::read_only);
        run(buffer, sycl::read_only);
        EXPECT_EQ(gpu.counters().bytes_copied_to_device, 100u);
        EXPECT_EQ(gpu.counters().bytes_in_use, 100u);
        run(buffer, sycl::read_write);
        EXPECT_EQ(gpu.counters().bytes_copied_to_host, 0u);
    }
    EXPECT_EQ(gpu.counters().bytes_copied_to_host, 100u);
    EXPECT_EQ(gpu.counters().bytes_in_use, 0u);
    {
        sycl::buffer<int> buffer(host.data(), 25);
        run(buffer, sycl::write_only, sycl::no_init);
        EXPECT_EQ(gpu.counters().bytes_copied_to_device, 100u) << "no_init uploads nothing";
    }
    EXPECT_EQ(host[0], -1) << "and what the kernel leaves out is poison";
    EXPECT_EQ(gpu.counters().kernels_launched, 4u);

    int* block = sycl::malloc_device<int>(25, queue);
    queue.memcpy(block, host.data(), 100);
    queue.memcpy(host.data(), block + 20, 20);
    EXPECT_EQ(gpu.counters().bytes_copied_to_device, 200u);
    EXPECT_EQ(gpu.counters().bytes_copied_to_host, 220u);
    sycl::free(block, queue);
}

TEST(SimulationTest, PlannedAllocationFailures) {
    simulated_device_guard gpu;
    sycl::queue queue(gpu.get());
    gpu.fail_allocation(2);
    void* first = sycl::malloc_device(8, queue);
    EXPECT_NE(first, nullptr);
    EXPECT_EQ(sycl::malloc_device(8, queue), nullptr);
    sycl::free(first, queue);
    gpu.fail_host_allocation(1);
    EXPECT_EQ(sycl::malloc_host(8, queue), nullptr);
    void* pinned = sycl::malloc_host(8, queue);
    EXPECT_EQ(gpu.counters().live_host_allocations, 1u);
    sycl::free(pinned, queue);
    EXPECT_EQ(gpu.counters().live_host_allocations, 0u);
    gpu.fail_allocations_above(100);
    EXPECT_EQ(sycl::malloc_device(101, queue), nullptr);
    gpu.clear_faults();
    sycl::free(sycl::malloc_device(101, queue), queue);
    gpu.fail_allocation(1);
    sycl::buffer<int> buffer(1);
    try {
        queue.submit([&](sycl::handler& command) { sycl::accessor data(buffer, command); });
        FAIL();
    } catch (const sycl::exception& e) {
        EXPECT_EQ(e.code(), sycl::errc::memory_allocation);
    }
}

TEST(SimulationTest, PlannedErrorsOfKernelsSubmissionsAndCopies) {
    simulated_device_guard gpu;
    std::vector<std::string> seen;
    sycl::queue queue(gpu.get(), [&](sycl::exception_list errors) {
        for (const auto& error : errors) {
            try {
                std::rethrow_exception(error);
            } catch (const std::exception& e) {
                seen.emplace_back(e.what());
            }
        }
    });
    int value = 0;
    const auto add = [&] {
        queue.single_task([&value] { ++value; });
    };

    gpu.raise_asynchronous_error(2, "lost");
    add();
    add();
    add();
    EXPECT_EQ(value, 2) << "the kernel that fails does not run";
    queue.wait_and_throw();
    EXPECT_EQ(seen, std::vector<std::string>{"lost"});

    gpu.raise_asynchronous_error(1, std::make_exception_ptr(std::runtime_error("of another type")));
    add();
    queue.wait_and_throw();
    EXPECT_EQ(seen.back(), "of another type");

    gpu.throw_on_submit(1, "refused", sycl::errc::kernel);
    EXPECT_THROW(add(), sycl::exception);
    EXPECT_EQ(value, 2);

    int target = 5;
    const int source = 6;
    gpu.fail_copy(1, "cut off");
    queue.memcpy(&target, &source, sizeof(int));
    EXPECT_EQ(target, 5);
    queue.memcpy(&target, &source, sizeof(int));
    EXPECT_EQ(target, 6);
    {
        sycl::buffer<int> buffer(&target, 1);
        queue.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command);
            command.single_task([=] { data[0] = 8; });
        });
        gpu.fail_copy(1, "write-back lost");
    }
    queue.wait_and_throw();
    EXPECT_EQ(seen.back(), "write-back lost");

    gpu.fail_info_queries(true);
    EXPECT_THROW(gpu.get().get_info<sycl::info::device::name>(), sycl::exception);
    gpu.clear_faults();
    EXPECT_NO_THROW(gpu.get().get_info<sycl::info::device::name>());
}

} // namespace
