// What the processor says about itself. Host devices of some SYCL implementations have placeholder names, which these
// texts replace.
#pragma once

#include <string>

namespace tarn {

/// Brand string of CPUID leaves 0x80000002 to 0x80000004, up to the first zero byte; empty on processors without them.
std::string processor_brand();

/// Vendor string of CPUID leaf 0 (12 characters); empty on processors without CPUID.
std::string processor_vendor();

} // namespace tarn
