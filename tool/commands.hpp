#pragma once

namespace CLI {
class App;
}

/// Each adds one command, which runs as soon as its arguments are parsed and throws ToolError if it fails.
void add_bake_command(CLI::App& app);
void add_bench_command(CLI::App& app);
void add_cells_command(CLI::App& app);
void add_colour_command(CLI::App& app);
void add_debris_command(CLI::App& app);
void add_devices_command(CLI::App& app);
void add_dunes_command(CLI::App& app);
void add_erode_command(CLI::App& app);
void add_flow_command(CLI::App& app);
void add_info_command(CLI::App& app);
void add_median_command(CLI::App& app);
void add_mesh_command(CLI::App& app);
void add_options_command(CLI::App& app);
void add_pipeline_command(CLI::App& app);
void add_points_command(CLI::App& app);
void add_preview_command(CLI::App& app);
void add_shade_command(CLI::App& app);
void add_shape_command(CLI::App& app);
void add_stamp_command(CLI::App& app);
void add_sunlight_command(CLI::App& app);
void add_view_command(CLI::App& app);
void add_weather_command(CLI::App& app);
