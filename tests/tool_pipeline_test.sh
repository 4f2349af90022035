#!/usr/bin/env bash
# Steps in one process give the bits of the commands one by one, and what is wrong with one is told before any runs.
source "$(dirname "$0")/tool_support.sh"

cat >steps.toml <<END
[[step]]
command = "erode"
in = "land.tif"
out = "@eroded"
iterations = 2
erosion_strength = 0.7
flow_out = "@flow"

[[step]]
command = "weather"
in = "@eroded"
out = "@eroded"
erosion_mask = "@flow"
depth_out = "depth.tif"

[[step]]
command = "shade"
in = "@eroded"
out = "picture.png"
sun_colour = [1, 0.9, 0.8]
no_shadows = true

[[step]]
command = "median"
in = "@eroded"
out = "median.tif"
END
# With a hole, which every step fills anew.
"$tarn" -q dunes "$terrain" land.asc --sand 0 --duration 0
awk 'NR > 8 && NR < 20 { $50 = $51 = -32768 } /NODATA/ { next } { print } NR == 5 { print "NODATA_value -32768" }' land.asc >holes.asc
"$tarn" -q median holes.asc land.tif --iterations 0
expect 0 "step 4 of 4: tarn median @eroded median.tif" pipeline steps.toml
expect 0 "tarn median @eroded median.tif  # step 4 of steps.toml" info median.tif
mkdir single
"$tarn" -q erode land.tif single/eroded.tif --iterations 2 --erosion-strength 0.7 --flow-out single/flow.tif
"$tarn" -q weather single/eroded.tif single/eroded.tif --erosion-mask single/flow.tif --depth-out single/depth.tif
"$tarn" -q shade single/eroded.tif single/picture.png --sun-colour 1 0.9 0.8 --no-shadows
"$tarn" -q median single/eroded.tif single/median.tif
for grid in depth median; do
    for folder in . single; do "$tarn" -q median $folder/$grid.tif $folder/$grid.asc --iterations 0; done
    cmp -s $grid.asc single/$grid.asc || fail "$grid differs from that of the commands one by one"
    grep -q -- -32768 $grid.asc || fail "$grid lost its hole"
done
cmp -s picture.png single/picture.png || fail "the picture differs from that of the commands one by one"
[[ -z "$(ls -A | grep @)" ]] || fail "a grid in memory left a file"

rm -f median.tif depth.tif
refused() { # refused CODE TEXT CHANGE: the steps with a change by sed
    sed "$3" steps.toml >wrong.toml
    expect "$1" "$2" pipeline wrong.toml
    [[ -e depth.tif ]] && fail "a step ran before '$2' was told"
}
refused 64 "step 4 of 4, median: no step before makes the grid '@erode'" '/"median"/{n;s/@eroded/@erode/}'
refused 64 "did you mean --iterations?" 's/^iterations/iteration/'
refused 64 "step 2 of 4: there is no command 'wether'; did you mean \`tarn weather\`?" 's/"weather"/"wether"/'
refused 64 "'command' is missing" '/"median"/d'
refused 64 "not a finite number" 's/0.7/"strong"/'
refused 66 "cannot read 'wrong.toml'" 's/= 2/= = 2/'
refused 66 "step 2 of 4, weather: cannot read 'flow.tif': there is no such file" 's/mask = "@flow"/mask = "flow.tif"/'
refused 64 "no option '--no-shadow'; did you mean --no-shadows?" 's/no_shadows = true/no_shadow = false/'
refused 64 "'quiet' is no option of a step" '/"shade"/iquiet = true'
refused 64 "only grids stay in memory" 's/"picture.png"/"@picture.png"/'
refused 66 "'stop' is not known" '$a[[stop]]'
refused 73 "there is no folder 'nowhere'" 's/median.tif/nowhere\/median.tif/'
expect 66 "cannot read 'none.toml'" pipeline none.toml

# A number where a grid may stand is no file.
printf '[[step]]\ncommand = "dunes"\nin = "land.tif"\nout = "dunes.tif"\nsand = 1.5\nduration = 0.001\n' >sand.toml
expect 0 "step 1 of 1: tarn dunes land.tif dunes.tif --sand=1.5" pipeline sand.toml

# Each of the sixteen computations has a time.
expect 0 "MeshRasterizer_ComputeTangentSpaceNormals" bench --size 64
[[ "$("$tarn" bench --size 64 --json | grep -c '"seconds":0.0*[1-9]')" -ge 14 ]] || fail "bench: times are missing"
# Stopped halfway, it leaves no files.
mkdir temporary
TMPDIR=$PWD/temporary "$tarn" bench >/dev/null 2>&1 &
until compgen -G 'temporary/*/picture.png' >/dev/null || ! kill -0 $!; do sleep 0.1; done
kill -TERM $!
wait $! && fail "bench: was not stopped"
[[ -z $(ls temporary) ]] || fail "bench: left $(ls temporary)"
finish
