#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include <tarn/oneapi.h>

/// The tool as a host of the library: the callbacks, and a queue on one device. Callbacks of the library carry no
/// pointer to their host, so there is one Host at a time.
class Host {
  public:
    /// Makes a queue on the device with this identity string, or "cpu". Throws ToolError (no_device).
    explicit Host(const std::string& device);
    ~Host();
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;

    SyclQueue* queue() const { return queue_; }

    /// Runs one computation of the library, with `label` before its progress bar. Returns if it is finished, throws
    /// ToolError with its status otherwise: also after Ctrl-C, whether the computation stops for it or not. Of work in
    /// several runs, each is a part of the bar.
    using Computation = std::function<std::uint32_t(SyclQueue* queue, const HostCallbacks* callbacks)>;
    struct Part {
        double begin = 0, end = 1;
    };
    void run(const std::string& label, const Computation& computation, Part part);
    void run(const std::string& label, const Computation& computation) { run(label, computation, {}); }

  private:
    SyclQueue* queue_;
};

/// What the runs since the last call took: seconds, and the most memory that one of them told of, in bytes.
struct RunCost {
    double seconds = 0;
    std::size_t bytes = 0;
};
RunCost take_run_cost();

/// A device as the library lists it.
struct Device {
    std::string identity; ///< what CreateSyclQueue and --device take
    std::string kind;
    std::string backend;
    std::string vendor;
    std::string name;
    bool needs_driver_update;
    bool can_be_named; ///< false if one of the texts holds the separator of identity strings
};

/// Lists the devices. The library reports on the scan through the callbacks that the first Host hands over.
std::vector<Device> list_devices();
