// The arguments that flow maps and colour transport have in common.
#pragma once

#include <cstdio>

#include "device/argument_check.hpp"
#include "flow/particles.hpp"
#include "flow/pit_filling.hpp"

namespace tarn::flow {

/// Steps are counted in floats, which hold whole numbers up to this one.
inline constexpr float longest_trail = 16777216.0f;

/// Checks the size of the grid, `flow_length` and `spread` of either record.
template <class Parameters>
void check_trails(ArgumentCheck& check, const Parameters& p) {
    check.grid_size(p.width, p.height);
    if (!check.passed())
        return;
    const int least = least_height(p.width);
    char rule[64];
    std::snprintf(rule, sizeof(rule), "at least %d for this width, to be halved as often", least);
    check.require(p.height >= least, "height", p.height, rule)
        .finite("flow_length", p.flow_length)
        .require(p.flow_length >= 0.0f, "flow_length", p.flow_length, "at least 0")
        .require(TrailLengths(p.width, p.flow_length).longest <= longest_trail, "flow_length", p.flow_length,
                 "at most 16777214 / width")
        .finite("spread", p.spread);
}

} // namespace tarn::flow
