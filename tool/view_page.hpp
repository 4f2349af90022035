#pragma once

#include <optional>
#include <string>
#include <vector>

#include "grid.hpp"
#include "lighting.hpp"
#include "picture.hpp"

/// Values on the cells of the grid that a page shows.
struct ViewLayer {
    std::string name;
    std::string unit;
    std::string palette; ///< one of palettes()
    Cells cells;
    bool thins_out = false;  ///< low values let the layers below through
    bool multiplies = false; ///< darkens the layers below
};

/// What a page shows.
struct View {
    std::string title;
    std::string note;
    Grid grid;
    CellSize cell;
    double height_unit = 1; ///< metres in one unit of height
    Cells before;           ///< heights; empty for none
    std::vector<ViewLayer> layers;
    std::optional<Picture> picture; ///< laid over the ground
    double exaggeration = 1;
    SunPosition sun;
};

/// A page of HTML with everything in it.
std::string make_view_page(const View& view);
