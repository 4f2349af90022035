// Random numbers of kernels: G. Marsaglia's 32-bit xorshift (2003) with the shifts 13, 17 and 5, and a multiplication
// that turns a state into a number.
#pragma once

#include <cstdint>

namespace tarn {

/// The generator's states exclude 0, which it would never leave.
inline std::uint32_t nonzero_state(std::uint32_t seed) {
    return seed == 0u ? 0xA2351342u : seed;
}

/// The state after `state`; never 0 after a state other than 0.
inline std::uint32_t xorshift(std::uint32_t state) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

/// The number that a state stands for, from 0 to 2^32.
inline float random_number(std::uint32_t state) {
    return static_cast<float>(state * 0x2545F381u - 1u);
}

/// Scales `random_number` to 0 to 1, both included.
inline constexpr float unit_scale = 2.3283064e-10f;

} // namespace tarn
