#include "host.hpp"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <utility>

#include "interrupt.hpp"
#include "message.hpp"

namespace {

struct Kind {
    const char* token;
    const char* text;
};
constexpr Kind kinds[] = {{"other", "other"},
                          {TARN_KIND_TOKEN_NATIVE_CPU, "native CPU"},
                          {TARN_KIND_TOKEN_CPU, "CPU"},
                          {TARN_KIND_TOKEN_INTEGRATED_GPU, "integrated GPU"},
                          {TARN_KIND_TOKEN_DISCRETE_GPU, "discrete GPU"},
                          {TARN_KIND_TOKEN_ACCELERATOR, "accelerator"}};

/// What the callbacks work on.
struct Session {
    std::string label;
    Host::Part part;
    std::vector<std::string> errors;
    bool has_host = false;
    RunCost cost;
};
Session session;

std::string mebibytes(std::size_t bytes) {
    return format_text("%.1f MiB", static_cast<double>(bytes) / 0x1p20);
}

constexpr HostCallbacks make_callbacks() {
    HostCallbacks callbacks{};
    callbacks.progress = [](double percent) {
        draw_progress(session.label, 100 * session.part.begin + percent * (session.part.end - session.part.begin));
    };
    callbacks.is_cancelled = [] {
        return is_interrupted();
    };
    callbacks.log_info = [](const char* text) {
        print_detail(text);
    };
    callbacks.log_error = [](const char* text) {
        session.errors.emplace_back(text);
    };
    callbacks.acquire_memory = [](std::size_t bytes) {
        session.cost.bytes = std::max(session.cost.bytes, bytes);
        print_detail("the run takes " + mebibytes(bytes));
    };
    callbacks.release_memory = [](std::size_t bytes) {
        print_detail("released " + mebibytes(bytes));
    };
    return callbacks;
}
constexpr HostCallbacks host_callbacks = make_callbacks();

/// The lines that the library has logged as errors since the last call, as one.
std::string take_errors() {
    std::string line;
    for (const std::string& error : session.errors)
        line += (line.empty() ? "" : "; ") + error;
    session.errors.clear();
    return line;
}

std::string why_no_queue(const std::string& device) {
    for (const Device& listed : list_devices())
        if (listed.identity == device)
            return listed.needs_driver_update ? "the driver of '" + device + "' must be updated"
                                              : "no queue can be made on '" + device + "'";
    return "no device '" + device + "'; `tarn devices` lists them";
}

} // namespace

Host::Host(const std::string& device) : queue_(CreateSyclQueue(device.c_str(), &host_callbacks)) {
    assert(!session.has_host);
    if (queue_ == nullptr)
        throw ToolError(ExitCode::no_device, why_no_queue(device));
    session.has_host = true;
}

Host::~Host() {
    DestroySyclQueue(queue_);
    session.has_host = false;
}

void Host::run(const std::string& label, const Computation& computation, Part part) {
    const InterruptGuard guard(InterruptGuard::Second::ends_program);
    session.label = label;
    session.part = part;
    draw_progress(label, 100 * part.begin);
    const auto start = std::chrono::steady_clock::now();
    const std::uint32_t status = computation(queue_, &host_callbacks);
    session.cost.seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    clear_progress();

    std::string errors = take_errors();
    if (status == status_ok && !is_interrupted()) {
        if (!errors.empty())
            print_note(errors);
        return;
    }
    if (status == status_ok || status == status_cancelled)
        throw ToolError(ExitCode::cancelled, label + ": cancelled, nothing is written");
    if (status == status_out_of_memory)
        throw ToolError(ExitCode::out_of_memory,
                        label + ": " + (errors.empty() ? "not enough memory on the device" : errors));
    throw ToolError(ExitCode::failed,
                    label + ": " + (errors.empty() ? format_text("failed with status %u", status) : errors));
}

RunCost take_run_cost() {
    return std::exchange(session.cost, {});
}

std::vector<Device> list_devices() {
    DeviceInfo* records = nullptr;
    std::int32_t count = 0;
    GetDevices(&records, &count);
    std::vector<Device> devices;
    for (std::int32_t i = 0; i < count; ++i) {
        const DeviceInfo& record = records[i];
        const std::size_t kind =
            record.kind > 0 && record.kind < std::ssize(kinds) ? static_cast<std::size_t>(record.kind) : 0;
        Device device;
        device.kind = kinds[kind].text;
        device.backend = record.backend;
        device.vendor = record.vendor;
        device.name = record.name;
        device.needs_driver_update = record.needs_driver_update != 0;
        device.identity = kinds[kind].token;
        device.can_be_named = true;
        for (const std::string& field : {device.backend, device.vendor, device.name, std::string(record.vendor_id)}) {
            device.identity += "/" + field;
            device.can_be_named &= field.find('/') == std::string::npos;
        }
        devices.push_back(std::move(device));
    }
    FreeDevices(records);
    return devices;
}
