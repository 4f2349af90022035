#include "commands.hpp"

#include <cstdio>

#include "command.hpp"
#include "host.hpp"
#include "message.hpp"

namespace {

void run_devices() {
    const Host host("cpu"); // hands the callbacks over, which the scan reports through
    const std::vector<Device> devices = list_devices();
    if (devices.empty()) {
        print_note("no device was found");
        return;
    }
    for (const Device& device : devices) {
        std::printf("%s\n    %s, %s, by %s", device.name.c_str(), device.kind.c_str(), device.backend.c_str(),
                    device.vendor.c_str());
        if (device.needs_driver_update)
            std::printf("; its driver is too old: update it to use the device");
        else if (!device.can_be_named)
            std::printf("; cannot be used: '/' in its name");
        std::printf("\n    --device '%s'\n", device.identity.c_str());
    }
}

} // namespace

void add_devices_command(CLI::App& app) {
    Command command(app, "devices", "List the compute devices and their identity strings", {"GetDevices"});
    command.example("tarn devices", "Each with the option that picks it");
    command.example("tarn shape land.tif shaped.tif --device cpu", "Run on one of them");
    command.runs([](Outputs&) { run_devices(); });
}
