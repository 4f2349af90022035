// Who owns the data of a buffer, and when they go where.
#include <atomic>
#include <chrono>
#include <iterator>
#include <list>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <hostsycl/simulation.hpp>
#include <sycl/sycl.hpp>

namespace {

using device_kind = hostsycl::device_kind;

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

TEST_P(BufferTest, SetFinalDataToNullAndSetWriteBackKeepTheHostAsItIs) {
    std::vector<int> host{1, 2, 3};
    {
        sycl::buffer<int> buffer(host.data(), 3);
        add_one(buffer);
        buffer.set_final_data(nullptr);
    }
    {
        sycl::buffer<int> buffer(host.data(), 3);
        add_one(buffer);
        buffer.set_write_back(false);
    }
    EXPECT_EQ(host, (std::vector<int>{1, 2, 3}));
}

TEST_P(BufferTest, SetFinalDataRedirects) {
    std::vector<int> host{1, 2, 3};
    std::vector<int> pointer_target(3);
    std::list<int> iterator_target;
    auto weak_target = std::make_shared<int>(0);
    {
        sycl::buffer<int> buffer(host.data(), 3);
        add_one(buffer);
        buffer.set_final_data(pointer_target.data());
    }
    {
        sycl::buffer<int> buffer(host.begin(), host.end());
        add_one(buffer);
        buffer.set_final_data(std::back_inserter(iterator_target));
    }
    {
        sycl::buffer<int> buffer(1);
        queue_.submit([&](sycl::handler& command) {
            sycl::accessor data(buffer, command, sycl::write_only, sycl::no_init);
            command.single_task([=] { data[0] = 7; });
        });
        buffer.set_final_data(std::weak_ptr<int>(weak_target));
        sycl::buffer<int> expired(host.data(), 3);
        expired.set_final_data(std::weak_ptr<int>(std::make_shared<int>(0)));
        add_one(expired);
    }
    EXPECT_EQ(host, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(pointer_target, (std::vector<int>{2, 3, 4}));
    EXPECT_EQ(iterator_target, (std::list<int>{2, 3, 4}));
    EXPECT_EQ(*weak_target, 7);
}

TEST_P(BufferTest, SharedPointersGetTheirDataBackAndMayBeReleasedEarly) {
    std::shared_ptr<int[]> host(new int[2]{1, 2});
    {
        sycl::buffer<int> buffer(host, sycl::range<1>(2));
        add_one(buffer);
    }
    EXPECT_EQ(host[0], 2);
    EXPECT_EQ(host[1], 3);
    sycl::buffer<int> buffer(std::make_shared<int>(5), sycl::range<1>(1));
    add_one(buffer);
    EXPECT_EQ(sycl::host_accessor(buffer, sycl::read_only)[0], 6);
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
        EXPECT_TRUE(buffer.has_property<sycl::property::buffer::use_host_ptr>());
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
    for (const int element : buffer.get_host_access(sycl::read_only))
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

TEST_P(BufferTest, IndicesOfTwoAndThreeDimensionsAreRowMajor) {
    sycl::buffer<int, 2> grid(sycl::range<2>(2, 3));
    sycl::buffer<int, 3> block(sycl::range<3>(2, 3, 4));
    queue_.submit([&](sycl::handler& command) {
        sycl::accessor data(grid, command, sycl::write_only, sycl::no_init);
        command.parallel_for(grid.get_range(), [=](sycl::id<2> i) { data[i] = static_cast<int>(i[0] * 10 + i[1]); });
    });
    queue_.submit([&](sycl::handler& command) {
        sycl::accessor data(block, command, sycl::write_only, sycl::no_init);
        command.parallel_for(block.get_range(),
                             [=](sycl::item<3> i) { data[i[0]][i[1]][i[2]] = static_cast<int>(i.get_linear_id()); });
    });
    sycl::host_accessor rows(grid, sycl::read_only);
    EXPECT_EQ(rows[1][2], 12);
    EXPECT_EQ(*(rows.get_pointer() + 5), 12);
    sycl::host_accessor planes(block, sycl::read_only);
    EXPECT_EQ(planes[sycl::id<3>(1, 2, 3)], 23);
    int next = 0;
    for (const int element : planes)
        EXPECT_EQ(element, next++);
}

TEST_P(BufferTest, PartsOfABuffer) {
    std::vector<int> host(10, 0);
    {
        sycl::buffer<int> whole(host.data(), 10);
        sycl::buffer<int> part(whole, sycl::id<1>(4), sycl::range<1>(3));
        EXPECT_TRUE(part.is_sub_buffer());
        add_one(part);
        queue_.submit([&](sycl::handler& command) {
            sycl::accessor data(whole, command, sycl::range<1>(2), sycl::id<1>(8), sycl::write_only);
            EXPECT_EQ(data.get_offset()[0], 8u);
            command.fill(data, 5);
        });
        auto bytes = whole.reinterpret<unsigned char, 1>(sycl::range<1>(40));
        EXPECT_EQ(bytes.get_host_access()[16], 1);
    }
    EXPECT_EQ(host, (std::vector<int>{0, 0, 0, 0, 1, 1, 1, 0, 5, 5}));
    sycl::buffer<int, 2> grid(sycl::range<2>(4, 4));
    EXPECT_THROW((sycl::buffer<int, 2>(grid, sycl::id<2>(0, 0), sycl::range<2>(2, 2))), sycl::exception);
    EXPECT_NO_THROW((sycl::buffer<int, 2>(grid, sycl::id<2>(1, 0), sycl::range<2>(2, 4))));
}

TEST_P(BufferTest, HandlerCopiesBetweenAccessorsAndMemory) {
    std::vector<int> host{1, 2, 3, 4};
    std::vector<int> out(4);
    sycl::buffer<int> a(host.data(), 4);
    sycl::buffer<int> b(4);
    queue_.submit([&](sycl::handler& command) {
        sycl::accessor from(a, command, sycl::read_only);
        sycl::accessor to(b, command, sycl::write_only, sycl::no_init);
        command.copy(from, to);
    });
    add_one(b);
    queue_.submit(
        [&](sycl::handler& command) { command.copy(sycl::accessor(b, command, sycl::read_only), out.data()); });
    EXPECT_EQ(out, (std::vector<int>{2, 3, 4, 5}));
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

TEST(BufferTest, CustomAllocatorsMakeTheMemory) {
    using allocator = sycl::detail::aligned_allocator<float>;
    sycl::buffer<float, 2, allocator> buffer(sycl::range<2>(3, 5));
    sycl::host_accessor data(buffer, sycl::write_only);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(data.get_pointer()) % 64, 0u);
    EXPECT_EQ(buffer.byte_size(), 60u);
}

} // namespace
