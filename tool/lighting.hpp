#pragma once

#include <functional>
#include <optional>
#include <span>
#include <vector>

#include <tarn/oneapi.h>

#include "grid.hpp"
#include "host.hpp"
#include "png.hpp"

/// Where the sun stands, in degrees.
struct SunPosition {
    double azimuth = 315;  ///< clockwise from north, which is at the top of the picture
    double elevation = 45; ///< above the horizon
};

/// The sun's position at a latitude on a day of a year of 365, at an hour of solar time: at 12 it stands highest.
SunPosition sun_at(double latitude, int day, double hour);

/// Sets the direction of the parameters.
void point_at(const SunPosition& sun, lighting_Parameters& parameters);

/// Parameters with both lights, shadows and ambient occlusion, at which level ground is as light as its albedo.
lighting_Parameters light_of_day(const SunPosition& sun);

/// Parameters of the sum of the sunlight of a year through a little haze. Metres, and degrees north.
lighting_Parameters light_of_year(const Grid& grid, double cell_size, double height_unit, double latitude);

/// What the ground reflects of red, green and blue, from 0 to 1, in a grid's cells. Without cells it is the grey of the
/// parameters.
struct Surface {
    Cells red, green, blue;
};

/// A rendered grid; stages that did not run have no cells.
struct LitGrid {
    Cells diffuse, shadow, ao, red, green, blue;
};

/// The surface of some rows of a grid, from `first` on.
using SurfaceOfRows = std::function<Surface(int first, int rows)>;

/// A grid, and how it is to be lit. `height_unit` is in metres.
struct Scene {
    const Grid& grid;
    CellSize cell;
    double height_unit;
    lighting_Parameters parameters;
    SurfaceOfRows surface;
};

/// Renders a grid with the library. `ao` is read if the parameters say that it is supplied.
LitGrid render(Host& host, const Scene& scene, const Cells& ao = {});

/// Draws a rendered scene in sRGB. Cells without a value are white. Everything must stay as long as the drawing.
Drawing develop(const Scene& scene, const LitGrid& lit);

/// As render and develop, while it is drawn. Light that comes without rays is rendered in bands, and needs little
/// memory.
Drawing draw_scene(Host& host, const Scene& scene);

/// The light that values of sRGB from 0 to 1 stand for.
void light_of(std::span<const double> srgb, float* light);

/// The latitude of a grid's centre in degrees, if the file says where it lies.
std::optional<double> latitude_of(const Grid& grid);
