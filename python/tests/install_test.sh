#!/usr/bin/env bash
# Builds wheels of the package, without and with the library, installs them where only Debian's packages are, and lets
# the package find the library in each way. Needs no network.
set -euo pipefail
python=$1 library=$(realpath "$2")
sources=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
"$python" -c 'import pip, venv, ensurepip, wheel' 2>/dev/null || { echo "pip, venv or wheel is missing: skipped"; exit 77; }
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
unset PYTHONPATH TARN_LIBRARY
export PIP_NO_INDEX=1 PIP_DISABLE_PIP_VERSION_CHECK=1 PIP_ROOT_USER_ACTION=ignore

cp -r "$sources/python" "$sources/include" "$out" # what a build leaves there stays out of the sources
"$python" -m venv --system-site-packages "$out/venv"
cd "$out"
pip=(venv/bin/python -m pip --quiet)

try() { # computes something, with the given variables set
    env "$@" venv/bin/python -c 'import tarn, numpy; assert tarn.median(numpy.eye(9)).shape == (9, 9)'
}
expect_no_library() {
    if try "$@" 2>error.txt || ! grep -q "libTarn.oneAPI.so was not found; set TARN_LIBRARY" error.txt; then
        echo "install_test.sh: a library was found, or the reason was not told"; cat error.txt; exit 1
    fi
}

"${pip[@]}" install --no-build-isolation ./python
if ! ldconfig -p | grep -q libTarn.oneAPI.so; then expect_no_library A=; fi
try TARN_LIBRARY="$library"
try LD_LIBRARY_PATH="$(dirname "$library")"

TARN_LIBRARY=$library "${pip[@]}" wheel --no-build-isolation --no-deps -w wheels ./python
ls wheels/tarn-*-py3-none-linux_*.whl
"${pip[@]}" install --force-reinstall --no-deps wheels/*.whl
try A=
