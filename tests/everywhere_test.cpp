// Every export gives the same results wherever it runs: on one thread and on
// many, in the caller's memory and on a GPU with its own. And it meets every
// fault of a device with a status, a line and its memory given back.
#include <algorithm>

#include "calls.hpp"
#include "simulated_gpu.hpp"

namespace {

using namespace tarn_test;

/// The record of what a call told the host, checked for what holds for all
/// calls.
void expect_orderly(const Call& call, const RecordingHost& host) {
    EXPECT_EQ(host.released, host.acquired);
    EXPECT_EQ(host.acquired.size(),
              call.reports != Call::Reports::nothing && call.has_frame ? 1u : host.acquired.size());
    if (call.reports != Call::Reports::progress) {
        EXPECT_EQ(host.progress,
                  call.reports == Call::Reports::start ? std::vector<double>{0.0} : std::vector<double>{});
        EXPECT_EQ(host.cancel_questions, 0);
    }
}

/// Makes the call, which has to end well.
Call finished(Call call, sycl::queue& queue) {
    RecordingHost host;
    EXPECT_EQ(call.run(queue, host), ok) << call.name;
    EXPECT_EQ(host.errors, std::vector<std::string>{}) << call.name;
    expect_orderly(call, host);
    return call;
}

/// Compares to the bit all arrays but those that one of the rules in `looser` is told of. Of these, sums that are near
/// stay near; where a last bit decides on the way of a grain, only what is there in all is kept.
void expect_same(const Call& actual, const Call& expected, unsigned looser, const std::string& where) {
    EXPECT_EQ(actual.record, expected.record) << where;
    for (std::size_t k = 0; k < actual.arrays.size(); ++k) {
        const Array &a = actual.arrays[k], &e = expected.arrays[k];
        const unsigned rule = a.rules & looser;
        if (rule == 0) {
            EXPECT_TRUE(same_bits(a.values, e.values)) << where << ": " << a.name;
        } else if ((rule & Array::unordered) != 0) {
            const double total = sum(e.values);
            EXPECT_NEAR(sum(a.values), total, 1e-3 * (1.0 + std::abs(total))) << where << ": " << a.name;
        }
        for (std::size_t i = 0; (rule & Array::summed) != 0 && i < a.values.size(); ++i)
            ASSERT_NEAR(a.values[i], e.values[i], 1e-2f) << where << ": " << a.name;
    }
}

/// Allocations that fail, and launches in the middle and at the end of the run.
void expect_faults_are_met(const Call& call, const std::string& what) {
    SimulatedGpu gpu;
    RecordingHost host;
    tarn::device_callbacks.set(host.callbacks());
    Call first = call;
    EXPECT_EQ(first.run(gpu.queue, host), ok);
    const auto before = gpu.device.counters();
    const auto expect_status = [&](std::uint32_t status, const std::string& line, const std::string& fault) {
        host.errors.clear();
        Call faulty = call;
        if (call.has_frame) {
            EXPECT_EQ(faulty.run(gpu.queue, host), status) << what << ", " << fault;
            const bool logs = call.reports != Call::Reports::nothing || host.errors.size() == 1;
            EXPECT_TRUE(!logs || (!host.errors.empty() && host.errors[0].starts_with(line))) << what << ", " << fault;
        } else {
            EXPECT_THROW(faulty.run(gpu.queue, host), sycl::exception) << what << ", " << fault;
        }
        gpu.device.clear_faults();
        EXPECT_EQ(host.released, host.acquired) << what << ", " << fault;
        EXPECT_EQ(gpu.device.counters().live_allocations, 0u) << what << ", " << fault;
    };
    // The first allocation of a frame is its trial.
    const auto allocations = static_cast<unsigned>(before.allocations), trial = call.has_frame ? 1u : 0u;
    for (unsigned n = trial + 1; n <= allocations; n += std::max(1u, (allocations - trial) / 12)) {
        gpu.device.fail_allocation(n);
        expect_status(out_of_memory, "Memory allocation error on device Discrete GPU (Level Zero): ",
                      "allocation " + std::to_string(n));
    }
    const auto kernels = static_cast<unsigned>(before.kernels_launched);
    for (const unsigned n : {kernels * 3 / 4, kernels}) {
        gpu.device.throw_on_submit(n, "queue is full");
        expect_status(failed, "Runtime error on device Discrete GPU (Level Zero): queue is full",
                      "launch " + std::to_string(n));
    }
    if (call.has_frame && call.notices_late_errors) {
        // The first report of errors after the trial is taken for the trial's own.
        gpu.device.raise_asynchronous_error(1, "lost a page");
        gpu.device.raise_asynchronous_error(kernels, "lost a page");
        expect_status(failed, "Caught asynchronous SYCL exception: lost a page", "late errors");
    }
    // Nothing is left of all that.
    Call last = call;
    EXPECT_EQ(last.run(gpu.queue, host), ok);
    expect_same(last, first, Array::unordered | Array::summed | Array::racing, what + " after faults");
    tarn::device_callbacks.set(HostCallbacks{});
}

void expect_need_is_probed(Call call) {
    if (call.need == 0)
        return;
    constexpr std::size_t reserve = std::size_t{256} << 20;
    SimulatedGpu enough(discrete_gpu(reserve + call.need)), small(discrete_gpu(reserve + call.need - 1));
    RecordingHost host;
    EXPECT_EQ(Call(call).run(small.queue, host), out_of_memory) << call.name;
    EXPECT_TRUE(host.progress.empty() && host.errors.empty() && host.acquired.empty()) << call.name;
    EXPECT_EQ(call.run(enough.queue, host), ok) << call.name;
}

/// One thread of the CPU is what all others are held against.
void expect_same_everywhere(const Call& call, const std::string& what,
                            const std::vector<std::size_t>& sub_group_sizes = {16, 32}) {
    sycl::queue cpu = cpu_queue();
    Call expected = call;
    {
        const Threads one(1);
        expected = finished(call, cpu);
        hostsycl::simulated_device description = discrete_gpu();
        description.sub_group_sizes = sub_group_sizes;
        SimulatedGpu gpu(description);
        expect_same(finished(call, gpu.queue), expected, Array::cpu_alone | Array::summed, what + " on a GPU");
        EXPECT_EQ(gpu.device.counters().live_allocations, 0u) << what;
    }
    expect_same(finished(call, cpu), expected, Array::unordered | Array::summed | Array::racing,
                what + " on all threads");
}

TEST(Everywhere, AllForms) {
    for (const auto& [run, call] : golden_runs())
        expect_same_everywhere(call, run);
}

TEST(Everywhere, SubGroupsOfAnySizeDrawTheSame) {
    for (const CallFactory factory : {render_mesh_call, displacement_call, normals_call, point_cloud_call})
        for (const std::vector<std::size_t>& sizes : {std::vector<std::size_t>{1}, {7}, {4, 8}, {64}})
            expect_same_everywhere(factory(90, 70), factory(90, 70).name, sizes);
}

TEST(Everywhere, DiscsOfAnyRadius) {
    for (int radius = 1; radius <= 8; ++radius) {
        Call call = median_filter_call(96, 96);
        call.parameters<median_filter_Parameters>().radius = radius;
        expect_same_everywhere(call, "radius " + std::to_string(radius));
    }
}

/// Single cells, rows and columns, sizes that no halving divides evenly, and
/// those around the pieces of launches.
TEST(Everywhere, GridsOfAnyShape) {
    for (const CallFactory factory : factories_for_any_shape)
        for (const auto& [width, height] :
             {std::pair{1, 1}, {1, 30}, {30, 1}, {2, 9}, {5, 5}, {33, 18}, {101, 67}, {513, 40}})
            // Fewer points lie on one line; the sunlight is traced at half the size.
            if ((factory != point_cloud_call || width * height > 80) &&
                (factory != sun_light_call || std::min(width, height) > 1))
                expect_same_everywhere(factory(width, height), factory(1, 1).name + (" of " + std::to_string(width)) +
                                                                   " x " + std::to_string(height));
}

TEST(Everywhere, FaultsOfTheDeviceAreMet) {
    for (const CallFactory factory : call_factories) {
        const Call call = factory(64, 64);
        expect_faults_are_met(call, call.name);
        expect_need_is_probed(call);
    }
}

} // namespace
