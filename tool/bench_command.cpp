#include "commands.hpp"

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include <CLI/CLI.hpp>
#include <cpl_json.h>

#include "command.hpp"
#include "host.hpp"
#include "interrupt.hpp"
#include "message.hpp"
#include "named_grids.hpp"
#include "parser.hpp"

namespace {

namespace fs = std::filesystem;

/// For the inputs that have to be files.
class Folder {
  public:
    Folder() {
        std::string name = (fs::temp_directory_path() / "tarn-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw ToolError(ExitCode::unwritable_output,
                            "no folder can be made in " + fs::temp_directory_path().string());
        path_ = name;
    }
    ~Folder() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string file(const char* name) const { return (path_ / name).string(); }

  private:
    fs::path path_;
};

/// Hills of three sizes, in metres, with cells of 10 m.
Grid make_land(int side) {
    Grid land;
    land.width = land.height = side;
    land.cell_size = {10, 10};
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            double height = 0;
            for (const double length : {410.0, 89.0, 17.0})
                height += 0.9 * length * (std::sin(x * 6.28 / length + y / length) + std::cos(y * 6.28 / length));
            land.cells.push_back(static_cast<float>(height));
        }
    return land;
}

Grid make_stamp() {
    Grid stamp;
    stamp.width = stamp.height = 15;
    for (int i = 0; i < 15 * 15; ++i)
        stamp.cells.push_back(static_cast<float>(8 - std::hypot(i % 15 - 7, i / 15 - 7)));
    return stamp;
}

/// A surface of squares, and its vertices as a point cloud.
void write_model(const std::string& model_path, const std::string& points_path) {
    constexpr int side = 200;
    std::ofstream model(model_path), points(points_path);
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            const double height = 9 * std::sin(x * 0.1) * std::cos(y * 0.07);
            model << "v " << x << ' ' << y << ' ' << height << '\n';
            points << x + 0.3 * std::sin(x + 7 * y) << ',' << y + 0.3 * std::cos(5 * x + y) << ',' << height << '\n';
        }
    for (int y = 1; y < side; ++y)
        for (int x = 1; x < side; ++x) {
            const int a = (y - 1) * side + x, b = a + side;
            model << "f " << a << ' ' << a + 1 << ' ' << b << "\nf " << a + 1 << ' ' << b + 1 << ' ' << b << '\n';
        }
}

RunCost cost_of(const std::vector<std::string>& arguments) {
    const auto parser = make_parser();
    const auto run = prepare_arguments(*parser, arguments);
    take_run_cost();
    run();
    return take_run_cost();
}

/// As its maker calls it.
std::string name_of(const std::string& device) {
    for (const Device& listed : list_devices())
        if (listed.identity == device || (device == "cpu" && listed.identity.starts_with("cpu/")))
            return listed.name;
    return device;
}

void run_bench(int side, const std::string& device, bool as_json) {
    allow_grid_names();
    std::signal(SIGPIPE, SIG_IGN); // or the folder stays where `tarn bench | head` ends the run
    const InterruptGuard guard(InterruptGuard::Second::is_ignored); // likewise where Ctrl-C does
    const Folder folder;
    const std::string model = folder.file("model.obj"), points = folder.file("points.csv");
    const std::string picture = folder.file("picture.png"), other = folder.file("other.png");
    write_model(model, points);
    keep_grid("@land", make_land(side));
    keep_grid("@stamp", make_stamp());
    const std::string columns = std::to_string(side);
    const std::vector<std::vector<std::string>> runs{
        {"shape", "@land", "@out"},
        {"weather", "@land", "@out"},
        {"erode", "@land", "@out"},
        {"dunes", "@land", "@out", "--sand", "3", "--duration", "0.02"},
        {"debris", "@land", "@out"},
        {"flow", "@land", "@out"},
        {"shade", "@land", picture},
        {"colour", "@land", "--image", picture, other},
        {"sunlight", "@land", "@out", "--latitude", "45"},
        {"stamp", "@land", "@out", "--stamps", "@stamp", "--count", "1000"},
        {"median", "@land", "@out"},
        {"cells", "@land", "@out"},
        {"mesh", model, "@out", "--size", columns},
        {"mesh", model, "@out", "--size", columns, "--displacement", "@land", "--displacement-amount", "0.00001"},
        {"points", points, "@out", "--columns", columns},
        {"bake", model, "@land", other, "--fit-heights"},
    };
    set_verbosity(Verbosity::quiet);
    const double million_cells = static_cast<double>(side) * side / 1e6;
    CPLJSONArray results;
    if (!as_json)
        std::printf("%d x %d cells, on %s; the time of the library alone\n\n%-9s %-52s %9s %16s %11s\n", side, side,
                    name_of(device).c_str(), "command", "functions", "seconds", "s/million cells", "memory");
    for (std::vector<std::string> arguments : runs) {
        if (is_interrupted())
            throw ToolError(ExitCode::cancelled, "cancelled");
        arguments.insert(arguments.end(), {"--device", device});
        const RunCost cost = cost_of(arguments);
        const bool is_displaced = arguments.size() > 8 && arguments[0] == "mesh";
        const std::vector<std::string> functions = find_command(arguments[0])->functions;
        const std::string& function = functions[is_displaced && functions.size() > 1 ? 1 : 0];
        const double mebibytes = static_cast<double>(cost.bytes) / 0x1p20;
        if (as_json) {
            CPLJSONObject result;
            result.Add("command", arguments[0]);
            result.Add("function", function);
            result.Add("seconds", cost.seconds);
            result.Add("seconds_per_million_cells", cost.seconds / million_cells);
            result.Add("mebibytes", mebibytes);
            results.Add(result);
        } else {
            std::printf("%-9s %-52s %9.3f %16.3f %7.0f MiB\n", arguments[0].c_str(), function.c_str(), cost.seconds,
                        cost.seconds / million_cells, mebibytes);
            std::fflush(stdout);
        }
    }
    if (as_json) {
        CPLJSONObject root;
        root.Add("side", side);
        root.Add("device", name_of(device));
        root.Add("results", results);
        std::printf("%s\n", root.Format(CPLJSONObject::PrettyFormat::Pretty).c_str());
    }
}

} // namespace

void add_bench_command(CLI::App& app) {
    struct Settings {
        int side = 1024;
        std::string device = "cpu";
        bool as_json = false;
    };
    const auto settings = std::make_shared<Settings>();
    Command command(app, "bench", "Measure how fast this machine is at each computation", {});
    command.number("--size", settings->side, {64, 8192}, "cells", "Side of the square terrain that is worked on");
    command.text("--device", settings->device, "device", "ID",
                 "Identity string of a device, from `tarn devices`, or cpu");
    command.flag("--json", settings->as_json, "As JSON");
    command.example("tarn bench", "Each computation once, with the settings of its command");
    command.example("tarn bench --size 256", "A quick one");
    command.runs([settings](Outputs&) { run_bench(settings->side, settings->device, settings->as_json); });
}
