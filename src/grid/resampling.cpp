#include "grid/resampling.hpp"

#include <algorithm>

#include "grid/access.hpp"
#include "grid/launch_cells.hpp"
#include "grid/upsample.hpp"

namespace tarn::resampling {

namespace {

/// The operations as kernels, written once for both holders: `destination` and `source` are pointers or accessors.
template <class Target, class Destination, class Source>
void launch_downsample_magic(LaunchTarget<Target> on, Destination destination, const Extent<2>& extent, Source source,
                             const Extent<2>& source_extent) {
    const sycl::vec<int, 2> source_size(static_cast<int>(source_extent.x()), static_cast<int>(source_extent.y()));
    const std::ptrdiff_t width = extent.x();
    launch_cells(on, extent, 1, [=](int x, int y, auto interior) {
        cells_of(destination)[y * width + x] =
            downsample_value_magic<interior.value>(cells_of(source), sycl::vec<int, 2>(x, y), source_size);
    });
}

template <class Target, class Destination, class Source>
void launch_upsample_magic(LaunchTarget<Target> on, Destination destination, const Extent<2>& extent, Source source,
                           const Extent<2>& source_extent) {
    launch_upsampled(on, extent, source, source_extent,
                     [=](std::ptrdiff_t row, int x, float value) { cells_of(destination)[row + x] = value; });
}

template <class Target, class Destination, class Source>
void launch_sharpen_magic(LaunchTarget<Target> on, Destination destination, const Extent<2>& extent, Source source,
                          const Extent<2>&) {
    const int width = static_cast<int>(extent.x());
    const int height = static_cast<int>(extent.y());
    launch_cells(on, extent, 1, [=](int x, int y, auto interior) {
        const int xl = interior ? x - 1 : maximum(x - 1, 0);
        const int xr = interior ? x + 1 : minimum(x + 1, width - 1);
        const auto row = [=](int index) {
            return cells_of(source) + static_cast<std::ptrdiff_t>(index) * width;
        };
        const float* up = row(maximum(y - 1, 0));
        const float* middle = row(y);
        const float* down = row(minimum(y + 1, height - 1));
        const float corners = up[xl] + up[xr] + down[xl] + down[xr];
        const float sides = up[x] + middle[xl] + middle[xr] + down[x];
        cells_of(destination)[static_cast<std::ptrdiff_t>(y) * width + x] =
            corners * 0.0625f - sides * 0.375f + middle[x] * 2.25f;
    });
}

template <class Target, class Destination, class Source>
void launch_downsample_box(LaunchTarget<Target> on, Destination destination, const Extent<2>& extent, Source source,
                           const Extent<2>& source_extent) {
    const std::ptrdiff_t width = extent.x();
    const std::ptrdiff_t source_width = source_extent.x();
    launch_cells(on, extent, 0, [=](int x, int y, auto) {
        const float* upper = cells_of(source) + 2 * y * source_width;
        const float* lower = upper + source_width;
        cells_of(destination)[y * width + x] =
            (upper[2 * x] + upper[2 * x + 1] + lower[2 * x] + lower[2 * x + 1]) * 0.25f;
    });
}

template <class Target, class Destination, class Source>
void launch_upsample_box(LaunchTarget<Target> on, Destination destination, const Extent<2>& extent, Source source,
                         const Extent<2>& source_extent) {
    const std::ptrdiff_t width = extent.x();
    const std::ptrdiff_t source_width = source_extent.x();
    launch_cells(on, extent, 0, [=](int x, int y, auto) {
        cells_of(destination)[y * width + x] = cells_of(source)[(y / 2) * source_width + x / 2];
    });
}

Extent<2> extent_of(Buffer& buffer) {
    return Extent<2>(buffer.get_range());
}

sycl::range<2> half(const sycl::range<2>& shape) {
    return {shape[0] >> 1, shape[1] >> 1};
}

sycl::range<2> half_but_one(const sycl::range<2>& shape) {
    return {std::max<std::size_t>(shape[0] / 2, 1), std::max<std::size_t>(shape[1] / 2, 1)};
}

sycl::range<2> twice(const sycl::range<2>& shape) {
    return {shape[0] * 2, shape[1] * 2};
}

/// Runs `launch` from one usm_ptr into another, unless that has no cells.
template <class Launch>
void run(Grid& destination, Grid& source, Launch launch) {
    if (destination.size() == 0)
        return;
    launch(launch_on(source.queue()), destination.data(), destination.extent(), source.data(), source.extent());
}

/// Runs `launch` from one buffer into another. A buffer without cells has nothing to take an accessor to.
template <class Launch>
void run(Buffer& destination, Buffer& source, sycl::queue& queue, Launch launch) {
    if (destination.size() == 0)
        return;
    queue.submit([&](sycl::handler& handler) {
        const auto in = read(source, handler);
        const auto out = overwrite(destination, handler);
        launch(launch_on(handler, queue), out, extent_of(destination), in, extent_of(source));
    });
}

/// A new grid of `shape`, filled by `launch`; an absent source comes back as it is.
template <class Launch>
Grid make(Grid& source, const sycl::range<2>& shape, Launch launch) {
    if (!source)
        return source;
    Grid result(shape, source.queue());
    run(result, source, launch);
    return result;
}

template <class Launch>
Buffer make(Buffer& source, sycl::queue& queue, const sycl::range<2>& shape, Launch launch) {
    if (source.size() == 1)
        return source;
    Buffer result(shape);
    run(result, source, queue, launch);
    return result;
}

// The launches as objects, so that one `run` serves them all.
constexpr auto downsample_magic_launch = [](auto... arguments) {
    launch_downsample_magic(arguments...);
};
constexpr auto upsample_magic_launch = [](auto... arguments) {
    launch_upsample_magic(arguments...);
};
constexpr auto sharpen_magic_launch = [](auto... arguments) {
    launch_sharpen_magic(arguments...);
};
constexpr auto downsample_box_launch = [](auto... arguments) {
    launch_downsample_box(arguments...);
};
constexpr auto upsample_box_launch = [](auto... arguments) {
    launch_upsample_box(arguments...);
};

} // namespace

void downsample_magic(Grid& destination, Grid& source) {
    run(destination, source, downsample_magic_launch);
}

void downsample_magic(Buffer& destination, Buffer& source, sycl::queue& queue) {
    run(destination, source, queue, downsample_magic_launch);
}

Grid downsample_magic(Grid& source) {
    return make(source, half(source.shape()), downsample_magic_launch);
}

Buffer downsample_magic(Buffer& source, sycl::queue& queue) {
    return make(source, queue, half(source.get_range()), downsample_magic_launch);
}

Grid next_level(Grid& source) {
    return source.size() == 1 ? source : make(source, half_but_one(source.shape()), downsample_magic_launch);
}

Buffer next_level(Buffer& source, sycl::queue& queue) {
    return make(source, queue, half_but_one(source.get_range()), downsample_magic_launch);
}

Grid upsample_magic(Grid& source) {
    return make(source, twice(source.shape()), upsample_magic_launch);
}

Buffer upsample_magic(Buffer& source, sycl::queue& queue) {
    return make(source, queue, twice(source.get_range()), upsample_magic_launch);
}

Grid sharpen_magic(Grid& source) {
    return make(source, source.shape(), sharpen_magic_launch);
}

Buffer sharpen_magic(Buffer& source, sycl::queue& queue) {
    return make(source, queue, source.get_range(), sharpen_magic_launch);
}

void downsample_box(Grid& destination, Grid& source) {
    run(destination, source, downsample_box_launch);
}

void downsample_box(Buffer& destination, Buffer& source, sycl::queue& queue) {
    run(destination, source, queue, downsample_box_launch);
}

Grid downsample_box(Grid& source) {
    return make(source, half(source.shape()), downsample_box_launch);
}

Grid upsample_box(Grid& source) {
    return make(source, twice(source.shape()), upsample_box_launch);
}

Buffer upsample_box(Buffer& source, sycl::queue& queue) {
    return make(source, queue, twice(source.get_range()), upsample_box_launch);
}

} // namespace tarn::resampling
