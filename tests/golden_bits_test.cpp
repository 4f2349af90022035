// The bits of small runs of every computation, as one checksum an output: odd and even numbers of iterations, with and
// without masks, all forms that the records choose between.
//
// The table was taken from a build whose outputs agreed, to the bit and on all sizes that were tried, with scalar
// programs that had been written apart from the library and share nothing with it. Only after such a comparison may a
// row change:
//
//     tarn_tests --gtest_also_run_disabled_tests --gtest_filter=GoldenBits.DISABLED_Table
//
// prints the table as it would have to be. A checksum is FNV-1a over the bytes of an array, the lowest of each float
// first. All inputs are exact in a float and need no function of the C library. The library itself calls these (float
// forms unless "double" stands here), which the checksums hold for where their results are correctly rounded, as those
// of glibc are but for very few arguments:
//
//     ThermalShaper_Process       pow, log2, tanh
//     ThermalSimulation           exp, log2, atan (double)
//     ParallelErosionSimulation   exp, log2, tan, sin, cos
//     DuneSimulation              atan (double)
//     DebrisSimulation            atan, sin, cos
//     FlowSimulation              log2, sin, cos
//     ColorTransportSimulation    exp, log2, sin, cos
//     Shade                       sin, cos, tan, exp
//     SunLightIntegral            sin, cos, asin, acos, exp; sin, cos, tan (double)
//     MeshRasterizer_RenderMesh   sin, cos
//     ..._ComputeTangentSpaceNormals   acos
//     Cellular3D_Render           pow
#include <cstdio>

#include "calls.hpp"

namespace {

using namespace tarn_test;

struct Row {
    const char* run;
    CallFactory factory;
    int width, height;
    void (*change)(Call&);
    std::vector<std::pair<const char*, std::uint32_t>> checksums;
};

std::uint32_t checksum(const Cells& cells) {
    std::uint32_t state = 2166136261u;
    for (const float cell : cells)
        for (int shift = 0; shift < 32; shift += 8)
            state = (state ^ ((std::bit_cast<std::uint32_t>(cell) >> shift) & 255u)) * 16777619u;
    return state;
}

template <class Record, class... Pairs>
void set(Call& call, Pairs... pairs) {
    Record& record = call.parameters<Record>();
    ((record.*(pairs.first) = static_cast<std::remove_reference_t<decltype(record.*(pairs.first))>>(pairs.second)),
     ...);
}

template <class... Names>
void without(Call& call, Names... names) {
    ((call.array(names).is_null = true), ...);
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
using Cells3D = Cellular3D_Parameters;

const std::vector<Row>& table() {
    static const std::vector<Row> rows = {
        {"shaper, masked", thermal_shaper_call, 37, 29, nullptr, {{"heights", 0x42EFBFECu}}},
        {"shaper, the other side",
         thermal_shaper_call,
         40,
         24,
         [](Call& c) {
             without(c, "mask");
             set<Shaper>(c, std::pair{&Shaper::rate, 0.3f}, std::pair{&Shaper::level_multiplier, 0.15f});
         },
         {{"heights", 0x72E5B489u}}},
        {"shaper, one iteration",
         thermal_shaper_call,
         20,
         24,
         [](Call& c) {
             set<Shaper>(c, std::pair{&Shaper::level_multiplier, 0.02f});
         },
         {{"heights", 0xB5003EF9u}}},
        {"thermal, masked",
         thermal_call,
         24,
         20,
         nullptr,
         {{"heights", 0xD797443Cu}, {"depth", 0x37FAD4C3u}, {"wear", 0xBAFDD816u}}},
        {"thermal, odd",
         thermal_call,
         37,
         29,
         [](Call& c) {
             without(c, "erosion_mask", "absorption_mask");
             set<Thermal>(c, std::pair{&Thermal::duration, 43.0f / 2560.0f}, std::pair{&Thermal::curvature_bias, 0.25f},
                          std::pair{&Thermal::feature_size, 11.0f});
         },
         {{"heights", 0xF5FE29D3u}, {"depth", 0xCBCF8325u}, {"wear", 0x29ED9ACEu}}},
        {"thermal, one level",
         thermal_call,
         20,
         24,
         [](Call& c) {
             set<Thermal>(c, std::pair{&Thermal::duration, 33.0f / 2560.0f}, std::pair{&Thermal::feature_size, 1.5f});
         },
         {{"heights", 0xC16246B9u}, {"depth", 0xD9CB325Cu}, {"wear", 0x65E6D75Au}}},
        {"erosion",
         erosion_call,
         60,
         52,
         [](Call& c) { without(c, "spawn_map"); },
         {{"height", 0xE3723A82u}, {"flow", 0xB063659Cu}, {"sediment", 0xCA4D0CFBu}, {"wear", 0x9FD2FE22u}}},
        {"erosion, where it rains",
         erosion_call,
         60,
         52,
         nullptr,
         {{"height", 0x92EFE7A3u}, {"flow", 0x0B4BCAD7u}, {"sediment", 0x60FEA29Fu}, {"wear", 0x47EA0693u}}},
        {"erosion, deep",
         erosion_call,
         101,
         67,
         [](Call& c) {
             set<Erosion>(c, std::pair{&Erosion::feature_size, 60.0f}, std::pair{&Erosion::iterations, 24.0f},
                          std::pair{&Erosion::plain_angle, 30.0f}, std::pair{&Erosion::fill_angle, 60.0f},
                          std::pair{&Erosion::shaping_detail, 0.5f}, std::pair{&Erosion::constant_capacity, 0.75f});
         },
         {{"height", 0x6EA48B29u}, {"flow", 0xF911C7ADu}, {"sediment", 0x9916413Bu}, {"wear", 0x679124CCu}}},
        {"dunes",
         dunes_call,
         64,
         48,
         nullptr,
         {{"height", 0x68631573u}, {"sand", 0x5016B286u}, {"wind_trace", 0x44B0E09Cu}}},
        {"dunes, odd and narrow",
         dunes_call,
         33,
         47,
         [](Call& c) {
             set<Dunes>(c, std::pair{&Dunes::duration, 12.0f / 2560.0f});
         },
         {{"height", 0x11CD13FCu}, {"sand", 0x2E7E4F48u}, {"wind_trace", 0xA8BB66D5u}}},
        {"debris",
         debris_call,
         96,
         0,
         nullptr,
         {{"height", 0x3502D1F0u}, {"rock_id", 0x287DCCFFu}, {"coverage", 0xE6BC4198u}, {"speed", 0x9DD0E469u}}},
        {"debris, of all sizes alike",
         debris_call,
         67,
         0,
         [](Call& c) {
             set<Debris>(c, std::pair{&Debris::favour_small, 0}, std::pair{&Debris::draw_unmoved, 0},
                         std::pair{&Debris::count, 200}, std::pair{&Debris::max_size, 14.0f},
                         std::pair{&Debris::friction, 0.05f});
         },
         {{"height", 0xCA8861C2u}, {"rock_id", 0x8F00E9FCu}, {"coverage", 0xBB5C47D5u}, {"speed", 0x99C79B8Bu}}},
        {"flow", flow_call, 60, 40, nullptr, {{"flow_map", 0x8BE3EBBEu}}},
        {"flow over filled pits", flow_call, 520, 21, [](Call& c) { without(c, "mask"); }, {{"flow_map", 0x5E163E9Au}}},
        {"colour",
         color_transport_call,
         60,
         40,
         nullptr,
         {{"red", 0x46D548B9u}, {"green", 0x0F1C918Du}, {"blue", 0xCFFADEC8u}}},
        {"colour over filled pits",
         color_transport_call,
         520,
         21,
         [](Call& c) {
             without(c, "mask", "length_map");
             set<Color>(c, std::pair{&Color::straight_trails, 1}, std::pair{&Color::transport, 0.96875f});
         },
         {{"red", 0xEF6F12EFu}, {"green", 0x53D82466u}, {"blue", 0x4630A108u}}},
        {"light",
         shade_call,
         40,
         40,
         nullptr,
         {{"diffuse", 0xD8E87BE9u},
          {"shadow", 0x7FD8F0DEu},
          {"ao", 0x131ADFE5u},
          {"red", 0xB94BD098u},
          {"green", 0xB970560Fu},
          {"blue", 0x6E5C40C7u}}},
        {"light, grey and hybrid",
         shade_call,
         66,
         66,
         [](Call& c) {
             without(c, "albedo_green");
             set<Light>(c, std::pair{&Light::hybrid_ao, 1}, std::pair{&Light::hybrid_ao_levels, 3},
                        std::pair{&Light::sun_rings, -8});
         },
         {{"diffuse", 0xF9FC3C74u},
          {"shadow", 0x39854432u},
          {"ao", 0x288607E2u},
          {"red", 0x7D050E9Eu},
          {"green", 0xBF47B7CCu},
          {"blue", 0xDC164BB1u}}},
        {"light, four rays and many of the sky",
         shade_call,
         34,
         34,
         [](Call& c) {
             set<Light>(c, std::pair{&Light::ao_subdivisions, 3}, std::pair{&Light::sun_rings, -4});
         },
         {{"diffuse", 0x6A954CE7u},
          {"shadow", 0x75EF5B02u},
          {"ao", 0x0166F426u},
          {"red", 0x307F9623u},
          {"green", 0xB7ECFE1Cu},
          {"blue", 0x4EA6D4DEu}}},
        {"light, wide",
         shade_call,
         301,
         90,
         nullptr,
         {{"diffuse", 0x8D82C76Bu},
          {"shadow", 0x5F2A5ECDu},
          {"ao", 0x910D9AB9u},
          {"red", 0x944FD562u},
          {"green", 0xF6419635u},
          {"blue", 0x6216F629u}}},
        {"light, tall, odd and hybrid",
         shade_call,
         77,
         261,
         [](Call& c) {
             without(c, "albedo_green");
             set<Light>(c, std::pair{&Light::hybrid_ao_levels, 4}, std::pair{&Light::sun_rings, -8});
         },
         {{"diffuse", 0xF16AB819u},
          {"shadow", 0x6D9048FBu},
          {"ao", 0x9E146BE2u},
          {"red", 0x24542F12u},
          {"green", 0x8A732603u},
          {"blue", 0xB191F407u}}},
        {"sun of winter, wide", sun_light_call, 301, 60, nullptr, {{"result", 0xA59F2332u}}},
        {"sun of winter", sun_light_call, 40, 40, nullptr, {{"result", 0x5710F74Cu}}},
        {"sun of a day",
         sun_light_call,
         34,
         34,
         [](Call& c) {
             set<Light>(c, std::pair{&Light::first_day, 172}, std::pair{&Light::last_day, 172},
                        std::pair{&Light::latitude, -20.0f}, std::pair{&Light::haze, 0.0f});
         },
         {{"result", 0x934C3696u}}},
        {"mesh", render_mesh_call, 70, 50, nullptr, {{"height", 0x0FFECB53u}, {"noise", 0x00440D0Fu}}},
        {"mesh, supersampled",
         render_mesh_call,
         41,
         51,
         [](Call& c) {
             set<Mesh>(c, std::pair{&Mesh::supersample, 1}, std::pair{&Mesh::rest_on_floor, 1},
                       std::pair{&Mesh::offset_x, 0.125f}, std::pair{&Mesh::offset_y, -0.25f},
                       std::pair{&Mesh::offset_z, 0.25f});
         },
         {{"height", 0xE8254A6Cu}, {"noise", 0x1C39BFEBu}}},
        {"displaced mesh", displacement_call, 60, 44, nullptr, {{"height", 0x28C368E2u}}},
        {"displaced mesh, sideways",
         displacement_call,
         45,
         60,
         [](Call& c) {
             set<Mesh>(c, std::pair{&Mesh::supersample, 1}, std::pair{&Mesh::horizontal_displacement, 1});
         },
         {{"height", 0xCE116068u}}},
        {"baked normals",
         normals_call,
         90,
         70,
         nullptr,
         {{"red", 0xEAF46821u}, {"green", 0x6B9E2FD6u}, {"blue", 0xC0526FFBu}, {"hit_positions", 0x46E5E870u}}},
        {"points",
         point_cloud_call,
         60,
         44,
         nullptr,
         {{"height", 0xFD954CABu},
          {"noise", 0x6628FC5Eu},
          {"red", 0xB117556Eu},
          {"green", 0x3658D51Bu},
          {"blue", 0xD988DA65u}}},
        {"points without an image",
         point_cloud_call,
         45,
         33,
         [](Call& c) { without(c, "green"); },
         {{"height", 0x746A76A3u}, {"noise", 0x0F08FB51u}}},
        {"stamps",
         stamps_call,
         70,
         50,
         nullptr,
         {{"heights", 0x15F3BC15u}, {"ids", 0x201AC130u}, {"instances", 0xCC2159D2u}}},
        {"median", median_filter_call, 32, 0, nullptr, {{"data", 0x80E3478Fu}}},
        {"median, wide",
         median_filter_call,
         64,
         0,
         [](Call& c) {
             set<Median>(c, std::pair{&Median::radius, 8}, std::pair{&Median::iterations, 1});
         },
         {{"data", 0xD8707117u}}},
        {"cells", cellular_call, 64, 50, nullptr, {{"height", 0x20686E58u}, {"random", 0x6CEE6375u}}},
        {"cells by xorshift",
         cellular_call,
         45,
         64,
         [](Call& c) {
             without(c, "gap_factor");
             set<Cells3D>(c, std::pair{&Cells3D::hash_variant, 1}, std::pair{&Cells3D::jitter_x, 0.25f});
         },
         {{"height", 0x8ECCEE92u}, {"random", 0x73F758E7u}}},
    };
    return rows;
}

/// On one thread, so that what several write in any order is the same each time.
Call made(const Row& row) {
    const Threads one(1);
    sycl::queue queue = cpu_queue();
    RecordingHost host;
    Call call = row.factory(row.width, row.height);
    if (row.change != nullptr)
        row.change(call);
    EXPECT_EQ(call.run(queue, host), ok) << row.run;
    return call;
}

TEST(GoldenBits, AreThoseOfScalarPrograms) {
    for (const Row& row : table()) {
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
        Call before = row.factory(row.width, row.height);
        std::printf("%s: {", row.run);
        for (const Array& array : call.arrays)
            if (!same_bits(array.values, before[array.name]))
                std::printf("{\"%s\", 0x%08Xu}, ", array.name.c_str(), checksum(array.values));
        std::printf("}\n");
    }
}

} // namespace
