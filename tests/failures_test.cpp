// One valid call of each export under planned faults, one fault at a time: it must give the right result or say that it
// did not, give back what it took, and leave nothing behind for the next call.
#include <atomic>
#include <cstdlib>
#include <new>

#include <gtest/gtest.h>

#include "random_calls.hpp"
#include "simulated_gpu.hpp"

namespace random_calls {

void PrintTo(const Export& each, std::ostream* stream) {
    *stream << each.name;
}

} // namespace random_calls

namespace {

using namespace random_calls;

/// Allocations of the host since the call began, and the one of them that fails; only counted inside of exports.
std::atomic<bool> inside_export = false;
std::atomic<unsigned> allocations = 0, failing_allocation = 0;

void* allocate(std::size_t bytes, std::size_t alignment) {
    if (inside_export && ++allocations == failing_allocation)
        throw std::bad_alloc();
    if (void* block = std::aligned_alloc(alignment, (bytes + alignment - 1) / alignment * alignment))
        return block;
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t bytes) {
    return allocate(bytes, alignof(std::max_align_t));
}
void* operator new(std::size_t bytes, std::align_val_t alignment) {
    return allocate(bytes, static_cast<std::size_t>(alignment));
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}

namespace {

struct Outcome {
    bool succeeded; ///< as far as the export can tell
    std::vector<std::uint64_t> results;
    std::vector<std::string> broken;
};

class Failures : public testing::TestWithParam<Export> {
  protected:
    Failures() {
        options.sides = {24, 40};
        options.valid_only = true;
        around_call = [](bool before) {
            if (before)
                allocations = 0;
            inside_export = before;
        };
        while (Call(number).one_of<Export>(exports).run != GetParam().run)
            ++number;
    }

    Outcome run_once(sycl::queue& queue) {
        host_queue = reinterpret_cast<SyclQueue*>(&queue);
        Call call(number);
        const Export& called = call.one_of<Export>(exports);
        std::uint32_t status;
        bool escaped;
        Outcome outcome{.succeeded = false, .results = {}, .broken = run(call, called, status, escaped)};
        outcome.succeeded = !escaped && status == status_ok && seen.errors == 0;
        if (escaped && !called.has_only_status_ok)
            outcome.broken.emplace_back("no exception leaves the call");
        for (const auto& array : call.arrays)
            if (array->use == Use::out)
                outcome.results.push_back(array->hash());
        return outcome;
    }

    /// Plans one fault after the other with `plan(n)`, n from 1 to `most`, of the later ones some only.
    template <class Plan>
    void fail_each(const char* fault, sycl::queue& queue, unsigned most, const Plan& plan) {
        SCOPED_TRACE(std::string(GetParam().name) + ", " + fault);
        const Outcome right = run_once(queue);
        ASSERT_TRUE(right.succeeded) << seen.last_error;
        for (unsigned n = 1; n <= most; n += 1 + n / 3) {
            plan(n);
            const Outcome failed = run_once(queue);
            plan(0);
            told += !failed.succeeded;
            ASSERT_EQ(failed.broken, std::vector<std::string>()) << "at " << n;
            ASSERT_TRUE(!failed.succeeded || failed.results == right.results) << "wrong, no word, at " << n;
            const Outcome next = run_once(queue);
            ASSERT_TRUE(next.succeeded && next.results == right.results) << "after " << n;
        }
    }

    std::uint64_t number = 0;
    unsigned told = 0; ///< faults that a call has told
};

std::string name_of(const testing::TestParamInfo<Export>& parameter) {
    return parameter.param.name;
}

INSTANTIATE_TEST_SUITE_P(Exports, Failures, testing::ValuesIn(exports), name_of);

TEST_P(Failures, AllocationsOfTheHost) {
    sycl::queue queue = tarn_test::library_queue(sycl::device(sycl::cpu_selector_v));
    run_once(queue);
    run_once(queue);
    fail_each("host allocation", queue, allocations, [](unsigned n) { failing_allocation = n; });
    EXPECT_TRUE(told > 0 || allocations == 0 || GetParam().run == devices);
}

TEST_P(Failures, FaultsOfTheDevice) {
    tarn_test::SimulatedGpu gpu;
    hostsycl::device_control& device = gpu.device;
    run_once(gpu.queue);
    const auto before = device.counters();
    run_once(gpu.queue);
    const auto after = device.counters();
    const auto kernels = static_cast<unsigned>(after.kernels_launched - before.kernels_launched);
    const auto on_device = static_cast<unsigned>(after.allocations - before.allocations);
    const auto plan = [&](auto fault) {
        return [&device, fault](unsigned n) {
            device.clear_faults();
            if (n > 0)
                fault(n);
        };
    };
    fail_each("device allocation", gpu.queue, on_device, plan([&](unsigned n) { device.fail_allocation(n); }));
    EXPECT_TRUE(told > 0 || on_device == 0 || GetParam().run == devices); // a scan passes such a device over
    fail_each("pinned allocation", gpu.queue, 4, plan([&](unsigned n) { device.fail_host_allocation(n); }));
    fail_each("submission", gpu.queue, kernels + 8, plan([&](unsigned n) { device.throw_on_submit(n, "planned"); }));
    EXPECT_EQ(device.counters().live_allocations, before.live_allocations);
}

} // namespace
