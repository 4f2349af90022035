#include "trail_options.hpp"

#include <algorithm>

#include "options.hpp"

void TrailOptions::add_options(CLI::App& command) {
    command
        .add_option("--flow-length", flow_length,
                    "Length of the long trails, which carry rivers, as a fraction of the width")
        ->check(finite_number(0, 100))
        ->type_name("NUMBER")
        ->capture_default_str();
    command
        .add_option(
            "--spread", spread,
            "How far ground rises at each visit, in hundred-thousandths of the terrain's height: above 0, later "
            "trails run beside earlier ones")
        ->check(finite_number(-1e6, 1e6))
        ->type_name("NUMBER")
        ->capture_default_str();
    command.add_option("--seed", seed, "Of the random numbers")->type_name("NUMBER")->capture_default_str();
    command.add_option("--mask", mask, "Chance that a cell starts a trail")->type_name("GRID");
    command.add_option("--device", device, "Identity string of a device, from `tarn devices`, or cpu")
        ->type_name("ID")
        ->capture_default_str();
}

std::vector<float> TrailOptions::read_mask_cells(GridSize size) const {
    return mask.empty() ? std::vector<float>() : read_mask(mask, size);
}

std::vector<float> unit_heights(const Grid& grid) {
    const auto [lowest, highest] = std::minmax_element(grid.cells.begin(), grid.cells.end());
    const double base = static_cast<double>(*lowest);
    const double range = static_cast<double>(*highest) - base;
    std::vector<float> heights;
    heights.reserve(grid.size());
    for (const float cell : grid.cells)
        heights.push_back(range > 0 ? static_cast<float>((static_cast<double>(cell) - base) / range) : 0.0f);
    return heights;
}
