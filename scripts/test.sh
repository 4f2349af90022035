#!/usr/bin/env bash
# Builds everything and runs all tests.
#   scripts/test.sh [PRESET...]      presets of CMakePresets.json; release if none is named
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

presets=("${@:-release}")

scripts/setup.sh
for preset in "${presets[@]}"; do
    echo "== $preset"
    cmake --preset "$preset"
    cmake --build --preset "$preset" --parallel "$(nproc)"
    ctest --preset "$preset" --parallel "$(nproc)"
done
echo "== all tests passed: ${presets[*]}"
