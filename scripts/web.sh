#!/usr/bin/env bash
# Builds the library for web pages with Emscripten (Debian: emscripten) in build/web, compares its bits with those of the
# native library under node, and makes the page build/web/bin/live.html, which needs no other file.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if ! command -v emcmake >/dev/null; then
    echo "web.sh: Emscripten is missing; install the package emscripten" >&2
    exit 1
fi
scripts/setup.sh
cmake --preset release
cmake --build --preset release --parallel "$(nproc)" --target tarn
mkdir -p build/web/parts
base64 --wrap=0 data/jacksboro.tif >build/web/parts/sample
build/bin/tarn --quiet view data/jacksboro.tif build/web/sample.html --bare
sed -n 's/.*"palettes":\({[^}]*}\).*/\1/p' build/web/sample.html >build/web/parts/palettes

# Boost.Polygon alone of the system's headers: the others are not Emscripten's.
mkdir -p build/web/include
ln -sfn /usr/include/boost build/web/include/boost
# Where Debian keeps the JavaScript that Emscripten optimises with; a node from elsewhere does not look there.
export NODE_PATH=/usr/share/nodejs
emcmake cmake -S . -B build/web -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARN_SYCL=host -DTARN_THREADS=OFF -DTARN_ARCH= \
    -DTARN_BUILD_TESTS=OFF -DBoost_INCLUDE_DIR="$PWD/build/web/include"
cmake --build build/web --parallel "$(nproc)"
node build/web/bin/tarn_web_tests.js
# In a browser, where one is installed.
/usr/bin/python3 tests/live_test.py build/web/bin/live.html build/bin/tarn data/jacksboro.tif build/web/live.png ||
    (($? == 77))
