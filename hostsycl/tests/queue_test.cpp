// Queues, devices, exceptions, and the way of asynchronous errors.
#include <stdexcept>
#include <string>
#include <unordered_set>
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

TEST(QueueTest, HandlesCompareByReference) {
    sycl::queue first;
    sycl::queue second;
    const sycl::queue copy = first;
    EXPECT_EQ(first, copy);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.get_device(), second.get_device());
    EXPECT_EQ(first.get_context(), second.get_context()) << "one default context a platform";
    EXPECT_NE(sycl::context(first.get_device()), first.get_context());
    EXPECT_EQ(std::unordered_set<sycl::queue>({first, copy, second}).size(), 2u);
}

TEST(QueueTest, PropertiesAndConstructors) {
    const sycl::async_handler ignore = [](sycl::exception_list) {
    };
    EXPECT_FALSE(sycl::queue().is_in_order());
    EXPECT_TRUE(sycl::queue(sycl::property::queue::in_order()).is_in_order());
    EXPECT_TRUE(sycl::queue(sycl::cpu_selector_v, ignore, {sycl::property::queue::in_order()}).is_in_order());
    sycl::device cpu(sycl::cpu_selector_v);
    sycl::queue queue(cpu, [](sycl::exception_list) {}, {sycl::property::queue::in_order()});
    EXPECT_TRUE(queue.has_property<sycl::property::queue::in_order>());
    EXPECT_EQ(queue.get_device(), cpu);
    EXPECT_EQ(sycl::queue(sycl::context(cpu), cpu).get_device(), cpu);
    EXPECT_THROW(queue.get_property<sycl::property::queue::enable_profiling>(), sycl::exception);
}

TEST(QueueTest, InOrderCommandsSeeTheirPredecessors) {
    sycl::queue queue{sycl::property::queue::in_order()};
    constexpr std::size_t size = 100000;
    int* a = sycl::malloc_device<int>(size, queue);
    int* b = sycl::malloc_device<int>(size, queue);
    std::vector<int> out(size);
    queue.fill(a, 1, size);
    for (int step = 0; step < 10; ++step) {
        queue.parallel_for(size, [=](sycl::id<1> i) { b[i] = a[size - 1 - i] + 1; });
        queue.memcpy(a, b, size * sizeof(int));
    }
    queue.copy(a, out.data(), size).wait();
    EXPECT_EQ(out, std::vector<int>(size, 11));
    sycl::free(a, queue);
    sycl::free(b, queue);
}

TEST(QueueTest, SelectorsAndDeviceQueries) {
    const auto devices = sycl::device::get_devices();
    ASSERT_EQ(devices.size(), 1u);
    const sycl::device& cpu = devices.front();
    EXPECT_TRUE(cpu.is_cpu());
    EXPECT_FALSE(cpu.is_gpu());
    EXPECT_EQ(cpu, sycl::device(sycl::default_selector_v));
    EXPECT_THROW(sycl::device(sycl::gpu_selector_v), sycl::exception);
    EXPECT_THROW(sycl::device([](const sycl::device&) { return -1; }), sycl::exception);
    EXPECT_TRUE(sycl::device::get_devices(sycl::info::device_type::gpu).empty());
    EXPECT_FALSE(cpu.get_info<sycl::info::device::name>().empty());
    EXPECT_GE(cpu.get_info<sycl::info::device::max_compute_units>(), 1u);
    EXPECT_EQ(cpu.get_info<sycl::info::device::max_work_item_sizes<2>>()[1],
              cpu.get_info<sycl::info::device::max_work_group_size>());
    EXPECT_EQ(cpu.get_info<sycl::info::device::platform>(), cpu.get_platform());
    EXPECT_EQ(cpu.get_backend(), sycl::backend::hostsycl);
    EXPECT_TRUE(cpu.get_info<sycl::info::device::host_unified_memory>());
}

TEST(QueueTest, ExceptionsCarryCodeMessageAndContext) {
    const sycl::exception plain(sycl::make_error_code(sycl::errc::memory_allocation), "no memory");
    EXPECT_EQ(plain.code(), sycl::errc::memory_allocation);
    EXPECT_NE(plain.code(), sycl::make_error_code(sycl::errc::runtime));
    EXPECT_EQ(plain.category(), sycl::sycl_category());
    EXPECT_STREQ(plain.what(), "no memory");
    EXPECT_FALSE(plain.has_context());
    EXPECT_THROW(plain.get_context(), sycl::exception);
    sycl::queue queue;
    const sycl::exception placed(queue.get_context(), sycl::errc::invalid);
    EXPECT_EQ(placed.get_context(), queue.get_context());
    EXPECT_STRNE(placed.what(), "");
    EXPECT_NE(std::error_code(static_cast<int>(sycl::errc::invalid), std::generic_category()), placed.code());
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

TEST(QueueTest, HostTasksUseBuffersOnTheHost) {
    hostsycl::simulated_device_guard gpu;
    sycl::queue queue(gpu.get());
    sycl::buffer<int> buffer(1);
    queue.submit([&](sycl::handler& command) {
        sycl::accessor data(buffer, command, sycl::write_only, sycl::no_init);
        command.single_task([=] { data[0] = 20; });
    });
    int seen = 0;
    queue.submit([&](sycl::handler& command) {
        sycl::accessor data(buffer, command, sycl::read_only_host_task);
        command.host_task([=, &seen] { seen = data[0]; });
    });
    EXPECT_EQ(seen, 20);
}

} // namespace
