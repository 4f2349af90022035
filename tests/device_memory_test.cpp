#include <numeric>
#include <optional>

#include "device/usm_ptr.hpp"
#include "simulated_gpu.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

class DeviceMemory : public ::testing::Test {
  protected:
    DeviceMemory() { std::iota(cells.begin(), cells.end(), 1.0f); }

    void double_cells(sycl::queue& queue, float* data) {
        queue.parallel_for(sycl::range<1>(cells.size()), [=](sycl::id<1> i) { data[i] *= 2.0f; });
    }

    void double_cells(sycl::queue& queue, sycl::buffer<float, 2>& buffer) {
        queue.submit([&](sycl::handler& handler) {
            const sycl::accessor access(buffer, handler, sycl::read_write);
            handler.parallel_for(buffer.get_range(), [=](sycl::id<2> i) { access[i] *= 2.0f; });
        });
    }

    SimulatedGpu gpu;
    sycl::queue cpu = library_queue(sycl::device(sycl::cpu_selector_v));
    std::vector<float> cells = std::vector<float>(12);
    const sycl::range<2> shape{3, 4};
};

TEST_F(DeviceMemory, GpuGetsACopyAndWritesBackOnlyWhenAsked) {
    for (const bool write_back : {true, false}) {
        const std::vector<float> before = cells;
        {
            const usm_ptr<float, 2> grid(shape, gpu.queue, cells.data(), write_back, true);
            EXPECT_NE(grid.data(), cells.data());
            const usm_ptr<float, 2> same = grid; // copies share, and the last one writes back
            double_cells(gpu.queue, same.data());
            gpu.queue.wait();
            EXPECT_EQ(cells, before);
        }
        EXPECT_EQ(cells[11], write_back ? 24.0f : before[11]);
        EXPECT_EQ(cells[0], write_back ? 2.0f : before[0]);
    }
    EXPECT_EQ(gpu.device.counters().bytes_copied_to_device, 2 * 12 * sizeof(float));
    EXPECT_EQ(gpu.device.counters().bytes_copied_to_host, 12 * sizeof(float));
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(DeviceMemory, CpuWorksInPlaceUnlessToldNotTo) {
    {
        const usm_ptr<float, 2> grid(shape, cpu, cells.data(), false, true);
        EXPECT_EQ(grid.data(), cells.data());
        EXPECT_FALSE(grid.owned());
        double_cells(cpu, grid.data());
    }
    EXPECT_EQ(cells[11], 24.0f);
    for (const bool write_back : {false, true}) {
        const usm_ptr<float, 2> apart(shape, cpu, cells.data(), write_back, false);
        EXPECT_NE(apart.data(), cells.data());
        double_cells(cpu, apart.data());
        cpu.wait();
        EXPECT_EQ(cells[11], 24.0f);
    }
    EXPECT_EQ(cells[11], 48.0f);
}

TEST_F(DeviceMemory, AbsentAndEmptyGridsTakeNoMemory) {
    for (sycl::queue* queue : {&gpu.queue, &cpu})
        for (const bool wrap : {true, false})
            EXPECT_EQ((usm_ptr<float, 2>(shape, *queue, nullptr, true, wrap).data()), nullptr);
    EXPECT_EQ((usm_ptr<float, 2>(sycl::range<2>(0, 5), gpu.queue).data()), nullptr);
    EXPECT_EQ((usm_ptr<float, 2>(sycl::range<2>(0, 5), gpu.queue, cells.data(), true, true).data()), nullptr);
    EXPECT_EQ(gpu.device.counters().allocations, 0u);
}

TEST_F(DeviceMemory, ExtentsSwapTheAxesOfShapes) {
    const usm_ptr<float, 2> grid(Extent<2>(4, 3), gpu.queue);
    EXPECT_EQ(grid.shape(), shape);
    EXPECT_EQ(grid.extent().x(), 4u);
    EXPECT_EQ(grid.extent().y(), 3u);
}

TEST_F(DeviceMemory, FailedAllocationThrowsAndEndsTheTolerance) {
    gpu.device.fail_allocation(1);
    try {
        const usm_ptr<float, 2> grid(shape, gpu.queue);
        FAIL();
    } catch (const sycl::exception& error) {
        EXPECT_EQ(error.code(), sycl::make_error_code(sycl::errc::memory_allocation));
        EXPECT_STREQ(error.what(), "Failed to allocate memory on device");
    }
    EXPECT_FALSE(allocation_probe_active);
}

TEST_F(DeviceMemory, FailedUploadLeavesTheCallersDataAlone) {
    const std::vector<float> before = cells;
    sycl::queue throwing(gpu.device.get(),
                         [](const sycl::exception_list& errors) { std::rethrow_exception(*errors.begin()); });
    gpu.device.fail_copy(1, "bus error");
    EXPECT_THROW((usm_ptr<float, 2>(shape, throwing, cells.data(), true, true)), sycl::exception);
    EXPECT_EQ(cells, before);
    EXPECT_EQ(gpu.device.counters().live_allocations, 0u);
}

TEST_F(DeviceMemory, BuffersWriteBackOnlyWhenAsked) {
    for (sycl::queue* queue : {&gpu.queue, &cpu}) {
        const float before = cells[11];
        {
            auto buffer = create_buffer(cells.data(), shape, *queue, true);
            EXPECT_EQ(buffer.get_range(), shape);
            double_cells(*queue, buffer);
        }
        EXPECT_EQ(cells[11], 2.0f * before);
    }
    {
        auto buffer = create_buffer(cells.data(), shape, gpu.queue, false);
        double_cells(gpu.queue, buffer);
    }
    EXPECT_EQ(cells[11], 48.0f);
    auto placeholder = create_buffer<float>(nullptr, shape, gpu.queue, true);
    EXPECT_EQ(placeholder.get_range(), sycl::range<2>(1, 1));
    double_cells(gpu.queue, placeholder); // an accessor to an absent grid is fine
}

TEST_F(DeviceMemory, HostAccessorStagesOnGpusAndHandsOutTheDataOnCpus) {
    const usm_ptr<float, 2> grid(shape, gpu.queue, cells.data(), true, true);
    {
        const usm_host_accessor<float> view(grid, sycl::access::mode::read);
        EXPECT_EQ(view[5], 6.0f);
        view[5] = 60.0f; // read only: goes nowhere
    }
    {
        usm_host_accessor<float> view(grid, sycl::access::mode::read_write);
        EXPECT_EQ(view[5], 6.0f);
        for (std::size_t i = 0; i < view.size(); ++i)
            view[i] = 7.0f;
        view.hand_back();
    }
    EXPECT_EQ(usm_host_accessor<float>(grid, sycl::access::mode::read)[11], 7.0f);

    const usm_ptr<float, 2> wrapped(shape, cpu, cells.data(), true, true);
    EXPECT_EQ(usm_host_accessor<float>(wrapped, sycl::access::mode::read_write).data(), cells.data());
    const usm_ptr<float, 2> apart(shape, cpu, cells.data(), true, false);
    usm_host_accessor<float> view(apart, sycl::access::mode::read_write);
    view[0] = 9.0f;
    view.hand_back();
    EXPECT_EQ(apart.data()[0], 9.0f);
}

class PinnedPool : public DeviceMemory {
  protected:
    std::shared_ptr<HostPinnedMemoryPool> pool = HostPinnedMemoryPool::for_queue(gpu.queue);
    HostPinnedMemoryPool::Deleter give_back{pool};

    std::uint64_t pinned() const { return gpu.device.counters().live_host_allocations; }
};

TEST_F(PinnedPool, EleventhBlockIsPlainMemory) {
    std::vector<void*> blocks;
    for (int i = 0; i < 11; ++i)
        blocks.push_back(pool->rent(100));
    EXPECT_EQ(pinned(), 10u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks[10]) % 64, 0u);
    for (void* block : blocks)
        give_back(block); // the plain one is freed, which AddressSanitizer checks
    EXPECT_EQ(pinned(), 10u);
    EXPECT_EQ(pool->rent(1), blocks[0]);
    release_pinned_pools(gpu.queue);
}

TEST_F(PinnedPool, SmallestBlockThatFitsIsReused) {
    void* const large = pool->rent(1000);
    void* const medium = pool->rent(500);
    void* const medium_too = pool->rent(500);
    void* const small = pool->rent(10);
    for (void* block : {large, medium, medium_too, small})
        give_back(block);
    EXPECT_EQ(pool->rent(400), medium); // of two alike, the first
    EXPECT_EQ(pool->rent(400), medium_too);
    EXPECT_EQ(pool->rent(400), large);
    EXPECT_EQ(pinned(), 4u);
    void* const fresh = pool->rent(11);
    EXPECT_EQ(pinned(), 5u);
    give_back(fresh);
}

TEST_F(PinnedPool, FallsBackWhenTheDriverRefuses) {
    gpu.device.fail_host_allocation(1);
    void* const block = pool->rent(100);
    EXPECT_NE(block, nullptr);
    EXPECT_EQ(pinned(), 0u);
    give_back(block);

    hostsycl::simulated_device without = discrete_gpu();
    without.aspects_removed = {sycl::aspect::usm_host_allocations};
    SimulatedGpu poor(without);
    const auto plain = HostPinnedMemoryPool::for_queue(poor.queue);
    HostPinnedMemoryPool::Deleter{plain}(plain->rent(100));
    EXPECT_EQ(poor.device.counters().live_host_allocations, 0u);
    release_pinned_pools(poor.queue);
}

TEST_F(PinnedPool, OnePoolAContextAndItOutlivesWhatItLent) {
    sycl::queue second(gpu.queue.get_context(), gpu.device.get());
    EXPECT_EQ(HostPinnedMemoryPool::for_queue(second), pool);
    SimulatedGpu other;
    const auto others = HostPinnedMemoryPool::for_queue(other.queue);
    EXPECT_NE(others, pool);

    std::optional<HostPinnedMemoryPool::Deleter> last(pool);
    void* const block = pool->rent(100);
    release_pinned_pools(second);
    EXPECT_NE(HostPinnedMemoryPool::for_queue(gpu.queue), pool);
    EXPECT_EQ(HostPinnedMemoryPool::for_queue(other.queue), others);
    give_back = HostPinnedMemoryPool::Deleter(others);
    pool.reset();
    EXPECT_EQ(pinned(), 1u);
    (*last)(block);
    last.reset();
    EXPECT_EQ(pinned(), 0u);
    release_pinned_pools(gpu.queue);
    release_pinned_pools(other.queue);
}

} // namespace
