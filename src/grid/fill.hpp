// Filling and copying whole grids, as kernels: runtimes do it cell by cell on one thread when asked for it through
// accessors.
#pragma once

#include <cstddef>

#include <sycl/sycl.hpp>

#include "grid/access.hpp"
#include "grid/launch_cells.hpp"

namespace tarn {

/// Sets every cell.
template <class T>
void fill(sycl::queue& queue, sycl::buffer<T, 2>& grid, const T& value) {
    queue.submit([&](sycl::handler& handler) {
        const Writer<T, 2> to = overwrite(grid, handler);
        launch_cells(launch_on(handler, queue), Extent<2>(grid.get_range()), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(grid.get_range()[1])](int x, int y, auto) {
                         cells_of(to)[y * columns + x] = value;
                     });
    });
}

/// Copies every cell.
template <class T>
void copy(sycl::queue& queue, sycl::buffer<T, 2>& source, sycl::buffer<T, 2>& target) {
    queue.submit([&](sycl::handler& handler) {
        const Reader<T, 2> from = read(source, handler);
        const Writer<T, 2> to = overwrite(target, handler);
        launch_cells(launch_on(handler, queue), Extent<2>(target.get_range()), 0,
                     [=, columns = static_cast<std::ptrdiff_t>(target.get_range()[1])](int x, int y, auto) {
                         cells_of(to)[y * columns + x] = cells_of(from)[y * columns + x];
                     });
    });
}

} // namespace tarn
