#!/usr/bin/env bash
# tarn mesh, points and bake: models and points.
source "$(dirname "$0")/tool_support.sh"

# Models: a pyramid, which stands upright from any file that says where up is, on the floor it is given.
cat >pyramid.obj <<'END'
v -1 0 -1
v 1 0 -1
v 1 0 1
v -1 0 1
v 0 1 0
f 1 5 2
f 2 5 3
f 3 5 4
f 4 5 1
END
expect 0 "" mesh pyramid.obj pyramid.asc --size 64 --floor -1 --rest-on-floor --noise-out noise.tif --preview pyramid.png
asc 64 64 1 '(31.5 - (x > y ? (x > 63 - y ? x - 31.5 : 31.5 - y) : (x > 63 - y ? y - 31.5 : 31.5 - x))) / 64 + 0.5 / 64' >expected.asc
expect_change -0.02 0.02 expected.asc pyramid.asc
{
    printf 'ply\nformat ascii 1.0\nelement vertex 5\nproperty float x\nproperty float y\nproperty float z\n'
    printf 'element face 4\nproperty list uchar int vertex_indices\nend_header\n'
    printf -- '-1 -1 0\n1 -1 0\n1 1 0\n-1 1 0\n0 0 1\n3 0 1 4\n3 1 2 4\n3 2 3 4\n3 3 0 4\n'
} >pyramid.ply
expect 0 "" mesh pyramid.ply from_ply.asc --size 64 --floor -1 --rest-on-floor
expect_change -0.001 0.001 pyramid.asc from_ply.asc
# Maps of 0 displace nothing, and a placed model lies where it lies without them.
asc 64 64 1 0 >no_map.asc
placed=(--size 64x40 --rotate-z 30 --rotate-x 20 --scale 0.7 --offset-x 0.1 --offset-y -0.2 --offset-z 0.3 --vertical-scale 0.5)
expect 0 "" mesh pyramid.ply placed.asc "${placed[@]}"
expect 0 "is resampled" mesh pyramid.ply displaced.asc "${placed[@]}" --displacement no_map.asc
expect_change -0.01 0.01 placed.asc displaced.asc
expect 0 "" mesh pyramid.ply on_terrain.tif --floor "$terrain" --supersample
expect 64 "--noise-out" mesh pyramid.ply out.tif --displacement no_map.asc --noise-out noise.tif
expect 64 "no size such as 1024" mesh pyramid.ply out.tif --size 10x
expect 66 "cannot read 'nothing.obj'" mesh nothing.obj out.tif
expect 66 "cannot read" mesh no_map.asc out.tif

# Points: a plane comes back wherever it is sampled, from text and from a model; a line of points has no surface.
awk 'BEGIN { print "x;y;z"; for (y = 0; y <= 20; y += 4) for (x = 0; x <= 40; x += 5) print x ";" y ";" 2 * x - y }' >plane.csv
expect 0 "54 points on 40 x 20 cells of 1" points plane.csv plane.asc --columns 40 --noise-out numbers.asc --preview plane.png
{
    printf 'ply\nformat ascii 1.0\nelement vertex 54\nproperty float x\nproperty float y\nproperty float z\n'
    printf 'element face 1\nproperty list uchar int vertex_indices\nend_header\n'
    tail -n +2 plane.csv | tr ';' ' '
    echo '3 0 1 9'
} >plane.ply
expect 0 "cells of 1" points plane.ply from_ply_points.asc --columns 40
expect_change 0 0 plane.asc from_ply_points.asc
# At x = 19.5 and y = 9.5 the plane is 29.5 high; a triangle's heights are those of one half a percent larger.
awk 'NR == 16 { exit !($20 > 29.4 && $20 < 29.6) }' plane.asc || fail "the plane of points is not 29.5 high in its middle"
printf '1,1,0\n' >point.csv
expect 66 "fewer than three points" points point.csv none.asc
printf '1,1,0\n2,1,0\n3,1,0\n' >line.csv
expect 3 "not triangulation" points line.csv none.asc --columns 8

# A flat model under a ramp: all cells that the rays reach have the ramp's slope to the left.
printf 'v 0 0 0\nv 8 0 0\nv 8 8 0\nv 0 8 0\nf 1 2 3\nf 1 3 4\n' >flat.obj
asc 16 16 1 'x' >ramp.asc
expect 0 "" bake flat.obj ramp.asc normals.png --up z --hit-x-out hits.asc
expect 66 "cannot read" bake none.obj ramp.asc normals.png

finish
