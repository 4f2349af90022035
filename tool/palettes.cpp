#include "palettes.hpp"

#include <algorithm>
#include <cstddef>

const std::vector<Palette>& palettes() {
    static const std::vector<Palette> all{
        // Lowland green over ochre to pale rock.
        {"heights",
         {{104, 142, 104}, {152, 172, 118}, {204, 196, 142}, {194, 164, 120}, {176, 148, 130}, {236, 232, 228}}},
        // From the darkness of a valley in winter to a slope in full sun.
        {"sunlight", {{24, 20, 56}, {84, 36, 110}, {170, 56, 96}, {228, 110, 64}, {246, 180, 84}, {255, 244, 196}}},
        // Even steps for the eye, also in grey: S. van der Walt's and N. Smith's "viridis".
        {"amounts",
         {{68, 1, 84},
          {72, 40, 120},
          {62, 74, 137},
          {49, 104, 142},
          {38, 130, 142},
          {31, 158, 137},
          {53, 183, 121},
          {110, 206, 88},
          {181, 222, 43},
          {253, 231, 37}}},
        {"water", {{222, 235, 247}, {158, 202, 225}, {66, 146, 198}, {8, 81, 156}, {8, 48, 107}}},
        // Loss, nothing, gain.
        {"change", {{178, 34, 40}, {255, 255, 255}, {32, 90, 170}}},
        // To darken what lies below.
        {"shade", {{72, 78, 96}, {255, 255, 255}}}};
    return all;
}

const Palette& palette(const std::string& name) {
    return *std::find_if(palettes().begin(), palettes().end(), [&](const Palette& p) { return p.name == name; });
}

Colour mix(const Colour& a, const Colour& b, double weight) {
    Colour result;
    for (std::size_t i = 0; i < 3; ++i)
        result[i] = a[i] + (b[i] - a[i]) * weight;
    return result;
}

Colour colour_at(const Palette& palette, double fraction) {
    const std::vector<Colour>& colours = palette.colours;
    const double place = std::clamp(fraction, 0.0, 1.0) * static_cast<double>(colours.size() - 1);
    const auto first = std::min(static_cast<std::size_t>(place), colours.size() - 2);
    return mix(colours[first], colours[first + 1], place - static_cast<double>(first));
}
