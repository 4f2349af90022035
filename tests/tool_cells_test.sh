#!/usr/bin/env bash
# tarn dunes, median and cells.
source "$(dirname "$0")/tool_support.sh"

asc 20 17 1 0 >no_mask.asc
asc 64 64 1 100 >level.asc
# Sand lies on the ground until the wind moves it, and bare ground stays.
expect 0 "" dunes "$terrain" sanded.tif --sand 2 --duration 0
expect_change 1.99 2.01 "$terrain" sanded.tif
expect 0 "" dunes "$terrain" bare.tif --sand 0 --duration 0.002
expect_change 0 0 "$terrain" bare.tif
expect 0 "the sand is resampled from 20 x 17 to 403 x 344 cells" dunes "$terrain" dunes.tif --sand no_mask.asc \
    --duration 0.002 --sand-out sand.tif --wind-trace trace.tif --preview dunes.png
expect_change 0 0 "$terrain" dunes.tif
expect 64 "a depth must be a finite number from 0 up" dunes "$terrain" dunes.tif --sand -1

# The median takes spikes away, whatever the size of the grid, and leaves what is level but for its rounding.
expect 0 "403 x 344 cells are padded to 416 x 416" median "$terrain" median.tif --radius 2 --preview median.png
expect 0 "" median "$terrain" unfiltered.tif --iterations 0
expect_change 0 0 "$terrain" unfiltered.tif
asc 40 20 1 'x == 39 && y == 7 || x == 5 && y == 19 ? 1e5 : 100' >spikes.asc
asc 40 20 1 100 >without_spikes.asc
expect 0 "" median spikes.asc despiked.asc --radius 1
expect_change -0.0002 0 without_spikes.asc despiked.asc
[[ "$("$tarn" median level.asc level_out.asc 2>&1)" == *padded* ]] && fail "64 x 64 cells were padded for the median"
expect 64 "not from 1 to 8" median "$terrain" out.tif --radius 9
expect 64 "--iterations" median "$terrain" out.tif --iterations -1

# Cells: a regular lattice makes steps, a gap of 1 leaves nothing, and a seed gives the same rock every time.
asc 64 64 1 'x < 32 ? 100 : 200' >step.asc
expect 0 "cell_density 8, extents 1 1 0.32, z_unit 64, z_range 100" --verbose cells step.asc steps.asc --density 8 --layers 4 \
    --jitter-x 0 --jitter-y 0 --jitter-z 0 --random-out steps_random.asc
asc 64 64 1 'x < 32 ? 100 : 200' >wanted.asc
expect_change -0.01 0.01 wanted.asc steps.asc
expect 0 "" cells "$terrain" rock.tif --layers 10 --preview rock.png
expect 0 "" cells "$terrain" rock_again.tif --layers 10 --gap 0.3 --gap-factor no_mask.asc
expect_change 0 0 rock.tif rock_again.tif
expect 0 "" cells "$terrain" rock_again.tif --layers 10 --generator congruential
"$tarn" preview rock_again.tif change.png --difference rock.tif 2>&1 | grep -q 'change by -[1-9]' || fail "the generators are alike"
expect 0 "" cells step.asc gone.asc --gap 1
asc 64 64 1 100 >wanted.asc
expect_change 0 0 wanted.asc gone.asc
expect 0 "" cells level.asc flat.asc
expect 0 "extents 2 3 4, z_unit 5, z_range 6" --verbose cells step.asc own.asc --density 2 --extent-x 2 --extent-y 3 \
    --extent-z 4 --z-unit 5 --z-range 6
expect 3 "cell_density" cells step.asc out.tif --extent-x 1e30
expect 64 "--generator" cells step.asc out.tif --generator dice
expect 64 "not from 0 to 1" cells step.asc out.tif --jitter-y 2

finish
