#!/usr/bin/env bash
# Installs the packages that building Tarn.oneAPI takes and this machine lacks. Does nothing if none is missing. The names are
# those of Debian 12 and 13 and of Ubuntu 24.04.
#   scripts/setup.sh             what it takes to build and test
#   scripts/setup.sh --docs      and what scripts/docs.sh takes
#   scripts/setup.sh --checks    and what scripts/check.sh and the build with clang take
set -euo pipefail

packages=(
    build-essential cmake ninja-build pkg-config
    libtbb-dev libboost-context-dev                         # the bundled SYCL for CPUs
    libboost-dev                                            # the triangulation of point clouds
    libassimp-dev libcli11-dev libgdal-dev libisal-dev libopenexr-dev libtoml11-dev   # the command-line tool
    libjs-three                                             # its pages that show terrain
    python3 python3-cffi python3-numpy                      # the Python package
    libgtest-dev libbenchmark-dev python3-pytest            # tests and benchmarks
    python3-rasterio python3-xarray python3-matplotlib      # tests of the package and its examples
    python3-dask python3-distributed                        # terrains in tiles
    python3-pip python3-setuptools python3-venv python3-wheel   # test of its installation
)
if [[ ${1-} == --checks ]]; then
    # Releases after Debian 12 and Ubuntu 24.04 have later ones only.
    version=
    grep --quiet --extended-regexp '^VERSION_CODENAME=(bookworm|noble)$' /etc/os-release && version=-16
    packages+=("clang$version" clang-format "clang-tidy$version")
fi
if [[ ${1-} == --docs ]]; then
    packages+=(doxygen mkdocs linkchecker)
fi

is_installed() {
    [[ "$(dpkg-query --show --showformat='${db:Status-Status}' "$1" 2>/dev/null)" == installed ]]
}

missing=()
for package in "${packages[@]}"; do
    is_installed "$package" || missing+=("$package")
done
if ((${#missing[@]} == 0)); then
    exit 0
fi

as_root=()
if ((EUID != 0)); then
    if ! command -v sudo >/dev/null; then
        echo "setup.sh: these packages are missing; install them as root: ${missing[*]}" >&2
        exit 1
    fi
    as_root=(sudo)
fi
echo "setup.sh: installing ${missing[*]}"
"${as_root[@]}" apt-get update --quiet
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install --yes --quiet --no-install-recommends "${missing[@]}"
