#include "trail_options.hpp"

#include <algorithm>

void TrailOptions::add_options(Command& command) {
    command.number("--flow-length", flow_length, {0, 100}, "",
                   "Length of the long trails, which carry rivers, as a fraction of the width");
    command
        .number("--spread", spread, {-1e6, 1e6}, "",
                "How far ground rises at each visit, in hundred-thousandths of the terrain's height: above 0, later "
                "trails run beside earlier ones")
        .advanced();
    command.number("--seed", seed, any_seed, "", "Of the random numbers");
    command.input("--mask", mask, "grid", "share", "Chance that a cell starts a trail");
}

Cells TrailOptions::read_mask_cells(GridSize size) const {
    return mask.empty() ? Cells() : read_mask(mask, size);
}

void to_unit_heights(Cells& heights) {
    const auto [lowest, highest] = std::minmax_element(heights.begin(), heights.end());
    const double base = static_cast<double>(*lowest);
    const double range = static_cast<double>(*highest) - base;
    for (float& cell : heights)
        cell = range > 0 ? static_cast<float>((static_cast<double>(cell) - base) / range) : 0.0f;
}
