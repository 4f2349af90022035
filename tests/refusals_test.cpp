// What the exports refuse, in one table: a field, the value that spoils it, and the line that the host reads. And what
// they take although it looks no better.
#include <charconv>
#include <climits>

#include "calls.hpp"
#include "lighting/lighting.hpp"

namespace {

using namespace tarn_test;

/// A value as the lines tell it.
template <class Number>
std::string text_of(Number value) {
    if (std::isnan(static_cast<double>(value)))
        return "not a number";
    if (std::isinf(static_cast<double>(value)))
        return value > 0 ? "infinite" : "minus infinity";
    char text[32];
    return {text, std::to_chars(text, text + sizeof(text), value).ptr};
}

struct Row {
    /// A field, or another change to the call, and what the line says behind the export's name, as far as it matters.
    template <class Record, class Number>
    Row(const char* name, Number Record::*field, double value)
        : change([=](Call& c) { c.parameters<Record>().*field = static_cast<Number>(value); }),
          line(name + (" is " + text_of(static_cast<Number>(value))) + "; it must be ") {}
    template <class Change>
    Row(const char* text, const Change& spoil) : change(spoil), line(text) {}

    std::function<void(Call&)> change;
    std::string line;
};

// A field of the record P, a row that sets it, and a row that changes anything of the record `p` or the call `c`.
#define FIELD(name) std::pair(#name, &P::name)
#define ROW(name, value) Row(#name, &P::name, value)
#define CHANGE(text, ...)                                                                                              \
    Row(text, [=](Call& c) {                                                                                           \
        [[maybe_unused]] P& p = c.parameters<P>();                                                                     \
        __VA_ARGS__;                                                                                                   \
    })
using Rows = std::vector<Row>;

/// A grid with one cell that is not finite.
Row spoilt_cell(const std::string& grid, float value) {
    const std::string line = grid + " at column 4 of row 1 is " + text_of(value) + "; it must be finite";
    return {line.c_str(), [=](Call& c) {
                c.array(grid).values[20] = value;
            }};
}

template <class Record>
Rows not_finite(const std::vector<std::pair<const char*, float Record::*>>& fields) {
    Rows rows;
    for (const auto& [name, field] : fields)
        for (const float value : {not_a_number, infinity, -infinity})
            rows.emplace_back(name, field, static_cast<double>(value));
    return rows;
}

constexpr int most = INT_MAX;

class Refusals : public ::testing::Test {
  protected:
    // SunLightIntegral tells its refusals through the callbacks of the latest Shade.
    Refusals() { tarn::lighting::callbacks.set(host.callbacks()); }
    ~Refusals() override { tarn::lighting::callbacks.set(HostCallbacks{}); }

    /// A refused call tells one line, if any, and touches nothing.
    void expect_refused(Call call, const std::string& line, SyclQueue* on, const HostCallbacks* callbacks) {
        host.errors.clear();
        const Call before = call;
        EXPECT_EQ(call.make(call, on, callbacks), call.has_frame ? failed : ok) << line;
        if (line.empty()) {
            EXPECT_EQ(host.errors, std::vector<std::string>{}) << call.name;
        } else {
            ASSERT_EQ(host.errors.size(), 1u) << call.name << ": " << line;
            EXPECT_TRUE(host.errors[0].starts_with(call.name + (": " + line))) << host.errors[0] << ", not " << line;
        }
        EXPECT_EQ(call.record, before.record) << line;
        for (std::size_t k = 0; k < call.arrays.size(); ++k)
            EXPECT_TRUE(same_bits(call.arrays[k].values, before.arrays[k].values)) << line;
        EXPECT_TRUE(host.progress.empty() && host.acquired.empty() && host.released.empty()) << line;
    }

    void refuses(CallFactory factory, const Rows& rows) {
        const HostCallbacks callbacks = host.callbacks();
        for (const Row& row : rows) {
            Call call = factory(16, 16);
            row.change(call);
            expect_refused(call, row.line, handle(queue), &callbacks);
        }
    }

    void takes(CallFactory factory, const Rows& rows) {
        for (const Row& row : rows) {
            RecordingHost other;
            Call call = factory(32, 32);
            row.change(call);
            EXPECT_EQ(call.run(queue, other), ok) << call.name << ": " << row.line;
            EXPECT_EQ(other.errors, std::vector<std::string>{}) << call.name << ": " << row.line;
            EXPECT_EQ(other.released, other.acquired);
        }
    }

    sycl::queue queue = cpu_queue();
    RecordingHost host;
};

TEST_F(Refusals, NullArguments) {
    const HostCallbacks callbacks = host.callbacks();
    for (const CallFactory factory : call_factories) {
        const Call call = factory(16, 16);
        const bool is_median = factory == median_filter_call;
        expect_refused(call, call.tells_nulls ? "queue is null" : "", nullptr, &callbacks);
        if (!is_median && factory != sun_light_call)
            expect_refused(call, "", handle(queue), nullptr);
        Call without_record = call;
        without_record.record.clear();
        expect_refused(without_record, is_median ? "" : "parameters is null", handle(queue), &callbacks);
        for (std::size_t k = 0; k < call.arrays.size(); ++k) {
            if ((call.arrays[k].rules & Array::optional) != 0)
                continue;
            Call without_array = call;
            without_array.arrays[k].is_null = true;
            expect_refused(without_array, call.tells_nulls ? call.arrays[k].name + " is null" : "", handle(queue),
                           &callbacks);
        }
    }
}

TEST_F(Refusals, ThermalShaper) {
    using P = thermal_shaper_Parameters;
    refuses(thermal_shaper_call,
            {ROW(width, 0), ROW(width, INT_MIN), ROW(height, -3),
             CHANGE("width * height is 46116860141324206", p.width = p.height = most), ROW(level_divisor, 0),
             ROW(scale_numerator, 0), ROW(scale_numerator, 1e-44),
             CHANGE("width * level_multiplier / level_divisor is 0", p.level_multiplier = 0.0f),
             CHANGE("width * level_multiplier / level_divisor is -12.8", p.level_multiplier = -1.0f),
             CHANGE("width * level_multiplier / level_divisor is infinite", p.level_multiplier = 3e38f),
             spoilt_cell("heights", not_a_number), spoilt_cell("mask", infinity)});
    refuses(thermal_shaper_call, not_finite<P>({FIELD(level_divisor), FIELD(scale_numerator), FIELD(level_multiplier),
                                                FIELD(blend), FIELD(rate), FIELD(detail_gain)}));
    takes(thermal_shaper_call,
          {ROW(rate, 1e30), ROW(rate, -1e30), ROW(blend, -4e8), ROW(detail_gain, 1e20), ROW(level_multiplier, 1e30),
           ROW(level_multiplier, 1e-30), ROW(scale_numerator, -1e20)});
}

TEST_F(Refusals, Thermal) {
    using P = thermal_Parameters;
    refuses(thermal_call, {ROW(width, 0), ROW(height, -1), ROW(duration, -0.5), ROW(duration, 6554),
                           ROW(repose_angle, -1), ROW(feature_size, 0), ROW(terrain_size, 0), ROW(terrain_size, -3),
                           ROW(terrain_height, 0), ROW(terrain_height, 1e-44), spoilt_cell("heights", infinity),
                           spoilt_cell("erosion_mask", not_a_number), spoilt_cell("absorption_mask", -infinity)});
    refuses(thermal_call,
            not_finite<P>({FIELD(duration), FIELD(erosion_rate), FIELD(curvature_bias), FIELD(repose_angle),
                           FIELD(feature_size), FIELD(terrain_size), FIELD(terrain_height), FIELD(absorption)}));
    takes(thermal_call,
          {ROW(erosion_rate, 1e30), ROW(erosion_rate, -1e30), ROW(curvature_bias, -1e20), ROW(repose_angle, 1e30),
           ROW(feature_size, 1e30), ROW(feature_size, 1e-30), ROW(absorption, 1e10)});
}

TEST_F(Refusals, Erosion) {
    using P = parallel_erosion_Parameters;
    refuses(erosion_call, {CHANGE("width is 0;", p.Resolution = {0, 5}),
                           CHANGE("width is -2147483648;", p.Resolution = {0x80000000u, 5}),
                           CHANGE("width is 16777217;", p.Resolution = {(1u << 24) + 1, 3}),
                           CHANGE("height is -1;", p.Resolution = {5, 0xFFFFFFFFu}),
                           CHANGE("height is 16777217;", p.Resolution = {3, (1u << 24) + 1}),
                           CHANGE("width * height is 4294967296;", p.Resolution = {65536, 65536}), ROW(terrain_size, 0),
                           ROW(terrain_size, -3), ROW(terrain_height, 0), ROW(terrain_height, 1e-45),
                           ROW(feature_size, 0), ROW(feature_size, -3), ROW(iterations, 2e9), ROW(shaping_detail, -0.5),
                           spoilt_cell("height", not_a_number)});
    refuses(erosion_call, not_finite<P>({FIELD(terrain_size), FIELD(terrain_height), FIELD(feature_size),
                                         FIELD(iterations), FIELD(erosion_strength), FIELD(shaping_strength),
                                         FIELD(shaping_sharpness), FIELD(shaping_detail), FIELD(fill_slope_scale),
                                         FIELD(fill_angle), FIELD(plain_deposition), FIELD(plain_angle),
                                         FIELD(terrace_deposition), FIELD(terrace_angle), FIELD(constant_capacity)}));
    takes(erosion_call, {ROW(erosion_strength, 1e30), ROW(erosion_strength, -1e30), ROW(erosion_strength, -2),
                         ROW(shaping_strength, 1e30), ROW(shaping_sharpness, -1e20), ROW(shaping_detail, 1e30),
                         ROW(shaping_detail, 1e-45), ROW(iterations, -1e30), ROW(fill_slope_scale, -1e30),
                         ROW(fill_angle, 1e30), ROW(plain_deposition, 1e38), ROW(plain_angle, -1e10),
                         ROW(terrace_deposition, -1e38), ROW(terrace_angle, 90), ROW(constant_capacity, -1e30),
                         ROW(constant_capacity, 50), ROW(feature_size, 1e30), ROW(feature_size, 1e-30)});
}

TEST_F(Refusals, Dunes) {
    using P = arrakis_Parameters;
    refuses(dunes_call, {ROW(width, 0), ROW(height, -3), ROW(duration, -1e-6), ROW(duration, 1e6),
                         ROW(repose_angle, -1), ROW(terrain_size, 0), ROW(terrain_size, -1), ROW(terrain_height, 0),
                         CHANGE("terrain_size / (terrain_height * width) is ", p.terrain_size = 1e-43f),
                         CHANGE("terrain_size / (terrain_height * width) is 0;", p.terrain_height = 3e38f),
                         CHANGE("terrain_size is -4", p.terrain_size = p.terrain_height = -4.0f),
                         spoilt_cell("height", not_a_number), spoilt_cell("sand", -infinity)});
    refuses(dunes_call,
            not_finite<P>({FIELD(duration), FIELD(repose_angle), FIELD(terrain_size), FIELD(terrain_height)}));
    takes(dunes_call, {ROW(repose_angle, 1e30), ROW(repose_angle, 90), ROW(terrain_size, 1e30),
                       ROW(terrain_size, 1e-30), ROW(terrain_height, 1e30), ROW(terrain_height, 1e-30)});
}

TEST_F(Refusals, Debris) {
    using P = debris_Parameters;
    refuses(debris_call, {
        ROW(resolution, 0), ROW(resolution, 46341), ROW(terrain_size, 0), ROW(terrain_height, -1),
            ROW(terrain_height, 1e-44), ROW(max_size, 0), ROW(max_size, 2.0 * 15447.0), ROW(min_size, -1),
            ROW(min_size, 27.1), ROW(count, (1 << 24) + 1),
            CHANGE("count is 16777216", p.count = 1 << 24; p.resolution = 30000), spoilt_cell("height", not_a_number)
    });
    refuses(debris_call, not_finite<P>({FIELD(terrain_size), FIELD(terrain_height), FIELD(max_size), FIELD(min_size),
                                        FIELD(friction), FIELD(restitution)}));
    takes(debris_call,
          {ROW(friction, -1e30), ROW(restitution, 1e30), ROW(terrain_height, 1e30), ROW(terrain_height, 1e-30),
           ROW(min_size, 0), ROW(min_size, 27), ROW(max_size, 2.0 * 15440.0), ROW(resolution, 1), ROW(count, 0)});
}

TEST_F(Refusals, FlowAndColourTransport) {
    const auto trails = [&]<class P>(CallFactory factory, P*) {
        refuses(factory, {
            ROW(width, 0), ROW(height, -3),
                CHANGE("width * height is 46116860141324206", p.width = most; p.height = most),
                CHANGE("height is 1;", p.width = 512; p.height = 1),
                CHANGE("height is 1000;", p.width = 1 << 20; p.height = 1000), ROW(flow_length, -1e-6),
                ROW(flow_length, 2e6)
        });
        refuses(factory, not_finite<P>({FIELD(flow_length), FIELD(spread)}));
        takes(factory, {ROW(spread, 3e38), ROW(spread, -3e38), ROW(spread, 1e-40), ROW(flow_length, 400000)});
    };
    trails(flow_call, static_cast<flow_Parameters*>(nullptr));
    using P = color_transport_Parameters;
    trails(color_transport_call, static_cast<P*>(nullptr));
    refuses(color_transport_call, {ROW(persistence, -0.1), ROW(persistence, -3)});
    refuses(color_transport_call, not_finite<P>({FIELD(persistence), FIELD(blend), FIELD(transport)}));
    takes(color_transport_call,
          {ROW(persistence, -0.0999), ROW(persistence, 1e30), ROW(transport, 1e30), ROW(transport, -1e30)});
}

TEST_F(Refusals, ShadeAndSunLight) {
    using P = lighting_Parameters;
    for (const CallFactory factory : {shade_call, sun_light_call}) {
        refuses(factory, {CHANGE("width is 0;", p.resolution = {0, 0}), CHANGE("height is -8;", p.resolution = {8, -8}),
                          CHANGE("width is -2147483648;", p.resolution = {INT_MIN, INT_MIN}),
                          CHANGE("width * height is 4294967296;", p.resolution = {65536, 65536}), ROW(terrain_size, 0),
                          ROW(terrain_height, -1), ROW(terrain_height, 1e-44)});
        refuses(factory, not_finite<P>({FIELD(terrain_size), FIELD(terrain_height)}));
    }
    refuses(shade_call, {
        CHANGE("width is 32767; it must be from 1 to 32766", p.resolution = {32767, 8}),
            CHANGE("height is 32767;", p.resolution = {1, 32767}; p.shadows = 0), ROW(sun_rings, 18),
            ROW(sun_rings, -2), ROW(sun_rings, -9), ROW(sun_rings, INT_MIN), ROW(sun_diameter, -0.5),
            ROW(sun_diameter, 181), ROW(ao_subdivisions, 4), ROW(ao_subdivisions, -1),
            CHANGE("hybrid_ao_subdivisions is 4;", p.hybrid_ao = 7; p.hybrid_ao_subdivisions = 4),
            CHANGE("hybrid_ao_levels is 4; it must be at most 3", p.resolution = {64, 4}; p.hybrid_ao = 7;
                   p.hybrid_ao_levels = 4),
            CHANGE("albedo is infinite;", p.albedo = infinity; c.array("albedo_blue").is_null = true),
            CHANGE("hybrid_ao_levels is 2147483647;", p.hybrid_ao = 7; p.hybrid_ao_levels = most)
    });
    for (const float value : {not_a_number, infinity, -infinity})
        for (int i = 0; i < 3; ++i)
            refuses(shade_call, {CHANGE("sun_direction is ", p.sun_direction[i] = value),
                                 CHANGE("sun_color is ", p.sun_color[i] = value),
                                 CHANGE("ambient_color is ", p.ambient_color[i] = value)});
    refuses(shade_call,
            not_finite<P>({FIELD(sun_diameter), FIELD(exposure), FIELD(sun_intensity), FIELD(ambient_intensity)}));
    // What no stage of the run looks at may hold anything, and its grid be null.
    takes(shade_call, {
        CHANGE("no shadows", p.shadows = 0; p.sun_rings = p.hybrid_ao_levels = p.first_day = 1000;
               p.latitude = p.haze = p.sun_diameter = p.albedo = not_a_number; c.array("shadow").is_null = true),
            CHANGE("no occlusion", p.ambient_occlusion = 0; p.ao_subdivisions = -7; c.array("ao").is_null = true),
            CHANGE("no sun", p.direct_light = 0; p.sun_direction[1] = not_a_number;
                   c.array("diffuse").is_null = c.array("shadow").is_null = true)
    });

    refuses(sun_light_call, {
        CHANGE("first_day is 376;", p.first_day = 376; p.last_day = 10),
            CHANGE("first_day is 2147483647;", p.first_day = most; p.last_day = INT_MIN), ROW(first_day, -3651),
            ROW(last_day, 3651), ROW(latitude, -90.5), ROW(haze, -0.5),
            CHANGE("height is 1; it must be from 2 to 65533", p.resolution = {16, 1}),
            CHANGE("width is 65534;", p.resolution = {65534, 2})
    });
    refuses(sun_light_call, not_finite<P>({FIELD(latitude), FIELD(north_offset), FIELD(haze)}));
    takes(sun_light_call, {
        CHANGE("a year", p.first_day = 375; p.last_day = 10),
            CHANGE("twenty years", p.first_day = -3650; p.last_day = 3650), ROW(latitude, 90), ROW(north_offset, -1e38),
            ROW(haze, 1e38), ROW(sun_rings, 99), ROW(exposure, static_cast<double>(not_a_number))
    });
    // Before the first Shade there is nobody to tell.
    tarn::lighting::callbacks.set(HostCallbacks{});
    Call call = sun_light_call(16, 16);
    call.parameters<P>().haze = -1.0f;
    expect_refused(call, "", handle(queue), nullptr);
}

TEST_F(Refusals, Meshes) {
    using P = mesh_rasterizer_Parameters;
    for (const CallFactory factory : {render_mesh_call, displacement_call, normals_call, point_cloud_call})
        refuses(factory,
                {CHANGE("width is 0;", p.resolution = {0, 16}), CHANGE("height is -3;", p.resolution = {16, -3}),
                 CHANGE("width * height is 4294967296;", p.resolution = {65536, 65536})});
    for (const CallFactory factory : {render_mesh_call, displacement_call, normals_call})
        refuses(factory,
                {CHANGE("mesh.triangles is 150;", c["mesh.triangles"][6] = std::bit_cast<float>(150u)),
                 CHANGE("mesh.triangles is 4294967295;", c["mesh.triangles"][6] = std::bit_cast<float>(UINT32_MAX)),
                 CHANGE("mesh.triangles is ", c["mesh.vertices"].clear()),
                 CHANGE("vertical_scale is not a number;", p.vertical_scale = not_a_number)});
    for (const CallFactory factory : {render_mesh_call, displacement_call})
        refuses(factory, {
            CHANGE("4 * width * height is 3600000000;", p.resolution = {30000, 30000}; p.supersample = 1)
        });
    for (const CallFactory factory : {render_mesh_call, normals_call})
        refuses(factory, {ROW(vertical_scale, 0)});
    refuses(render_mesh_call, not_finite<P>({FIELD(rotation_x), FIELD(rotation_y), FIELD(rotation_z), FIELD(scale),
                                             FIELD(offset_x), FIELD(offset_y), FIELD(offset_z)}));
    refuses(displacement_call, not_finite<P>({FIELD(displacement_amount), FIELD(displacement_bias)}));
    refuses(point_cloud_call, {ROW(point_count, UINT32_MAX)});
    // Nothing to draw, and fields that are another function's.
    const Rows nothing = {
        CHANGE("no triangles", c["mesh.triangles"].clear()),
        CHANGE("no mesh", c["mesh.triangles"].clear(); c["mesh.vertices"].clear();
               c.array("mesh.normals").is_null = true)
    };
    for (const CallFactory factory : {render_mesh_call, displacement_call, normals_call})
        takes(factory, nothing);
    takes(displacement_call,
          {ROW(rotation_x, static_cast<double>(not_a_number)), ROW(scale, static_cast<double>(not_a_number)),
           ROW(offset_y, static_cast<double>(not_a_number)), ROW(vertical_scale, 0)});
}

TEST_F(Refusals, Stamps) {
    using P = stamp_instancer_Parameters;
    refuses(stamps_call,
            {ROW(width, 0), ROW(height, -1), CHANGE("width * height is ", p.width = most), ROW(stamps_width, 0),
             ROW(stamps_height, -5), CHANGE("stamps_width * stamps_height is ", p.stamps_width = most),
             ROW(stamp_width, 0), ROW(stamp_height, INT_MIN), ROW(instance_count, -1),
             CHANGE("instance_count * stamp_width * stamp_height is ", p.stamp_width = most),
             CHANGE("instance.stamp is 2;", p.stamp_width = 6), // no longer whole
             CHANGE("instance.stamp is 4294967295;", c["instances"][4 * 119 + 2] = std::bit_cast<float>(UINT32_MAX))});
    takes(stamps_call, { CHANGE("no instances", p.instance_count = 0; c.array("instances").is_null = true) });
}

TEST_F(Refusals, MedianFilterLeavesTheGridWithoutAWord) {
    using P = median_filter_Parameters;
    Rows rows;
    for (const int radius : {0, -1, INT_MIN})
        rows.push_back(CHANGE("", p.radius = radius));
    for (const unsigned resolution : {0u, 1u, 31u, 33u, 48u, 46368u, 65536u, 0x80000000u, 0xFFFFFFE0u})
        rows.push_back(CHANGE("", p.resolution = resolution));
    refuses(median_filter_call, rows);
    takes(median_filter_call, {ROW(radius, most), ROW(iterations, 0)});
}

TEST_F(Refusals, Cells) {
    using P = Cellular3D_Parameters;
    refuses(cellular_call,
            {ROW(grid_width, 0), ROW(grid_height, -4), CHANGE("grid_width * grid_height is ", p.grid_width = most),
             ROW(cell_density, 0), ROW(extent_x, -1), ROW(extent_y, 0), ROW(z_unit, 0),
             CHANGE("z_range * extent_z / z_unit is -1.25;", p.z_range = -1.0f),
             CHANGE("cell_density is 11;", p.extent_x = 1e30f)});
    refuses(cellular_call,
            not_finite<P>({FIELD(cell_density), FIELD(gap), FIELD(extent_x), FIELD(extent_y), FIELD(extent_z),
                           FIELD(jitter_x), FIELD(jitter_y), FIELD(jitter_z), FIELD(z_unit), FIELD(z_range)}));
    takes(cellular_call, {ROW(gap, -1e30), ROW(jitter_x, 1e30), ROW(jitter_z, -1e6), ROW(extent_x, 1e-6),
                          ROW(cell_density, 1e-3), ROW(z_range, 1e-4)});
}

} // namespace
