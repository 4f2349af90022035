#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "command.hpp"
#include "resample.hpp"

/// What flow maps and the transport of colour have in common.
struct TrailOptions {
    float flow_length = 1.0f;
    float spread = 1.0f;
    std::uint32_t seed = 0;
    std::string mask;

    void add_options(Command& command);

    /// No cells if there is no mask.
    Cells read_mask_cells(GridSize size) const;
};

/// Brings heights to 0 at the lowest cell and 1 at the highest: the unit of `spread`, and the zero below which no
/// ground lies.
void to_unit_heights(Cells& heights);

/// Null if there are no cells.
inline const float* data_or_null(const Cells& cells) {
    return cells.empty() ? nullptr : cells.data();
}
