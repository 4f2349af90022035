#include "device/processor.hpp"

#if defined(__x86_64__) || defined(__i386__)
#include <array>
#include <cpuid.h>
#include <cstring>
#endif

namespace tarn {

#if defined(__x86_64__) || defined(__i386__)

std::string processor_brand() {
    std::array<unsigned, 12> registers{};
    for (unsigned leaf = 0; leaf < 3; ++leaf) {
        unsigned* out = registers.data() + 4 * leaf;
        if (__get_cpuid(0x80000002u + leaf, out, out + 1, out + 2, out + 3) == 0)
            return {};
    }
    std::array<char, sizeof(registers) + 1> text{};
    std::memcpy(text.data(), registers.data(), sizeof(registers));
    return text.data();
}

std::string processor_vendor() {
    unsigned eax = 0, ebx = 0, ecx = 0, edx = 0;
    if (__get_cpuid(0, &eax, &ebx, &ecx, &edx) == 0)
        return {};
    const std::array<unsigned, 3> registers{ebx, edx, ecx};
    std::array<char, sizeof(registers) + 1> text{};
    std::memcpy(text.data(), registers.data(), sizeof(registers));
    return text.data();
}

#else

std::string processor_brand() {
    return {};
}

std::string processor_vendor() {
    return {};
}

#endif

} // namespace tarn
