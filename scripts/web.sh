#!/usr/bin/env bash
# Builds the library for web pages with Emscripten (Debian: emscripten), without threads in build/web and with them in
# build/web_threads, compares its bits with those of the native library, and makes the page build/web/bin/live.html. It
# needs no other file; where it is served, build/web/bin/threads gives it threads.
#   scripts/web.sh                   builds and tests
#   scripts/web.sh --serve [PORT]    serves what has been built, to this machine alone; port 8000 if none is named
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [[ ${1:-} == --serve ]]; then
    exec /usr/bin/python3 web/serve.py build/web/bin "${@:2}"
fi

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

# Boost alone of the system's headers: the others are not Emscripten's.
mkdir -p build/web/include
ln -sfn /usr/include/boost build/web/include/boost
# Where Debian keeps the JavaScript that Emscripten optimises with; a node from elsewhere does not look there.
export NODE_PATH=/usr/share/nodejs
build() { # FOLDER THREADS
    emcmake cmake -S . -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=Release -DTARN_SYCL=host -DTARN_THREADS="$2" -DTARN_ARCH= \
        -DTARN_BUILD_TESTS=OFF -DBoost_INCLUDE_DIR="$PWD/build/web/include"
    cmake --build "$1" --parallel "$(nproc)"
}
build build/web OFF
node build/web/bin/tarn_web_tests.js
build build/web_threads POOL
mkdir -p build/web/bin/threads
cp build/web_threads/bin/tarn.{js,wasm,worker.js} build/web/bin/threads
# In a browser, where one is installed.
/usr/bin/python3 tests/live_test.py build/web/bin/live.html build/bin/tarn data/jacksboro.tif build/web/live.png ||
    (($? == 77))
