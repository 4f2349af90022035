// Queues, devices, exceptions, and the way of asynchronous errors.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>

namespace {

std::string message_of(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    }
}

TEST(QueueTest, SelectorsAndDeviceQueries) {
    const auto devices = sycl::device::get_devices();
    ASSERT_EQ(devices.size(), 1u);
    const sycl::device& cpu = devices.front();
    EXPECT_TRUE(cpu.is_cpu());
    EXPECT_FALSE(cpu.is_gpu());
    EXPECT_EQ(cpu, sycl::device(sycl::default_selector_v));
    EXPECT_THROW(sycl::device([](const sycl::device&) { return -1; }), sycl::exception);
    EXPECT_TRUE(sycl::device::get_devices(sycl::info::device_type::gpu).empty());
    EXPECT_FALSE(cpu.get_info<sycl::info::device::name>().empty());
    EXPECT_EQ(cpu.get_backend(), sycl::backend::hostsycl);
    EXPECT_TRUE(cpu.get_info<sycl::info::device::host_unified_memory>());
}

TEST(QueueTest, WhatKernelsThrowIsThrownBySubmit) {
    sycl::queue queue;
    EXPECT_THROW(queue.single_task([] { throw std::out_of_range("gone"); }), std::out_of_range);
    EXPECT_THROW(queue.parallel_for(100000,
                                    [](sycl::id<1> i) {
                                        if (i == 99999)
                                            throw std::runtime_error("gone");
                                    }),
                 std::runtime_error);
    EXPECT_NO_THROW(queue.wait_and_throw());
}

TEST(QueueTest, AsynchronousErrorsComeToTheHandlerInOrderAndOnce) {
    hostsycl::simulated_device_guard gpu;
    std::vector<std::string> seen;
    sycl::queue queue{gpu.get(), [&](sycl::exception_list errors) {
                          for (const auto& error : errors)
                              seen.push_back(message_of(error));
                      }};
    gpu.raise_asynchronous_error(1, "first");
    gpu.raise_asynchronous_error(2, "second");
    queue.single_task([] {});
    queue.single_task([] {});
    queue.wait();
    EXPECT_TRUE(seen.empty()) << "wait alone delivers nothing";
    queue.wait_and_throw();
    EXPECT_EQ(seen, (std::vector<std::string>{"first", "second"}));
    gpu.raise_asynchronous_error(1, "third");
    queue.single_task([] {}).wait_and_throw();
    EXPECT_EQ(seen.size(), 3u);
    gpu.raise_asynchronous_error(1, "fourth");
    queue.single_task([] {});
    queue = sycl::queue(gpu.get());
    EXPECT_EQ(seen.size(), 4u) << "the end of a queue delivers what is left";
    sycl::queue throwing{gpu.get(), [](sycl::exception_list errors) {
                             std::rethrow_exception(*errors.begin());
                         }};
    gpu.raise_asynchronous_error(1, std::make_exception_ptr(std::out_of_range("gone")));
    throwing.single_task([] {});
    EXPECT_THROW(throwing.wait_and_throw(), std::out_of_range);
    EXPECT_NO_THROW(throwing.wait_and_throw());
}

TEST(QueueDeathTest, WithoutHandlerAnErrorEndsTheProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(
        {
            hostsycl::simulated_device_guard gpu;
            sycl::queue queue(gpu.get());
            gpu.raise_asynchronous_error(1, "unseen");
            queue.single_task([] {});
            queue.wait_and_throw();
        },
        "unseen");
}

TEST(QueueTest, ErrorsInACommandGroupAreThrownBySubmit) {
    sycl::queue queue;
    EXPECT_THROW(queue.submit([](sycl::handler&) { throw std::logic_error("own"); }), std::logic_error);
    EXPECT_THROW(queue.submit([](sycl::handler& command) {
        command.single_task([] {});
        command.single_task([] {});
    }),
                 sycl::exception);
    EXPECT_THROW(queue.memcpy(nullptr, &queue, 1), sycl::exception);
    EXPECT_NO_THROW(queue.memcpy(nullptr, nullptr, 0));
}

} // namespace
