// The bits of small runs of every computation, as one checksum an output: odd
// and even numbers of iterations, with and without masks, all forms that the
// records choose between.
//
// The table was taken from a build whose outputs agreed, to the bit and on all
// sizes that were tried, with scalar programs that had been written apart from
// the library and share nothing with it. Only after such a comparison may a row
// change:
//
//     tarn_tests --gtest_also_run_disabled_tests
//     --gtest_filter=GoldenBits.DISABLED_Table
//
// prints the table as it would have to be. A checksum is FNV-1a over the bytes
// of an array, the lowest of each float first. All inputs are exact in a float
// and need no function of the C library. The library itself calls these (float
// forms unless "double" stands here), which the checksums hold for where their
// results are correctly rounded, as those of glibc are but for very few
// arguments:
//
//     ThermalShaper_Process       pow, log2, tanh
//     ThermalSimulation           exp, log2, atan (double)
//     ParallelErosionSimulation   exp, log2, tan, sin, cos
//     DuneSimulation              atan (double)
//     DebrisSimulation            atan, sin, cos
//     FlowSimulation              log2, sin, cos
//     ColorTransportSimulation    exp, log2, sin, cos
//     Shade                       sin, cos, tan, exp
//     SunLightIntegral            sin, cos, asin, acos, exp; sin, cos, tan
//     (double) MeshRasterizer_RenderMesh   sin, cos
//     ..._ComputeTangentSpaceNormals   acos
//     Cellular3D_Render           pow
#include <cstdio>
#include <cstdlib>
#include <string_view>

#if !defined(__EMSCRIPTEN__)
#include <gnu/libc-version.h>
#endif

#include "calls.hpp"

namespace {

using namespace tarn_test;

struct Row {
    using Checksums = std::vector<std::pair<const char*, std::uint32_t>>;

    Row(const char* row_run, CallFactory factory, int width, int height, void (*change)(Call&), Checksums sums)
        : run(row_run), call(factory(width, height)), checksums(std::move(sums)) {
        if (change != nullptr)
            change(call);
    }

    const char* run;
    Call call;
    Checksums checksums;
};

std::uint32_t checksum(const Cells& cells) {
    std::uint32_t state = 2166136261u;
    for (const float cell : cells)
        for (int shift = 0; shift < 32; shift += 8)
            state = (state ^ ((std::bit_cast<std::uint32_t>(cell) >> shift) & 255u)) * 16777619u;
    return state;
}

template <class... Names>
void without(Call& call, Names... names) {
    ((call.array(names).is_null = true), ...);
}

/// A change to the record `p` or the call `c`.
#define WITH(Record, ...)                                                                                              \
    [](Call& c) {                                                                                                      \
        [[maybe_unused]] Record& p = c.parameters<Record>();                                                           \
        __VA_ARGS__;                                                                                                   \
    }

using Shaper = thermal_shaper_Parameters;
using Thermal = thermal_Parameters;
using Erosion = parallel_erosion_Parameters;
using Dunes = arrakis_Parameters;
using Debris = debris_Parameters;
using Flow = flow_Parameters;
using Color = color_transport_Parameters;
using Light = lighting_Parameters;
using Mesh = mesh_rasterizer_Parameters;
using Median = median_filter_Parameters;
using Cellular = Cellular3D_Parameters;

const std::vector<Row>& table() {
    static const std::vector<Row> rows = {
        Row("shaper, masked", thermal_shaper_call, 37, 29, nullptr, {{"heights", 0x42EFBFECu}}),
        Row("shaper, the other side", thermal_shaper_call, 40, 24,
            WITH(Shaper, without(c, "mask"); p.rate = 0.3f; p.level_multiplier = 0.15f), {{"heights", 0x72E5B489u}}),
        Row("shaper, one iteration", thermal_shaper_call, 20, 24, WITH(Shaper, p.level_multiplier = 0.1f),
            {{"heights", 0xAC32613Fu}}),
        Row("thermal, masked", thermal_call, 24, 20, nullptr,
            {{"heights", 0xD797443Cu}, {"depth", 0x37FAD4C3u}, {"wear", 0xBAFDD816u}}),
        Row("thermal, odd", thermal_call, 37, 29,
            WITH(Thermal, without(c, "erosion_mask", "absorption_mask"); p.duration = 43.0f / 2560.0f;
                 p.curvature_bias = 0.25f; p.feature_size = 11.0f),
            {{"heights", 0xF5FE29D3u}, {"depth", 0xCBCF8325u}, {"wear", 0x29ED9ACEu}}),
        Row("thermal, one level", thermal_call, 20, 24,
            WITH(Thermal, p.duration = 33.0f / 2560.0f; p.feature_size = 1.5f),
            {{"heights", 0xC16246B9u}, {"depth", 0xD9CB325Cu}, {"wear", 0x65E6D75Au}}),
        Row("erosion", erosion_call, 60, 52, WITH(Erosion, without(c, "spawn_map")),
            {{"height", 0xE3723A82u}, {"flow", 0xB063659Cu}, {"sediment", 0xCA4D0CFBu}, {"wear", 0x9FD2FE22u}}),
        Row("erosion, where it rains", erosion_call, 60, 52, nullptr,
            {{"height", 0x92EFE7A3u}, {"flow", 0x0B4BCAD7u}, {"sediment", 0x60FEA29Fu}, {"wear", 0x47EA0693u}}),
        Row("erosion, deep", erosion_call, 101, 67,
            WITH(Erosion, p.feature_size = 60.0f; p.iterations = 24.0f; p.plain_angle = 30.0f; p.fill_angle = 60.0f;
                 p.shaping_detail = 0.5f; p.constant_capacity = 0.75f),
            {{"height", 0x6EA48B29u}, {"flow", 0xF911C7ADu}, {"sediment", 0x9916413Bu}, {"wear", 0x679124CCu}}),
        Row("dunes", dunes_call, 64, 48, nullptr,
            {{"height", 0x68631573u}, {"sand", 0x5016B286u}, {"wind_trace", 0x44B0E09Cu}}),
        Row("dunes, odd and narrow", dunes_call, 33, 47,
            WITH(Dunes, p.duration = 12.0f / 2560.0f; p.terrain_height = 24.0f),
            {{"height", 0x217F7C9Bu}, {"sand", 0xF946C31Cu}, {"wind_trace", 0x0AF10BC7u}}),
        Row("debris", debris_call, 96, 0, nullptr,
            {{"height", 0x3502D1F0u}, {"rock_id", 0x287DCCFFu}, {"coverage", 0xE6BC4198u}, {"speed", 0x9DD0E469u}}),
        Row("debris, of all sizes alike", debris_call, 67, 0,
            WITH(Debris, p.favour_small = 0; p.draw_unmoved = 0; p.count = 200; p.max_size = 14.0f; p.friction = 0.05f),
            {{"height", 0xCA8861C2u}, {"rock_id", 0x8F00E9FCu}, {"coverage", 0xBB5C47D5u}, {"speed", 0x99C79B8Bu}}),
        Row("flow", flow_call, 60, 40, nullptr, {{"flow_map", 0x8BE3EBBEu}}),
        Row("flow over filled pits", flow_call, 520, 21, WITH(Flow, without(c, "mask")), {{"flow_map", 0x5E163E9Au}}),
        Row("colour", color_transport_call, 60, 40, nullptr,
            {{"red", 0x46D548B9u}, {"green", 0x0F1C918Du}, {"blue", 0xCFFADEC8u}}),
        Row("colour over filled pits", color_transport_call, 520, 21,
            WITH(Color, without(c, "mask", "length_map"); p.straight_trails = 1; p.transport = 0.96875f),
            {{"red", 0xEF6F12EFu}, {"green", 0x53D82466u}, {"blue", 0x4630A108u}}),
        Row("colour, taken up at every step", color_transport_call, 45, 60, WITH(Color, p.transport = 0.0f),
            {{"red", 0x950F35F5u}, {"green", 0x116BD481u}, {"blue", 0x32BEEE89u}}),
        Row("light", shade_call, 40, 40, nullptr,
            {{"diffuse", 0xD8E87BE9u},
             {"shadow", 0x7FD8F0DEu},
             {"ao", 0x131ADFE5u},
             {"red", 0xB94BD098u},
             {"green", 0xB970560Fu},
             {"blue", 0x6E5C40C7u}}),
        Row("light, grey and hybrid", shade_call, 66, 66,
            WITH(Light, without(c, "albedo_green"); p.hybrid_ao = 1; p.hybrid_ao_levels = 3; p.sun_rings = -8;
                 p.terrain_height = 0.0625f),
            {{"diffuse", 0xBAFAA817u},
             {"shadow", 0x0AE2E065u},
             {"ao", 0x0894808Fu},
             {"red", 0x03369852u},
             {"green", 0xAE78CFC9u},
             {"blue", 0x6FCC87D0u}}),
        Row("light, four rays and many of the sky", shade_call, 34, 34,
            WITH(Light, p.ao_subdivisions = 3; p.sun_rings = -4),
            {{"diffuse", 0x6A954CE7u},
             {"shadow", 0x75EF5B02u},
             {"ao", 0x0166F426u},
             {"red", 0x307F9623u},
             {"green", 0xB7ECFE1Cu},
             {"blue", 0x4EA6D4DEu}}),
        Row("light, wide", shade_call, 301, 90, nullptr,
            {{"diffuse", 0x8D82C76Bu},
             {"shadow", 0x5F2A5ECDu},
             {"ao", 0x910D9AB9u},
             {"red", 0x944FD562u},
             {"green", 0xF6419635u},
             {"blue", 0x6216F629u}}),
        Row("light, tall, odd and hybrid", shade_call, 77, 261,
            WITH(Light, without(c, "albedo_green"); p.hybrid_ao_levels = 4; p.sun_rings = -8),
            {{"diffuse", 0xF16AB819u},
             {"shadow", 0x6D9048FBu},
             {"ao", 0x9E146BE2u},
             {"red", 0x24542F12u},
             {"green", 0x8A732603u},
             {"blue", 0xB191F407u}}),
        Row("sun of winter, wide", sun_light_call, 301, 60, nullptr, {{"result", 0xA59F2332u}}),
        Row("sun of winter", sun_light_call, 40, 40, nullptr, {{"result", 0x5710F74Cu}}),
        Row("sun of a day", sun_light_call, 34, 34,
            WITH(Light, p.first_day = p.last_day = 172; p.latitude = -20.0f; p.haze = 0.0f), {{"result", 0x934C3696u}}),
        Row("mesh", render_mesh_call, 70, 50, nullptr, {{"height", 0x0FFECB53u}, {"noise", 0x00440D0Fu}}),
        Row("mesh, supersampled", render_mesh_call, 41, 51,
            WITH(Mesh, p.supersample = p.rest_on_floor = 1; p.offset_x = 0.125f; p.offset_y = -0.25f;
                 p.offset_z = 0.25f),
            {{"height", 0xE8254A6Cu}, {"noise", 0x1C39BFEBu}}),
        Row("displaced mesh", displacement_call, 60, 44, nullptr, {{"height", 0x28C368E2u}}),
        Row("displaced mesh, sideways", displacement_call, 45, 60,
            WITH(Mesh, p.supersample = p.horizontal_displacement = 1), {{"height", 0xCE116068u}}),
        Row("baked normals", normals_call, 90, 70, nullptr,
            {{"red", 0xEAF46821u}, {"green", 0x6B9E2FD6u}, {"blue", 0xC0526FFBu}, {"hit_positions", 0x46E5E870u}}),
        Row("points", point_cloud_call, 60, 44, nullptr,
            {{"height", 0xFD954CABu},
             {"noise", 0x6628FC5Eu},
             {"red", 0xF93A7FE2u},
             {"green", 0x17B4DF3Eu},
             {"blue", 0x3930AA5Eu}}),
        Row("points without an image", point_cloud_call, 45, 33, WITH(Mesh, without(c, "green")),
            {{"height", 0x746A76A3u}, {"noise", 0x0F08FB51u}}),
        Row("stamps", stamps_call, 70, 50, nullptr,
            {{"heights", 0x15F3BC15u}, {"ids", 0x201AC130u}, {"instances", 0xCC2159D2u}}),
        Row("median", median_filter_call, 32, 0, WITH(Median, p.radius = 4), {{"data", 0x6AE38476u}}),
        Row("median, wide", median_filter_call, 64, 0, WITH(Median, p.radius = 8; p.iterations = 1),
            {{"data", 0xD8707117u}}),
        Row("cells", cellular_call, 64, 50, nullptr, {{"height", 0x20686E58u}, {"random", 0x6CEE6375u}}),
        Row("cells by xorshift", cellular_call, 45, 64,
            WITH(Cellular, without(c, "gap_factor"); p.hash_variant = 1; p.jitter_x = 0.25f),
            {{"height", 0x8ECCEE92u}, {"random", 0x73F758E7u}}),
    };
    return rows;
}

/// On one thread, so that what several write in any order is the same each
/// time.
Call made(const Row& row) {
    const Threads one(1);
    sycl::queue queue = cpu_queue();
    RecordingHost host;
    Call call = row.call;
    EXPECT_EQ(call.run(queue, host), ok) << row.run;
    return call;
}

/// Whether the last bits come from float functions that round otherwise here than in glibc up to 2.40: Emscripten's
/// sinf and cosf, which the places of the sun show, and glibc's later acosf and asinf.
bool shows_the_standard_library(std::string_view name) {
#if defined(__EMSCRIPTEN__)
    return name == "SunLightIntegral";
#else
    const bool is_later = std::atoi(gnu_get_libc_version() + 2) > 40;
    return is_later && (name == "SunLightIntegral" || name == "MeshRasterizer_ComputeTangentSpaceNormals");
#endif
}

TEST(GoldenBits, AreThoseOfScalarPrograms) {
    for (const Row& row : table()) {
        if (shows_the_standard_library(row.call.name))
            continue;
        Call call = made(row);
        EXPECT_FALSE(row.checksums.empty()) << row.run;
        for (const auto& [output, expected] : row.checksums)
            EXPECT_EQ(checksum(call[output]), expected)
                << row.run << ": " << output << ", whose sum is " << sum(call[output]);
    }
}

TEST(GoldenBits, DISABLED_Table) {
    for (const Row& row : table()) {
        const Call call = made(row);
        Call before = row.call;
        std::printf("%s: {", row.run);
        for (const Array& array : call.arrays)
            if (!same_bits(array.values, before[array.name]))
                std::printf("{\"%s\", 0x%08Xu}, ", array.name.c_str(), checksum(array.values));
        std::printf("}\n");
    }
}

} // namespace

std::vector<std::pair<std::string, tarn_test::Call>> tarn_test::golden_runs() {
    std::vector<std::pair<std::string, Call>> runs;
    for (const Row& row : table())
        runs.emplace_back(row.run, row.call);
    return runs;
}
