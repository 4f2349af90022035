#!/usr/bin/env bash
# Times whole commands of `tarn` beside those of GDAL and SAGA, files included, and prints a table: processor time and peak
# memory of both, medians of runs in turn. Installs the peers from Debian.
#   bench/peers.sh [--runs N] [--sizes "1024 2048 4096"] [--jobs "hillshade|points"] [TARN]
# Jobs are chosen by a regular expression for what the table calls them.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

runs=5
sizes="1024 2048 4096"
wanted=.
while [[ ${1-} == --* ]]; do
    case $1 in
        --runs) runs=$2 ;;
        --sizes) sizes=$2 ;;
        --jobs) wanted=$2 ;;
        *) sed -n '2,5s/^# *//p' "$0" >&2 && exit 64 ;;
    esac
    shift 2
done
tarn=$(realpath "${1-build/bin/tarn}")

if ! command -v gdaldem >/dev/null || ! command -v saga_cmd >/dev/null || ! /usr/bin/python3 -c "import numpy" 2>/dev/null; then
    as_root=()
    ((EUID == 0)) || as_root=(sudo)
    "${as_root[@]}" apt-get install --yes --quiet --no-install-recommends gdal-bin saga python3-numpy
fi
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"

# Terrain with features at every scale, cells of 30 m, and points scattered over it.
/usr/bin/python3 - $sizes <<'END'
import sys
import numpy as np
for side in sorted({512, *map(int, sys.argv[1:])}):
    noise = np.fft.rfft2(np.random.default_rng(7).standard_normal((side, side)))
    wave = np.hypot(np.fft.fftfreq(side)[:, None], np.fft.rfftfreq(side)[None, :])
    wave[0, 0] = 1
    heights = np.fft.irfft2(noise / wave**2, s=(side, side))
    heights = (heights - heights.min()) / np.ptp(heights) * side * 2
    heights.astype("<f4").tofile(f"{side}.bil")
    with open(f"{side}.hdr", "w") as header:
        header.write(f"nrows {side}\nncols {side}\nnbands 1\nnbits 32\npixeltype float\nbyteorder i\nlayout bil\n"
                     f"ulxmap 500000\nulymap 4000000\nxdim 30\nydim 30\n")
for count in (100_000, 1_000_000):
    places = np.random.default_rng(3).uniform(0, 1000, (count, 2))
    z = np.sin(places[:, 0] / 50) * np.cos(places[:, 1] / 70) * 100
    np.savetxt(f"{count}.csv", np.column_stack((places, z)), "%.3f", ",", header="x,y,z", comments="")
    with open(f"{count}.vrt", "w") as layer:
        layer.write(f'<OGRVRTDataSource><OGRVRTLayer name="{count}"><SrcDataSource>{count}.csv</SrcDataSource>'
                    '<GeometryType>wkbPoint</GeometryType><GeometryField encoding="PointFromColumns" x="x" y="y" z="z"/>'
                    '</OGRVRTLayer></OGRVRTDataSource>')
END
for file in *.bil; do
    gdal_translate -q -a_srs EPSG:32616 "$file" "${file%.bil}.tif"
done

/usr/bin/python3 - "$tarn" "$runs" "$wanted" $sizes <<'END'
import os
import re
import statistics
import subprocess
import sys

tarn, runs, wanted, *sizes = sys.argv[1], int(sys.argv[2]), *sys.argv[3:]
light = "--albedo 0.5 --sun-colour 1 1 1 --ambient-colour 1 1 1"
jobs = []  # what, size, ours, theirs (several are one job)
for n in sizes:
    jobs += [
        ("hillshade", n, f"shade {n}.tif o.png --no-sky --no-shadows {light}",
         [f"gdaldem hillshade -q -of PNG {n}.tif p.png"]),
        ("cast shadows", n, f"shade {n}.tif o.png --no-sky --rings 0 {light} --shadow-out o.tif --co COMPRESS=NONE",
         [f"saga_cmd -f=s ta_lighting 0 -ELEVATION={n}.tif -SHADE=p.sgrd -METHOD=2"]),
        ("sky visibility", n, f"shade {n}.tif o.png --no-sun {light} --ao-out o.tif --co COMPRESS=NONE",
         [f"saga_cmd -f=s ta_lighting 3 -DEM={n}.tif -VISIBLE=p.sgrd -SVF=q.sgrd"]),
        ("pits and flow", n, f"flow {n}.tif o.tif --co COMPRESS=NONE",
         [f"saga_cmd -f=s ta_preprocessor 4 -ELEV={n}.tif -FILLED=p.sgrd -FDIR=q.sgrd -WSHED=r.sgrd",
          "saga_cmd -f=s ta_hydrology 0 -ELEVATION=p.sgrd -FLOW=s.sgrd"]),
        ("median, radius 3", n, f"median {n}.tif o.tif --radius 3 --co COMPRESS=NONE",
         [f"saga_cmd -f=s grid_filter 9 -INPUT={n}.tif -RESULT=p.sgrd -KERNEL_TYPE=1 -KERNEL_RADIUS=3"])]
jobs.append(("yearly sun", "512", "sunlight 512.tif o.tif --latitude 36 --co COMPRESS=NONE",
             ["saga_cmd -f=s ta_lighting 2 -GRD_DEM=512.tif -GRD_DIRECT=p.sgrd -GRD_DIFFUS=q.sgrd -PERIOD=2 "
              "-DAY=2025-01-01 -DAY_STOP=2025-12-31 -DAYS_STEP=5 -HOUR_STEP=0.5 -LATITUDE=36"]))
for count in ("100000", "1000000"):
    jobs.append(("points", count, f"points {count}.csv o.tif --columns 1024 --co COMPRESS=NONE",
                 [f"gdal_grid -q -a linear -outsize 1024 1024 -l {count} {count}.vrt p.tif"]))


def run(commands):
    """Processor time in seconds and peak memory in MiB of commands one after another."""
    seconds, peak = 0, 0
    for command in commands:
        process = subprocess.Popen(command.split(), stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        said = process.stderr.read().decode(errors="replace")
        _, status, usage = os.wait4(process.pid, 0)
        if status != 0:
            sys.exit(f"{command}: {said[-500:]}")
        seconds += usage.ru_utime + usage.ru_stime
        peak = max(peak, usage.ru_maxrss / 1024)
    return seconds, peak


print("| Job | Cells or points | `tarn`, s | Peer, s | Peer / `tarn` | `tarn`, MiB | Peer, MiB | Peer |")
print("|---|---|---|---|---|---|---|---|")
for what, size, ours, theirs in jobs:
    if not re.search(wanted, what):
        continue
    pairs = [(run([f"{tarn} -q {ours}"]), run(theirs)) for _ in range(runs + 1)][1:]  # the first warms up
    mine, peer = ([statistics.median(pair[side][figure] for pair in pairs) for figure in (0, 1)] for side in (0, 1))
    ratio = statistics.median(b[0] / a[0] for a, b in pairs)
    names = " + ".join(" ".join(command.split()[:4 if "saga" in command else 2]) for command in theirs).replace(" -f=s", "")
    print(f"| {what} | {size} | {mine[0]:.2f} | {peer[0]:.2f} | {ratio:.2f} | {mine[1]:.0f} | {peer[1]:.0f} | `{names}` |", flush=True)
END
