// The record that both exports of the namespace share.
#pragma once

#include <tarn/oneapi.h>

#include "device/callbacks.hpp"

namespace tarn::lighting {

using Resolution = lighting_Resolution;
using Parameters = lighting_Parameters;

/// The module's copy of the host's callbacks, written by Shade alone.
inline ModuleCallbacks callbacks;

} // namespace tarn::lighting
