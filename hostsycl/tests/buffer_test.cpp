// Who owns the data of a buffer, and when they go where.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>

namespace {

/// Every rule must hold in place on the CPU as well as with copies on a device with memory of its own.
class BufferTest : public testing::TestWithParam<bool> {
  protected:
    sycl::queue make_queue() { return GetParam() ? sycl::queue(gpu_.get()) : sycl::queue(sycl::cpu_selector_v); }

    template <class Buffer>
    void add_one(Buffer& buffer) {
        queue_.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command, sycl::read_write);
            command.parallel_for(buffer.get_range(), [=](sycl::id<1> i) { data[i] += 1; });
        });
    }

    hostsycl::simulated_device_guard gpu_;
    sycl::queue queue_ = make_queue();
};

INSTANTIATE_TEST_SUITE_P(Devices, BufferTest, testing::Bool(),
                         [](const auto& parameter) { return parameter.param ? "SimulatedGpu" : "Cpu"; });

TEST_P(BufferTest, WritesBackWhenTheLastHandleGoes) {
    std::vector<int> host{1, 2, 3};
    {
        sycl::buffer<int> first(host.data(), 3);
        {
            sycl::buffer<int> second = first;
            EXPECT_EQ(first, second);
            add_one(second);
        }
        EXPECT_EQ(host, (std::vector<int>{1, 2, 3})) << "a buffer without use_host_ptr works in a copy";
    }
    EXPECT_EQ(host, (std::vector<int>{2, 3, 4}));
}

TEST_P(BufferTest, ConstDataAreNeverWritten) {
    const std::vector<int> host{1, 2, 3};
    sycl::buffer<int> buffer(host.data(), 3);
    add_one(buffer);
    EXPECT_EQ(sycl::host_accessor(buffer)[2], 4);
    buffer = sycl::buffer<int>(1);
    EXPECT_EQ(host, (std::vector<int>{1, 2, 3}));
}

TEST_P(BufferTest, SetFinalDataToNullKeepsTheHostAsItIs) {
    std::vector<int> host{1, 2, 3};
    {
        sycl::buffer<int> buffer(host.data(), 3);
        add_one(buffer);
        buffer.set_final_data(nullptr);
        sycl::buffer<int> copy(host.begin(), host.end());
        add_one(copy);
        EXPECT_EQ(sycl::host_accessor(copy, sycl::read_only)[2], 4);
    }
    EXPECT_EQ(host, (std::vector<int>{1, 2, 3}));
}

TEST_P(BufferTest, SwapExchangesWhatTheHandlesStandFor) {
    std::vector<int> a{1, 1};
    std::vector<int> b{5, 5};
    {
        sycl::buffer<int> first(a.data(), 2);
        sycl::buffer<int> second(b.data(), 2);
        std::swap(first, second);
        add_one(first);
    }
    EXPECT_EQ(a, (std::vector<int>{1, 1}));
    EXPECT_EQ(b, (std::vector<int>{6, 6}));
}

TEST_P(BufferTest, UseHostPtrIsUpToDateForHostAccessorsAndAtTheEnd) {
    std::vector<int> host{1, 2, 3};
    {
        sycl::buffer<int> buffer(host.data(), 3, {sycl::property::buffer::use_host_ptr()});
        add_one(buffer);
        if (!GetParam()) {
            EXPECT_EQ(host[0], 2) << "the CPU works in place";
        }
        sycl::host_accessor data(buffer);
        EXPECT_EQ(&data[0], host.data());
        EXPECT_EQ(data[0], 2);
        data[0] = 10;
    }
    EXPECT_EQ(host, (std::vector<int>{10, 3, 4}));
}

TEST_P(BufferTest, HostAndDeviceSeeEachOthersWrites) {
    sycl::buffer<int> buffer(4);
    for (auto& element : sycl::host_accessor(buffer, sycl::write_only, sycl::no_init))
        element = 1;
    add_one(buffer);
    for (auto& element : sycl::host_accessor(buffer))
        element *= 10;
    add_one(buffer);
    for (const int element : sycl::host_accessor(buffer, sycl::read_only))
        EXPECT_EQ(element, 21);
}

TEST_P(BufferTest, WritingWithoutNoInitKeepsWhatIsNotWritten) {
    std::vector<int> host{1, 2, 3};
    {
        sycl::buffer<int> buffer(host.data(), 3);
        queue_.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command, sycl::write_only);
            command.single_task([=] { data[1] = 9; });
        });
    }
    EXPECT_EQ(host, (std::vector<int>{1, 9, 3}));
}

TEST_P(BufferTest, IndicesAreRowMajor) {
    sycl::buffer<int, 2> grid(sycl::range<2>(2, 3));
    queue_.submit([&](sycl::handler& command) {
        sycl::accessor data(grid, command, sycl::write_only, sycl::no_init);
        command.parallel_for(grid.get_range(), [=](sycl::id<2> i) { data[i] = static_cast<int>(i[0] * 3 + i[1]); });
    });
    sycl::host_accessor rows(grid, sycl::read_only);
    EXPECT_EQ(rows[1][2], 5);
    int next = 0;
    for (const int element : rows)
        EXPECT_EQ(element, next++);
}

TEST(BufferTest, ASizeThatOverflowsIsRefused) {
    const std::size_t half = std::size_t{1} << 32;
    EXPECT_THROW((sycl::buffer<int, 2>(sycl::range<2>(half, half))), sycl::exception);
    EXPECT_THROW(sycl::buffer<int>(SIZE_MAX / 2), sycl::exception);
}

TEST(BufferTest, AConflictWithAHostAccessorOfTheSameThreadIsRefused) {
    sycl::queue queue;
    sycl::buffer<int> buffer(1);
    const auto read = [&] {
        queue.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command, sycl::read_only);
            command.single_task([=] { static_cast<void>(data); });
        });
    };
    {
        sycl::host_accessor data(buffer, sycl::read_only);
        EXPECT_NO_THROW(read()) << "two readers do not conflict";
    }
    {
        sycl::host_accessor data(buffer);
        EXPECT_THROW(read(), sycl::exception);
    }
    EXPECT_NO_THROW(read());
}

TEST(BufferTest, ACommandOfAnotherThreadWaitsForTheHostAccessor) {
    sycl::buffer<int> buffer(1);
    std::atomic<bool> released{false};
    std::thread other;
    {
        sycl::host_accessor data(buffer);
        data[0] = 1;
        other = std::thread([&] {
            sycl::queue queue;
            queue.submit([&](sycl::handler& command) {
                sycl::accessor cell(buffer, command);
                command.single_task([=, &released] {
                    EXPECT_TRUE(released);
                    cell[0] += 1;
                });
            });
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        data[0] = 41;
        released = true;
    }
    other.join();
    EXPECT_EQ(sycl::host_accessor(buffer)[0], 42);
}

} // namespace
