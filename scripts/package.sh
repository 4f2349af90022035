#!/usr/bin/env bash
# Makes the packages in build/package: libtarn-oneapi1, libtarn-oneapi-dev and tarn as .deb, and all of it as .tar.gz. They run
# on every x86-64 processor, and have variants of the library for newer ones.
#   scripts/package.sh          build them
#   scripts/package.sh --test   and try them: lintian, variants, and an installation in a root of its own (as root, with
#                               debootstrap)
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

if [[ $(uname -m) != x86_64 ]]; then
    echo "package.sh: packages are made on x86-64 only" >&2
    exit 1
fi
scripts/setup.sh
libraries=lib/$(gcc -print-multiarch)
common=(-G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DTARN_SYCL=host -DTARN_BUILD_TESTS=OFF
    -DTARN_BUILD_BENCH=OFF -DTARN_BUILD_PYTHON=OFF)
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH

for level in v3 v4; do
    cmake -S . -B build/package-$level "${common[@]}" -DTARN_ARCH=x86-64-$level -DTARN_BUILD_TOOL=OFF \
        -DCMAKE_SHARED_LINKER_FLAGS=-s >/dev/null
    cmake --build build/package-$level --parallel "$(nproc)"
done

mkdir -p build/package
version=$(sed -n 's/^#define TARN_ONEAPI_VERSION_[A-Z]* //p' include/tarn/oneapi.h | paste -sd.)
{
    printf 'tarn-oneapi (%s) unstable; urgency=medium\n\n  * See CHANGELOG.md of the sources.\n\n' "$version"
    printf ' -- Tarn.oneAPI maintainers <maintainers@tarn-oneapi.example>  %s\n' \
        "$(date --utc --rfc-email --date=@"$SOURCE_DATE_EPOCH")"
} | gzip --best --no-name >build/package/changelog.gz
cmake -S . -B build/package "${common[@]}" -DTARN_ARCH=x86-64 -DCMAKE_INSTALL_LIBDIR="$libraries" \
    -DTARN_CHANGELOG="$PWD/build/package/changelog.gz" -DTARN_VARIANTS="v3;v4" >/dev/null
cmake --build build/package --parallel "$(nproc)"
(cd build/package && umask 022 && rm -f ./*.deb ./*.tar.gz && cpack)

if [[ ${1-} == --test ]]; then
    tests/packages_test.sh build/package || (($? == 77))
fi
