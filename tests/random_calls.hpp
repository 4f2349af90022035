// Random calls of the exports, and what every call promises. A call is drawn from the seed and its number alone.
#pragma once

#include <tarn/oneapi.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <type_traits>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#define ASAN_UNPOISON_MEMORY_REGION(address, bytes) ((void)(address), (void)(bytes))
#endif

namespace random_calls {

inline struct Options {
    std::uint64_t seed = 1;
    std::array<int, 2> sides{1, 96}; ///< of the grids; with these limits some are larger
    bool valid_only = false;
} options;

/// What the host has been called back with during the current call, and when it cancels and throws.
inline struct Seen {
    int reports, questions, errors, acquisitions, releases, cancel_at, throw_at;
    bool called, cancelled, thrown, bad_percent;
    std::size_t acquired, released;
    char last_error[256];
} seen;

inline void on_progress(double percent) {
    seen.bad_percent |= !(percent >= 0.0 && percent <= 100.5);
    if (++seen.reports == seen.throw_at) {
        seen.thrown = true;
        throw std::runtime_error("progress");
    }
}

inline bool on_is_cancelled() {
    return seen.cancelled |= ++seen.questions == seen.cancel_at;
}

inline void on_log_error(const char* text) {
    ++seen.errors;
    std::strncpy(seen.last_error, text, sizeof(seen.last_error) - 1);
}

inline void on_acquire_memory(std::size_t bytes) {
    ++seen.acquisitions;
    seen.acquired = bytes;
}

inline void on_release_memory(std::size_t bytes) {
    ++seen.releases;
    seen.released = bytes;
}

inline const HostCallbacks host = {on_progress,  on_is_cancelled,   [](const char*) {}, nullptr,
                                   on_log_error, on_acquire_memory, on_release_memory,  nullptr};
inline SyclQueue* host_queue;
/// Called with true right before an export and with false after it.
inline void (*around_call)(bool before) = [](bool) {
};

enum class Use { in, out, unordered }; // unordered: need not repeat to the bit on several threads

/// Memory of the caller between guards, which nobody may read or write during the call.
class Array {
  public:
    Array(const char* array_name, Use array_use, std::size_t bytes, std::size_t offset)
        : name(array_name), use(array_use), block_(2 * guard + bytes + offset, filling),
          data_(block_.data() + guard + offset), bytes_(bytes) {}
    ~Array() { open(); }
    Array(const Array&) = delete;

    std::byte* data() { return data_; }
    void close() {
        before_ = block_;
        ASAN_POISON_MEMORY_REGION(block_.data(), guard);
        ASAN_POISON_MEMORY_REGION(data_ + bytes_, guard);
    }
    void open() { ASAN_UNPOISON_MEMORY_REGION(block_.data(), block_.size()); }
    bool is_unchanged() const { return block_ == before_; }
    bool guards_are_intact() const {
        const std::ptrdiff_t begin = data_ - block_.data(), end = begin + static_cast<std::ptrdiff_t>(bytes_);
        return std::equal(block_.begin(), block_.begin() + begin, before_.begin()) &&
               std::equal(block_.begin() + end, block_.end(), before_.begin() + end);
    }
    /// FNV-1a over words of 32 bits; all that is not a number counts as the same.
    std::uint64_t hash() const {
        std::uint64_t result = 0xCBF29CE484222325u;
        for (std::size_t at = 0; at + 4 <= bytes_; at += 4) {
            std::uint32_t word;
            std::memcpy(&word, data_ + at, 4);
            result = (result ^ ((word & 0x7FFFFFFFu) > 0x7F800000u ? 0x7FC00000u : word)) * 0x100000001B3u;
        }
        return result;
    }

    const char* name;
    Use use;

  private:
    static constexpr std::size_t guard = 128;
    static constexpr std::byte filling{0x3E};
    std::vector<std::byte> block_, before_;
    std::byte* data_;
    std::size_t bytes_;
};

inline constexpr float nan = std::numeric_limits<float>::quiet_NaN(), infinity = std::numeric_limits<float>::infinity();
inline constexpr float bad_values[] = {0.0f,  -0.0f,  -1.0f,  nan,    infinity, -infinity,
                                       1e30f, -1e30f, 1e-40f, 1e-30f, 3.4e38f};
/// For what would be honest but heavy work if it were large, or tiny.
inline constexpr float bad_factors[] = {0.0f, -1.0f, nan, infinity, -infinity};
inline constexpr int bad_numbers[] = {0, -1, INT32_MIN};
/// Sizes that no array can have: each must be refused.
inline constexpr TarnInt2 bad_sizes[] = {{0, 5},   {5, 0},         {-1, 7},       {7, INT32_MIN},
                                         {-3, -3}, {INT32_MAX, 2}, {65536, 65536}};

struct Around {
    Around() {
        seen.called = true;
        around_call(true);
    }
    ~Around() { around_call(false); }
};

/// One call: draws its arguments and owns their memory.
class Call {
  public:
    explicit Call(std::uint64_t call_number)
        : number(call_number), random_(options.seed << 40 ^ number), hostile(from(0, 3) > 0 && !options.valid_only),
          queue(or_null(host_queue)), callbacks(or_null(&host)) {
        seen = {};
        seen.cancel_at = spoils(0.1f) ? from(1, 12) : 0;
        seen.throw_at = spoils() ? from(1, 4) : 0;
    }

    int from(int low, int high) {
        return low + static_cast<int>(random_() % static_cast<std::uint64_t>(std::int64_t{high} - low + 1));
    }
    template <class T>
    const T& one_of(std::span<const T> values) {
        return values[random_() % values.size()];
    }
    float unit() { return static_cast<float>(random_() >> 40) * 0x1p-24f; }
    bool chance(float share) { return unit() < share; }
    /// Whether to draw something hostile.
    bool spoils(float share = 0.03f) { return hostile && chance(share); }
    float real(float low, float high, std::span<const float> bad = bad_values) {
        const float good = low + unit() * (high - low);
        return spoils() ? one_of(bad) : good;
    }
    float share() { return real(0.0f, 1.0f); }
    float degrees() { return real(0.0f, 45.0f); }
    float size() { return real(100.0f, 10000.0f); }
    int whole(int low, int high, int above) {
        const int good = from(low, high);
        return !spoils() ? good : chance(0.5f) ? above : one_of<int>(bad_numbers);
    }
    std::uint8_t flag() { return static_cast<std::uint8_t>(chance(0.5f) ? from(1, 255) : 0); }
    std::uint32_t seed() { return static_cast<std::uint32_t>(random_()); }
    std::uint32_t count(int most) { return static_cast<std::uint32_t>(from(0, most)); }

    /// Draws the size of the grids; `limit` is for what is heavy.
    void draw_size(int limit = 512) {
        const int low = std::min(options.sides[0], limit), high = std::min(options.sides[1], limit);
        const bool large = low == 1 && high == 96 && from(0, 199) == 0;
        width = large ? from(limit / 2, limit) : from(low, high);
        height = large ? from(limit / 2, limit) : from(low, high);
        const int kind = low > 1 ? 9 : from(0, 9);
        if (kind < 2)
            width = 1;
        if (kind == 0 || kind == 2)
            height = 1;
        if (kind == 3)
            width = height |= 1;
        if (kind == 4)
            width = height = 1 << from(1, 6);
        claimed = spoils() ? one_of<TarnInt2>(bad_sizes) : TarnInt2{width, height};
    }
    void draw_square(int multiple, int limit = 512) {
        draw_size(limit);
        const bool is_claimed = claimed.x == width && claimed.y == height;
        width = height = std::max(width / multiple, 1) * multiple;
        if (is_claimed)
            claimed = {width, height};
    }
    /// For records with one side of a square; 0 if the sides that the record would tell differ.
    std::uint32_t claimed_side() const { return claimed.x == claimed.y ? static_cast<std::uint32_t>(claimed.x) : 0u; }
    std::size_t cells() const { return static_cast<std::size_t>(width) * static_cast<std::size_t>(height); }

    template <class T>
    T* or_null(T* data) {
        const bool null = spoils(0.01f);
        has_null |= null;
        return null ? nullptr : data;
    }
    template <class T>
    T* array(const char* name, Use use, std::size_t count) {
        const std::size_t offset = alignof(T) <= 4 && chance(0.3f) ? 4 : 0; // no more than floats need
        arrays.push_back(std::make_unique<Array>(name, use, count * sizeof(T), offset));
        return reinterpret_cast<T*>(arrays.back()->data());
    }
    /// A parameter record. The call may write to it if `use` is not in.
    template <class T>
    T* record(const T& values, Use use = Use::in) {
        T* copy = array<T>("record", use, 1);
        *copy = values;
        return or_null(copy);
    }
    float* out(const char* name, Use use = Use::out) { return or_null(array<float>(name, use, cells())); }
    /// Smooth or rough relief from 0 to 1, level ground or steps.
    float* terrain(const char* name, Use use = Use::in) {
        float* data = array<float>(name, use, cells());
        const float fx = 0.3f * unit(), fy = 0.3f * unit(), shift = 6.0f * unit();
        const float rough = chance(0.3f) ? unit() : 0.1f * unit();
        const int kind = from(0, 9);
        for (std::size_t i = 0; i < cells(); ++i) {
            const auto x = static_cast<float>(i % static_cast<std::size_t>(width));
            const auto y = static_cast<float>(i / static_cast<std::size_t>(width));
            const float wave = 0.5f + 0.5f * std::sin(x * fx + shift) * std::cos(y * fy - shift);
            const float cell = (1.0f - rough) * wave + rough * unit();
            data[i] = kind == 0 ? 0.25f : kind == 1 ? std::floor(cell * 8.0f) / 8.0f : cell;
        }
        spoil({data, cells()}, 0.15f);
        return or_null(data);
    }
    float* mask(const char* name) { return chance(0.4f) ? nullptr : terrain(name); }
    void spoil(std::span<float> values, float share) {
        if (spoils(share))
            for (int n = from(1, 4); n > 0; --n)
                values[random_() % values.size()] = one_of<float>(bad_values);
    }

    /// Calls an export: with the queue, these arguments, and the callbacks if it takes them.
    template <class Function, class... Arguments>
    std::uint32_t run(Function* function, std::tuple<Arguments...> arguments) {
        for (const auto& each : arrays)
            each->close();
        const auto call = [&](auto... each) {
            const Around around;
            if constexpr (std::is_invocable_v<Function*, SyclQueue*, Arguments..., const HostCallbacks*>)
                return function(queue, each..., callbacks);
            else
                return function(queue, each...);
        };
        return std::apply(call, arguments);
    }

    std::uint64_t number;
    bool has_null = false;

  private:
    std::mt19937_64 random_;

  public:
    bool hostile;
    SyclQueue* queue;
    const HostCallbacks* callbacks;
    int width = 1, height = 1;
    TarnInt2 claimed{}; ///< the size that the record tells
    std::vector<std::unique_ptr<Array>> arrays;
};

// One function an export. Records are filled in the order of their fields, with what a host would usually give.

inline std::uint32_t thermal_shaper(Call& c) {
    c.draw_size();
    const float size = c.size(), feature = c.real(1.0f, 20.0f) * size / static_cast<float>(c.width);
    const auto* p = c.record(thermal_shaper_Parameters{c.claimed.x, c.claimed.y, size, c.real(2.0f, 20.0f) * size,
                                                       feature, c.share(), c.real(-2.0f, 2.0f), c.real(0.0f, 1.5f)});
    return c.run(ThermalShaper_Process, std::tuple{c.terrain("heights", Use::out), c.mask("mask"), p});
}

inline std::uint32_t thermal_simulation(Call& c) {
    c.draw_size(256);
    const float size = c.size(), vertical = c.real(0.05f, 0.5f) * size, feature = c.real(0.01f, 0.5f) * size;
    const auto* p =
        c.record(thermal_Parameters{c.claimed.x, c.claimed.y, c.real(0.0f, 0.03f), c.real(0.0f, 2.0f), c.share(),
                                    c.degrees(), feature, size, vertical, c.share(), c.flag(), c.flag()});
    return c.run(ThermalSimulation, std::tuple{c.terrain("heights", Use::out), c.out("depth"), c.out("wear"),
                                               c.mask("erosion_mask"), c.mask("absorption_mask"), p});
}

inline std::uint32_t erosion(Call& c) {
    c.draw_size(384);
    const parallel_erosion_Resolution resolution{static_cast<std::uint32_t>(c.claimed.x),
                                                 static_cast<std::uint32_t>(c.claimed.y)};
    const float size = c.size(), vertical = c.real(0.05f, 0.5f) * size, feature = c.real(0.01f, 0.5f) * size;
    const auto* p = c.record(parallel_erosion_Parameters{resolution,
                                                         size,
                                                         vertical,
                                                         feature,
                                                         0.0f,
                                                         c.real(0.0f, 12.0f),
                                                         0.0f,
                                                         c.seed(),
                                                         c.share(),
                                                         0.0f,
                                                         c.real(-0.2f, 1.0f),
                                                         c.share(),
                                                         c.share(),
                                                         c.real(0.0f, 2.0f),
                                                         c.degrees(),
                                                         c.share(),
                                                         c.degrees(),
                                                         c.share(),
                                                         c.degrees(),
                                                         c.share()});
    return c.run(ParallelErosionSimulation,
                 std::tuple{c.terrain("height", Use::out), c.mask("spawn_map"), c.out("flow"), c.out("sediment"),
                            static_cast<const void*>(nullptr), c.out("wear"), p});
}

inline std::uint32_t dunes(Call& c) {
    c.draw_size(256);
    const float size = c.size(), vertical = c.real(0.005f, 0.5f) * size;
    const auto* p = c.record(arrakis_Parameters{c.claimed.x, c.claimed.y, c.real(0.0f, 0.02f), 0.0f, 0.0f, c.degrees(),
                                                c.real(1.0f, 100.0f), size, vertical});
    return c.run(DuneSimulation, std::tuple{c.terrain("height", Use::unordered), c.terrain("sand", Use::unordered),
                                            c.out("wind_trace", Use::unordered), p});
}

inline std::uint32_t debris(Call& c) {
    c.draw_square(1);
    const float size = c.size(), vertical = c.real(0.05f, 0.5f) * size;
    const float radius = (c.spoils() ? 15000.0f : c.real(0.5f, 8.0f)) * size / static_cast<float>(c.width);
    const auto* p =
        c.record(debris_Parameters{c.claimed_side(), size, vertical, c.count(200), radius, c.share() * radius,
                                   c.share(), c.share(), 0.0f, c.flag(), c.flag(), c.seed()});
    return c.run(DebrisSimulation, std::tuple{c.terrain("height", Use::out), c.out("rock_id", Use::unordered),
                                              c.out("coverage"), c.out("speed", Use::unordered), p});
}

inline std::uint32_t flow(Call& c) {
    c.draw_size();
    const auto* p = c.record(flow_Parameters{c.claimed.x, c.claimed.y, c.share(), c.real(0.0f, 10.0f), c.seed()});
    return c.run(FlowSimulation, std::tuple{c.terrain("heights"), c.out("flow_map"), c.mask("mask"), p});
}

inline std::uint32_t color_transport(Call& c) {
    c.draw_size();
    const auto* p = c.record(color_transport_Parameters{c.claimed.x, c.claimed.y, c.share(), c.share(), c.share(),
                                                        c.real(0.0f, 10.0f), c.share(), c.flag(), c.seed()});
    return c.run(ColorTransportSimulation,
                 std::tuple{c.terrain("heights"), c.terrain("red", Use::unordered), c.terrain("green", Use::unordered),
                            c.terrain("blue", Use::unordered), c.mask("mask"), c.mask("length_map"), p});
}

/// Any size in hostile calls, of which some are refused.
inline void draw_size_in_light(Call& c, int limit = 512) {
    c.hostile ? c.draw_size(limit) : c.draw_square(2, limit);
}

inline const lighting_Parameters* lighting(Call& c) {
    constexpr int rings[] = {-8, -4, -1, 0, 1, 2};
    const int levels = static_cast<int>(std::bit_width(static_cast<unsigned>(c.width)));
    const float azimuth = c.real(0.0f, 6.28f), altitude = c.real(-0.2f, 1.57f);
    lighting_Parameters p{};
    p.resolution = {c.claimed.x, c.claimed.y};
    p.terrain_size = c.size();
    p.terrain_height = c.real(0.05f, 0.5f) * p.terrain_size;
    p.sun_direction[0] = std::cos(altitude) * std::cos(azimuth);
    p.sun_direction[1] = std::cos(altitude) * std::sin(azimuth);
    p.sun_direction[2] = std::sin(altitude);
    p.sun_rings = c.spoils() ? c.from(-9, 18) : c.one_of<int>(rings);
    p.sun_diameter = c.real(0.0f, 5.0f);
    p.hybrid_ao = c.flag();
    p.ao_subdivisions = c.whole(0, 2, 4);
    p.hybrid_ao_subdivisions = c.whole(0, 2, 4);
    p.hybrid_ao_levels = c.whole(0, levels, levels + 1);
    for (float* light : {&p.exposure, &p.sun_intensity, &p.ambient_intensity, &p.sun_color[0], &p.sun_color[1],
                         &p.sun_color[2], &p.ambient_color[0], &p.ambient_color[1], &p.ambient_color[2], &p.albedo})
        *light = c.real(0.0f, 2.0f);
    p.first_day = c.whole(1, 365, INT32_MAX);
    p.last_day = c.whole(1, 365, INT32_MAX);
    p.latitude = c.real(-90.0f, 90.0f);
    p.north_offset = c.real(-180.0f, 180.0f);
    p.haze = c.share();
    for (std::uint8_t* flag : {&p.direct_light, &p.ambient_light, &p.shadows, &p.ambient_occlusion, &p.ao_supplied})
        *flag = c.flag();
    return c.record(p);
}

inline std::uint32_t shade(Call& c) {
    draw_size_in_light(c);
    return c.run(Shade, std::tuple{c.terrain("heights"), c.out("diffuse"), c.out("shadow"), c.terrain("ao", Use::out),
                                   c.out("red"), c.out("green"), c.out("blue"), c.mask("albedo_red"),
                                   c.mask("albedo_green"), c.mask("albedo_blue"), lighting(c)});
}

inline std::uint32_t sun_light_integral(Call& c) {
    draw_size_in_light(c, 128);
    return c.run(SunLightIntegral, std::tuple{c.terrain("heights"), c.out("result"), lighting(c)});
}

inline mesh_rasterizer_Parameters mesh_parameters(Call& c, std::uint32_t point_count = 0) {
    mesh_rasterizer_Parameters p{};
    p.resolution = c.claimed;
    p.point_count = point_count;
    p.vertical_scale = c.real(0.1f, 2.0f);
    for (float* angle : {&p.rotation_x, &p.rotation_y, &p.rotation_z})
        *angle = c.real(-180.0f, 180.0f);
    p.scale = c.real(0.2f, 2.0f);
    for (float* offset : {&p.offset_x, &p.offset_y, &p.offset_z, &p.displacement_amount, &p.displacement_bias})
        *offset = c.real(-0.4f, 0.4f);
    for (std::uint8_t* flag : {&p.horizontal_displacement, &p.rest_on_floor, &p.supersample})
        *flag = c.flag();
    return p;
}

/// A wavy sheet over the unit square, or a soup of triangles around it.
inline const mesh_rasterizer_MeshView* mesh(Call& c) {
    const bool soup = c.chance(0.4f);
    const auto side = static_cast<std::uint32_t>(c.from(2, 9));
    const std::uint32_t vertex_count = side * side, triangle_count = 2 * (side - 1) * (side - 1);
    auto* vertices = c.array<TarnFloat3>("vertices", Use::in, vertex_count);
    auto* normals = c.array<TarnFloat3>("normals", Use::in, vertex_count);
    auto* triangles = c.array<TarnUint3>("triangles", Use::in, triangle_count);
    for (std::uint32_t i = 0; i < vertex_count; ++i) {
        const float step = 1.0f / static_cast<float>(side - 1);
        vertices[i] = {static_cast<float>(i % side) * step, static_cast<float>(i / side) * step, 0.3f * c.unit(), 0.0f};
        if (soup)
            vertices[i] = {c.unit(), 1.2f * c.unit(), c.unit(), 0.0f};
        normals[i] = {c.unit() - 0.5f, c.unit() - 0.5f, c.unit(), 0.0f};
        for (float* value : {&vertices[i].x, &vertices[i].y, &vertices[i].z, &normals[i].x, &normals[i].z})
            c.spoil({value, 1}, 0.001f);
    }
    const auto corner = [&](std::uint32_t ordered) {
        if (c.spoils(0.0003f))
            return c.chance(0.5f) ? vertex_count : UINT32_MAX;
        return soup ? c.count(static_cast<int>(vertex_count) - 1) : ordered;
    };
    for (std::uint32_t i = 0; i < triangle_count; ++i) {
        const std::uint32_t at = i / 2 / (side - 1) * side + i / 2 % (side - 1);
        triangles[i] = i % 2 == 0 ? TarnUint3{corner(at), corner(at + side), corner(at + 1), 0}
                                  : TarnUint3{corner(at + 1), corner(at + side), corner(at + side + 1), 0};
    }
    return c.record(mesh_rasterizer_MeshView{c.or_null(vertices), c.spoils(0.01f) ? 0x80000000u : vertex_count,
                                             c.or_null(triangles), c.spoils(0.01f) ? 0u : triangle_count,
                                             c.or_null(normals)});
}

inline std::uint32_t render_mesh(Call& c) {
    c.draw_size(256);
    auto* p = c.record(mesh_parameters(c), Use::out);
    float* noise = c.chance(0.3f) ? nullptr : c.out("noise", Use::unordered);
    return c.run(MeshRasterizer_RenderMesh, std::tuple{mesh(c), c.terrain("height", Use::out), noise, p});
}

inline std::uint32_t render_displaced(Call& c) {
    c.draw_size(256);
    auto* p = c.record(mesh_parameters(c), Use::out);
    const float* map = c.terrain("map");
    return c.run(MeshRasterizer_RenderMeshWithTriplanarDisplacement,
                 std::tuple{mesh(c), c.terrain("height", Use::out), map, c.chance(0.5f) ? map : c.terrain("xz_map"),
                            c.chance(0.5f) ? map : c.terrain("yz_map"), p});
}

inline std::uint32_t render_point_cloud(Call& c) {
    c.draw_size(256);
    const auto count = static_cast<std::uint32_t>(c.from(3, 200));
    const std::uint32_t told = !c.spoils() ? count : c.chance(0.3f) ? UINT32_MAX : c.count(2);
    auto* points = c.array<float>("points", Use::in, 3 * count);
    const bool in_line = c.spoils();
    for (std::uint32_t i = 0; i < count; ++i) {
        points[3 * i] = (1.2f * c.unit() - 0.1f) * static_cast<float>(c.width);
        points[3 * i + 1] = in_line ? 0.5f : (1.2f * c.unit() - 0.1f) * static_cast<float>(c.height);
        points[3 * i + 2] = c.unit();
    }
    c.spoil({points, 3 * count}, 0.1f);
    const bool colored = c.chance(0.5f);
    const auto color = [&](const char* name) {
        return colored ? c.terrain(name, Use::out) : nullptr;
    };
    return c.run(MeshRasterizer_RenderPointCloud,
                 std::tuple{c.or_null(points), c.terrain("height", Use::out), c.out("noise"), color("red"),
                            color("green"), color("blue"), c.record(mesh_parameters(c, told))});
}

inline std::uint32_t bake_normals(Call& c) {
    c.draw_size(256);
    return c.run(MeshRasterizer_ComputeTangentSpaceNormals,
                 std::tuple{mesh(c), c.terrain("height"), c.out("red"), c.out("green"), c.out("blue"),
                            c.or_null(c.array<TarnFloat2>("hit_positions", Use::out, c.cells())),
                            c.record(mesh_parameters(c))});
}

inline std::uint32_t stamps(Call& c) {
    c.draw_size();
    const int width = c.from(1, 20), height = c.from(1, 20), count = c.from(1, 4), instance_count = c.from(0, 60);
    const auto floats = static_cast<std::size_t>(width * height * count);
    auto* values = c.array<float>("stamps", Use::in, floats);
    std::generate_n(values, floats, [&] { return c.chance(0.1f) ? 0.0f : 0.2f * c.unit(); });
    auto* instances =
        c.array<stamp_instancer_Instance>("instances", Use::out, static_cast<std::size_t>(instance_count));
    for (int i = 0; i < instance_count; ++i) {
        instances[i].position.x = c.real(-5.0f, static_cast<float>(c.width + 5));
        instances[i].position.y = c.real(-5.0f, static_cast<float>(c.height + 5));
        instances[i].stamp = c.count(c.spoils(0.001f) ? INT32_MAX : count - 1);
    }
    const auto told = [&](int value) {
        return c.whole(value, value, -value);
    };
    const auto* p = c.record(stamp_instancer_Parameters{c.claimed.x, c.claimed.y, told(width), told(height * count),
                                                        told(width), told(height), told(instance_count)});
    return c.run(StampInstancer_Populate, std::tuple{c.terrain("heights", Use::out), c.out("ids", Use::unordered),
                                                     c.or_null(values), c.or_null(instances), p});
}

inline std::uint32_t median(Call& c) {
    c.draw_square(c.spoils() ? 1 : 32);
    const auto* p = c.record(median_filter_Parameters{c.claimed_side(), c.whole(1, 8, INT32_MAX), c.count(2)});
    return c.run(MedianFilter, std::tuple{c.terrain("data", Use::out), p});
}

inline std::uint32_t cells(Call& c) {
    c.draw_size();
    Cellular3D_Parameters values{};
    values.grid_width = c.claimed.x;
    values.grid_height = c.claimed.y;
    values.cell_density = c.real(2.0f, 20.0f, bad_factors);
    values.gap = c.real(0.0f, 0.3f);
    for (float* factor : {&values.extent_x, &values.extent_y, &values.extent_z, &values.z_unit, &values.z_range})
        *factor = c.real(0.5f, 1.5f, bad_factors);
    for (float* jitter : {&values.jitter_x, &values.jitter_y, &values.jitter_z})
        *jitter = c.share();
    values.seed = c.seed();
    values.hash_variant = c.flag();
    auto* p = c.record(values, Use::out);
    return c.run(Cellular3D_Render,
                 std::tuple{c.terrain("height", Use::out), c.mask("gap_factor"), c.out("random"), p});
}

/// The functions of devices and queues; status 0 if they agree with one another.
inline std::uint32_t devices(Call& c) {
    constexpr const char* names[] = {"", "cpu", "/////", "cpu/a/b/c/d", "\xff\xfe", "discrete-gpu/Level Zero/a/b/1"};
    SyclQueue* made = CreateSyclQueue(c.or_null(c.one_of<const char*>(names)), c.callbacks);
    DeviceInfo* info = made != nullptr ? GetDeviceInfo(made) : nullptr;
    const bool agrees = made == nullptr || (info != nullptr && info->kind >= 0 && info->kind <= 5);
    FreeDeviceInfo(info);
    DestroySyclQueue(made);
    DeviceInfo* list = nullptr;
    std::int32_t count = -1;
    GetDevices(&list, &count);
    FreeDevices(list);
    return agrees && list != nullptr && count >= 1 ? status_ok : status_failed;
}

struct Export {
    const char* name;
    std::uint32_t (*run)(Call& call);
    bool has_only_status_ok = false;
};

inline constexpr Export exports[] = {{"ThermalShaper_Process", thermal_shaper},
                                     {"ThermalSimulation", thermal_simulation},
                                     {"ParallelErosionSimulation", erosion},
                                     {"DuneSimulation", dunes},
                                     {"DebrisSimulation", debris, true},
                                     {"FlowSimulation", flow},
                                     {"ColorTransportSimulation", color_transport},
                                     {"Shade", shade},
                                     {"SunLightIntegral", sun_light_integral},
                                     {"MeshRasterizer_RenderMesh", render_mesh},
                                     {"MeshRasterizer_RenderMeshWithTriplanarDisplacement", render_displaced},
                                     {"MeshRasterizer_RenderPointCloud", render_point_cloud},
                                     {"MeshRasterizer_ComputeTangentSpaceNormals", bake_normals},
                                     {"StampInstancer_Populate", stamps},
                                     {"MedianFilter", median, true},
                                     {"Cellular3D_Render", cells},
                                     {"devices", devices}};

/// Runs an export with what `call` draws for it. Returns the promises that it has broken.
inline std::vector<std::string> run(Call& call, const Export& called, std::uint32_t& status, bool& escaped) {
    std::vector<std::string> broken;
    const auto expect = [&](bool holds, const std::string& promise) {
        if (!holds)
            broken.push_back(promise);
    };
    status = status_failed;
    escaped = false;
    try {
        status = called.run(call);
    } catch (...) {
        if (!seen.called)
            throw; // this program's own
        escaped = true;
    }
    for (const auto& array : call.arrays)
        array->open();
    expect(status <= 3, "the status is one from 0 to 3");
    expect(!seen.bad_percent, "progress is a percentage");
    expect(seen.acquisitions == seen.releases && seen.acquired == seen.released, "acquire and release balance");
    expect(status != status_cancelled || seen.cancelled, "only a cancel ends in cancelled");
    expect(!seen.thrown || status == status_failed || called.has_only_status_ok, "an exception of the host fails");
    const bool refused = !options.valid_only && seen.reports == 0 && seen.acquisitions == 0 && called.run != devices &&
                         (status == status_failed || (called.has_only_status_ok && seen.errors > 0));
    const bool may_be_silent = call.callbacks == nullptr || called.run == sun_light_integral ||
                               (call.has_null && (called.run == thermal_shaper || called.run == cells));
    if (refused)
        expect(seen.errors == 1 || may_be_silent, "a refusal has one line");
    else if (!called.has_only_status_ok)
        expect(status >= status_out_of_memory || seen.errors == 0, "what succeeds logs no error");
    for (const auto& array : call.arrays) {
        expect(array->guards_are_intact(), std::string("nothing is written beside ") + array->name);
        expect((array->use != Use::in && !refused) || array->is_unchanged(), std::string(array->name) + " is kept");
    }
    return broken;
}

} // namespace random_calls
