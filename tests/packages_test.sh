#!/usr/bin/env bash
# The packages of scripts/package.sh: lintian, the variants for newer processors, and their use in a root of their own, with what
# Debian's packages bring and nothing else. As root, with debootstrap and the network.   packages_test.sh FOLDER
set -euo pipefail
if ! command -v debootstrap >/dev/null || ((EUID != 0)); then
    echo "skipped: it takes debootstrap, as root"
    exit 77
fi
folder=$(realpath "$1")
source=$(realpath "$(dirname "${BASH_SOURCE[0]}")/..")
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
failed=0
fail() {
    echo "FAILED: $*"
    failed=1
}

# Not to be mended here: the names of the package and of the library differ by the dot, and CPack has scripts that call ldconfig
# where the trigger is enough.
notes=package-name-doesnt-match-sonames,maintscript-calls-ldconfig
if ! command -v lintian >/dev/null; then
    echo "lintian is not installed: the packages are not checked by it"
else
    lintian --allow-root --fail-on error,warning --suppress-tags "$notes" "$folder"/*.deb || fail "lintian"
fi

debootstrap --variant=minbase "$(. /etc/os-release && echo "$VERSION_CODENAME")" "$root" >/dev/null
cp "$folder"/*.deb "$source/data/jacksboro.tif" "$source/examples/c/library_version.c" "$root/tmp/"
inside() { chroot "$root" "$@"; }
inside sh -c 'cd /tmp && apt-get install --yes --quiet --no-install-recommends ./*.deb gcc libc6-dev pkg-config' >/dev/null 2>&1 ||
    fail "the packages do not install"
inside sh -c 'cd /tmp && cc library_version.c $(pkg-config --cflags --libs tarn-oneapi) -o version && ./version' || fail "a host of -dev"

# Whatever variant the loader takes, the bits are the same; the plain one has no instruction that not every processor has.
loader=$(inside sh -c 'ls /lib64/ld-linux-x86-64.so.2')
for level in x86-64-v2 x86-64-v3 x86-64-v4; do
    inside sh -c "cd /tmp && LD_DEBUG=libs $loader --glibc-hwcaps-mask $level /usr/bin/tarn -q erode jacksboro.tif $level.tif --iterations 2 2>$level.log &&
        /usr/bin/tarn -q median $level.tif $level.asc --iterations 0" || fail "the run with $level"
    cmp -s "$root/tmp/$level.asc" "$root/tmp/x86-64-v2.asc" || fail "$level has other bits"
    [[ $level == x86-64-v2 ]] || ! inside "$loader" --help | grep "$level (supported" >/dev/null ||
        grep -q "calling init.*hwcaps/$level/libTarn" "$root/tmp/$level.log" || fail "$level is not taken"
done
plain=$(find "$root"/usr/lib -maxdepth 2 -name libTarn.oneAPI.so.1)
[[ -z "$(objdump -d "$plain" | grep -m 1 '%[yz]mm')" ]] || fail "the plain library has vectors that not every processor has"

# The archive runs from where it is unpacked.
tar -C "$root/tmp" -xzf "$folder"/*.tar.gz
"$root"/tmp/tarn-oneapi-*/usr/bin/tarn info "$source/data/jacksboro.tif" >/dev/null || fail "the archive"
((failed)) || echo "all passed"
exit $failed
