#include "device/call_frame.hpp"
#include "filters/median_filter.hpp"

namespace {

using namespace tarn;

/// The other exports' limit: a grid has at most 2^31 - 1 cells.
constexpr std::uint32_t largest_resolution = 46340u / median_filter::tile_side * median_filter::tile_side;

/// Whether the filter can run at all. There is no status and no callback to say so with.
bool is_runnable(const SyclQueue* queue, const float* data, const median_filter::Parameters* parameters) {
    return queue != nullptr && data != nullptr && parameters != nullptr && parameters->radius >= 1 &&
           parameters->iterations > 0u && parameters->resolution > 0u && parameters->resolution <= largest_resolution &&
           parameters->resolution % static_cast<std::uint32_t>(median_filter::tile_side) == 0u;
}

/// At its end hands errors that the device is late with to the queue's handler. They have no way out of the call, but
/// they must not become the next one's.
class LateErrors {
  public:
    explicit LateErrors(sycl::queue& queue) : queue_(queue) {}
    ~LateErrors() {
        try {
            queue_.wait_and_throw();
        } catch (...) {
            // Nobody listens.
        }
    }
    LateErrors(const LateErrors&) = delete;
    LateErrors& operator=(const LateErrors&) = delete;

  private:
    sycl::queue& queue_;
};

} // namespace

extern "C" TARN_API uint32_t MedianFilter(SyclQueue* handle, float* data, const median_filter_Parameters* parameters) {
    if (!is_runnable(handle, data, parameters))
        return status_ok;
    auto& queue = *reinterpret_cast<sycl::queue*>(handle);
    const LateErrors late_errors(queue);
    ModuleCallbacks silent;
    return call_frame(frames::median_filter, queue, silent, nullptr, 0, [&] {
        median_filter::filter<256>(queue, data, *parameters);
        return false;
    });
}
