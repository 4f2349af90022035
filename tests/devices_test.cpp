#include "device/devices.hpp"

#include <cstdio>
#include <iostream>
#include <unistd.h>

#include "device/callbacks.hpp"
#include "simulated_gpu.hpp"
#include "support.hpp"

namespace {

using namespace tarn;
using namespace tarn_test;

class Devices : public ::testing::Test {
  protected:
    void SetUp() override {
        cerr_buffer = std::cerr.rdbuf();
        const HostCallbacks record = host.callbacks();
        DestroySyclQueue(CreateSyclQueue("cpu", &record));
    }

    void TearDown() override {
        std::cerr.rdbuf(cerr_buffer);
        device_callbacks.set(HostCallbacks{});
    }

    struct Listed {
        std::string name, backend;
        int kind;
        bool needs_driver_update;
        bool operator==(const Listed&) const = default;
    };

    /// What GetDevices lists after the machine's own CPU.
    std::vector<Listed> scan() {
        DeviceInfo* devices = nullptr;
        std::int32_t count = -1;
        GetDevices(&devices, &count);
        std::vector<Listed> result;
        for (std::int32_t i = 1; i < count; ++i)
            result.push_back(
                {devices[i].name, devices[i].backend, devices[i].kind, devices[i].needs_driver_update != 0});
        FreeDevices(devices);
        return result;
    }

    SyclQueue* open(const std::string& id) {
        const HostCallbacks record = host.callbacks();
        return CreateSyclQueue(id.c_str(), &record);
    }

    RecordingHost host;
    std::streambuf* cerr_buffer = nullptr;
};

hostsycl::simulated_device named(hostsycl::simulated_device description, const char* name) {
    description.name = name;
    return description;
}

hostsycl::simulated_device old_intel(const char* driver) {
    hostsycl::simulated_device description = named(integrated_gpu(), driver);
    description.backend = sycl::backend::opencl;
    description.vendor = "Intel(R) Corporation";
    description.driver_version = driver;
    return description;
}

TEST_F(Devices, ScanListsUsableDevicesInOrderAndLogsItself) {
    hostsycl::simulated_device accelerator = named(discrete_gpu(), "Board");
    accelerator.kind = hostsycl::device_kind::accelerator;
    accelerator.backend = sycl::backend::opencl;
    hostsycl::simulated_device native = named(discrete_gpu(), "Second CPU");
    native.kind = hostsycl::device_kind::cpu;
    native.backend = sycl::backend::ext_oneapi_native_cpu;
    const hostsycl::simulated_device_guard a(discrete_gpu()), b(integrated_gpu()), c(accelerator), d(native);
    EXPECT_EQ(scan(), (std::vector<Listed>{{"Discrete GPU", "Level Zero", 4, false},
                                           {"Integrated GPU", "Level Zero", 3, false},
                                           {"Board", "OpenCL", 5, false},
                                           {"Second CPU", "Native", 2, false}}));
    EXPECT_EQ(host.infos, (std::vector<std::string>{"Device scan started (oneAPI)", "Device scan finished"}));
    for (const auto* guard : {&a, &b, &c, &d})
        EXPECT_EQ(guard->counters().kernels_launched, 1u);
}

TEST_F(Devices, UnusableDevicesAndTheirTwinsAreLeftOut) {
    constexpr std::size_t gibibyte = std::size_t{1} << 30;
    hostsycl::simulated_device busy = named(discrete_gpu(), "Busy"), no_usm = named(discrete_gpu(), "No USM"),
                               no_kernels = named(discrete_gpu(), "No kernels"),
                               broken_info = named(discrete_gpu(), "Broken info");
    busy.available = false;
    no_usm.aspects_removed = {sycl::aspect::usm_device_allocations};
    no_kernels.exec_kernel = false;
    hostsycl::simulated_device no_kernels_opencl = named(no_kernels, "No OpenCL kernels");
    no_kernels_opencl.backend = sycl::backend::opencl;

    const hostsycl::simulated_device_guard small(named(discrete_gpu(gibibyte / 2), "Small")),
        twin(named(discrete_gpu(8 * gibibyte), "Small")), // same name and vendor: not tried again
        just(named(discrete_gpu(gibibyte), "Just enough")), under(named(discrete_gpu(gibibyte - 1), "Just too small")),
        b(busy), u(no_usm), k(no_kernels), o(no_kernels_opencl);
    hostsycl::simulated_device_guard i(broken_info);
    i.fail_info_queries(true);
    EXPECT_EQ(scan(),
              (std::vector<Listed>{{"Just enough", "Level Zero", 4, false}, {"No kernels", "Level Zero", 4, false}}));
    EXPECT_EQ(twin.counters().kernels_launched, 0u);
}

TEST_F(Devices, TestKernelGetsASecondChance) {
    hostsycl::simulated_device_guard once(named(discrete_gpu(), "Once")), twice(named(discrete_gpu(), "Twice")),
        silent(named(discrete_gpu(), "Silent"));
    once.throw_on_submit(1, "driver asleep");
    twice.throw_on_submit(1, "driver dead");
    twice.throw_on_submit(2, "driver dead");
    silent.raise_asynchronous_error(1, "no sum"); // the handler swallows it, but the sum is wrong
    const std::vector<Listed> listed = scan();
    ASSERT_EQ(listed.size(), 1u);
    EXPECT_EQ(listed[0].name, "Once");
    EXPECT_TRUE(host.errors.empty());
}

TEST_F(Devices, OldIntegratedDriversAreListedAndRefusedAQueue) {
    const hostsycl::simulated_device_guard old(old_intel("31.0.101.4312")), older(old_intel("31.0.100.9999")),
        good(old_intel("31.0.101.4313")), newer(old_intel("31.0.102.1"));
    hostsycl::simulated_device elsewhere = named(old_intel("31.0.101.4312"), "Discrete");
    elsewhere.kind = hostsycl::device_kind::discrete_gpu;
    hostsycl::simulated_device level_zero = named(old_intel("31.0.101.4312"), "Level Zero");
    level_zero.backend = sycl::backend::ext_oneapi_level_zero;
    const hostsycl::simulated_device_guard discrete(elsewhere), zero(level_zero), odd(old_intel("unreadable.a.b.c"));
    EXPECT_EQ(scan(), (std::vector<Listed>{{"31.0.101.4312", "OpenCL", 3, true},
                                           {"31.0.100.9999", "OpenCL", 3, true},
                                           {"31.0.101.4313", "OpenCL", 3, false},
                                           {"31.0.102.1", "OpenCL", 3, false},
                                           {"Discrete", "OpenCL", 4, false},
                                           {"Level Zero", "Level Zero", 3, false}}));
    EXPECT_EQ(old.counters().kernels_launched, 0u);
    const std::string prefix = std::string(TARN_KIND_TOKEN_INTEGRATED_GPU) + "/OpenCL/Intel(R) Corporation/";
    EXPECT_EQ(open(prefix + "31.0.101.4312/20759"), nullptr);
    SyclQueue* const queue = open(prefix + "31.0.102.1/20759"); // the unreadable one before it is no obstacle
    EXPECT_NE(queue, nullptr);
    DestroySyclQueue(queue);
}

TEST_F(Devices, IdentityStringsMatchInEveryField) {
    const hostsycl::simulated_device_guard gpu(discrete_gpu());
    const std::string vendor = "/Level Zero/Simulated Devices/";
    SyclQueue* const queue = open("discrete-gpu" + vendor + "Discrete GPU/20759");
    ASSERT_NE(queue, nullptr);
    EXPECT_TRUE(reinterpret_cast<sycl::queue*>(queue)->is_in_order());

    DeviceInfo* const info = GetDeviceInfo(queue);
    ASSERT_NE(info, nullptr);
    EXPECT_STREQ(info->name, "Discrete GPU");
    EXPECT_STREQ(info->vendor, "Simulated Devices");
    EXPECT_STREQ(info->vendor_id, "20759");
    EXPECT_STREQ(info->reserved_text, "");
    EXPECT_EQ(info->kind, tarn_device_discrete_gpu);
    FreeDeviceInfo(info);
    DestroySyclQueue(queue);

    for (const std::string& wrong : std::initializer_list<std::string>{
             "integrated-gpu" + vendor + "Discrete GPU/20759", vendor.substr(1) + "Discrete GPU/20759",
             "discrete-gpu" + vendor + "Discrete GPU/20758", "discrete-gpu" + vendor + "Discrete GP/20759",
             "discrete-gpu/OpenCL/Simulated Devices/Discrete GPU/20759", "/" + vendor + "Discrete GPU/20759",
             "discrete-gpu", "////", ""})
        EXPECT_EQ(open(wrong), nullptr) << wrong;
    EXPECT_TRUE(host.errors.empty());
}

TEST_F(Devices, RejectedDevicesCanStillBeOpened) {
    const hostsycl::simulated_device_guard small(discrete_gpu(1 << 20));
    EXPECT_TRUE(scan().empty());
    SyclQueue* const queue = open("discrete-gpu/Level Zero/Simulated Devices/Discrete GPU/20759");
    EXPECT_NE(queue, nullptr);
    DestroySyclQueue(queue);
}

TEST_F(Devices, KindTokensOldAndNew) {
    EXPECT_EQ(token_hash(""), 5381u);
    EXPECT_EQ(token_hash("a"), 5381u * 33u + 97u);
    EXPECT_EQ(token_hash("\xFF"), 5381u * 33u - 1u); // characters are signed
    const char* const readable[] = {TARN_KIND_TOKEN_NATIVE_CPU, TARN_KIND_TOKEN_CPU, TARN_KIND_TOKEN_INTEGRATED_GPU,
                                    TARN_KIND_TOKEN_DISCRETE_GPU, TARN_KIND_TOKEN_ACCELERATOR};
    // Made to hash to the five values that were accepted first.
    const char* const constructed[] = {"agrrizuh", "aediigim", "arpfbzco", "bdtkqscw", "apwipqva"};
    for (int kind = 1; kind <= 5; ++kind) {
        EXPECT_EQ(kind_of_token(readable[kind - 1]), kind);
        EXPECT_EQ(kind_of_token(constructed[kind - 1]), kind);
    }
    EXPECT_EQ(kind_of_token(""), 0);
    EXPECT_EQ(kind_of_token("gpu"), 0);
}

TEST_F(Devices, NoDevicesAtAll) {
    const hostsycl::hidden_cpu_guard hidden;
    DeviceInfo* devices = nullptr;
    std::int32_t count = -1;
    GetDevices(&devices, &count);
    EXPECT_EQ(count, 0);
    EXPECT_NE(devices, nullptr);
    FreeDevices(devices);
    EXPECT_EQ(open("cpu"), nullptr);
}

TEST_F(Devices, NullArgumentsAreSafe) {
    GetDevices(nullptr, nullptr);
    EXPECT_EQ(GetDeviceInfo(nullptr), nullptr);
    EXPECT_EQ(host.errors.size(), 3u);
    FreeDevices(nullptr);
    FreeDeviceInfo(nullptr);
    DestroySyclQueue(nullptr);
    const HostCallbacks record = host.callbacks();
    EXPECT_EQ(CreateSyclQueue(nullptr, &record), nullptr);
    EXPECT_EQ(CreateSyclQueue("cpu", nullptr), nullptr);
}

TEST_F(Devices, OnlyTheErrorStreamsBufferIsSilenced) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int kept = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    std::cerr << "lost" << std::flush;
    std::fputs("seen", stderr);
    std::fflush(stderr);
    dup2(kept, STDERR_FILENO);
    close(kept);
    close(ends[1]);
    char text[16] = {};
    EXPECT_EQ(read(ends[0], text, sizeof(text) - 1), 4);
    EXPECT_STREQ(text, "seen");
    close(ends[0]);
}

} // namespace
