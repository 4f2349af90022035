#!/usr/bin/env bash
# Builds the library and the tool, and writes the gallery to out/: open out/index.html in a browser.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh
cmake --preset release
cmake --build --preset release --parallel "$(nproc)" --target tarn
scripts/gallery.sh build/bin/tarn out
