#!/usr/bin/env bash
# Takes the terrain in data/ through everything that the library computes, and writes grids, pictures of them, pages that
# show them in three dimensions, and index.html, which tells the story. Every picture but those of differences and of bare
# colours is rendered by the library.
#   scripts/gallery.sh TARN FOLDER
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tarn=$1
out=$2
terrain=data/jacksboro.tif
mkdir -p "$out"
# The same light and the same colours for the same heights in all pictures of the whole terrain.
light=(--exaggeration 3 --range 236 1076)

# run COMMAND ARGUMENT...: a step of the demo, with its time.
run() {
    local start=$EPOCHREALTIME
    echo "tarn $*"
    "$tarn" "$@"
    last_time=$(awk -v from="$start" -v to="$EPOCHREALTIME" 'BEGIN { printf "%.1f s", to - from }')
    echo "  $last_time"
}

# The page: `story TITLE FUNCTION` begins a section, with its text from standard input; `step COMMAND ARGUMENT...` runs the
# step that the section tells of; `show PICTURE CAPTION [PICTURE CAPTION]...` shows pictures of the folder; `view NAME GRID
# ARGUMENT...` ends the section with the step and a link to "$out/NAME.html", which it makes of a grid; `end NAME` does so
# with a page that is there.
page=$out/index.html
sections=$out/sections.html
contents=$out/contents.html
: >"$sections"
: >"$contents"
as_html() { sed 's/&/\&amp;/g; s/</\&lt;/g'; }
story() {
    echo
    echo "== $1"
    echo "<a href=\"#$2\">$1</a>" >>"$contents"
    { echo "<section id=\"$2\"><h2>$1 <small>$2</small></h2><p>"; cat; echo '</p>'; } >>"$sections"
}
step() {
    run "$@"
    told="<pre>tarn $(printf '%s ' "$@" | as_html)</pre><div class=\"more\"><span>$last_time</span>"
}
show() {
    echo "<div class=\"pictures\" style=\"--columns: $(($# == 6 ? 3 : 2))\">" >>"$sections"
    while (($# > 0)); do
        local class=''
        [[ $2 == *[Ww]ind* ]] && class=' class="wind"'
        echo "<figure$class><img loading=\"lazy\" src=\"$1\" alt=\"$2\"><figcaption>$2</figcaption></figure>" >>"$sections"
        shift 2
    done
    echo '</div>' >>"$sections"
}
view() {
    local name=$1
    shift
    run view "$1" "$out/$name.html" --title "Tarn.oneAPI: $name" "${@:2}"
    end "$name"
}
end() {
    echo "$told<a href=\"$1.html\">See it in three dimensions</a></div></section>" >>"$sections"
}

echo
"$tarn" devices

story 'The land, and its light' Shade <<'END'
A fault in Tennessee, 30 km wide, three times as high as it is. The library lights it with the shadows of a sun and with the
light of the sky that each place sees; given a day and an hour, with the sun of that place.
END
step shade "$terrain" "$out/before.png" "${light[@]}"
run shade "$terrain" "$out/winter_afternoon.png" --exaggeration 2 --range 236 1076 --date 12-21 --time 15:30
show before.png 'Sun from the north-west, as on maps' winter_afternoon.png 'The 21st of December, half past three'
view land "$terrain" --exaggeration 3

story 'A year of sun' SunLightIntegral <<'END'
How much light each place receives over a span of days: the sun of each hour, cut off by the mountains and dimmed by the air.
END
step sunlight "$terrain" "$out/sunlight_year.tif" --preview "$out/sunlight_year.png"
run sunlight "$terrain" "$out/sunlight_midwinter.tif" --first-day 12-11 --last-day 12-31 --preview "$out/sunlight_midwinter.png"
show sunlight_year.png 'A year: 27 to 48 % of full sun' sunlight_midwinter.png 'Its darkest three weeks: 2 to 29 %'
view sunlight "$terrain" --exaggeration 3 --bare --layer "A year:of full sun=$out/sunlight_year.tif" \
    --layer "Midwinter:of full sun=$out/sunlight_midwinter.tif"

story 'Slopes that fail' ThermalShaper_Process <<'END'
Slow slope failure, at all scales at once: slopes wear back evenly from their crests, which stay sharp.
END
step shape "$terrain" "$out/shaped.tif"
run shade "$out/shaped.tif" "$out/after.png" "${light[@]}"
run preview "$out/shaped.tif" "$out/difference.png" --difference "$terrain" --legend
show before.png Before after.png After difference.png 'Metres lost and gained'
view shape "$out/shaped.tif" --exaggeration 3 --bare --before "$terrain"

story 'Slopes that weather' ThermalSimulation <<'END'
Ground that is too steep comes loose, slides downhill and comes to rest as a cover of scree.
END
step weather "$terrain" "$out/weathered.tif" --depth-out "$out/depth.tif" --wear-out "$out/wear.tif"
run shade "$out/weathered.tif" "$out/weathered.png" "${light[@]}"
for grid in depth wear; do
    run preview "$out/$grid.tif" "$out/$grid.png" --flat --palette amounts --legend
done
show before.png Before weathered.png After depth.png 'Depth of the loose cover, metres' wear.png 'What came loose, metres'
view weather "$out/weathered.tif" --exaggeration 3 --bare --before "$terrain" --layer "Loose cover:m=$out/depth.tif" \
    --layer "Came loose:m=$out/wear.tif"

story 'Running water' ParallelErosionSimulation <<'END'
Drops spring everywhere, run downhill, cut where they are fast and drop their load where they are slow. Three tempers: young
mountains, benches at several heights, and hills in their own debris.
END
step erode "$terrain" "$out/mountains.tif" --columns 1024 --feature-size 1500 --iterations 15 --erosion-strength 0.9 \
    --plain-deposition 0 --shaping-sharpness 0.7 --fill-angle 2 --flow-out "$out/mountains_flow.tif"
run shade "$out/mountains.tif" "$out/mountains.png" "${light[@]}"
run erode "$terrain" "$out/uneroded.tif" --columns 1024 --iterations 0
run shade "$out/uneroded.tif" "$out/uneroded.png" "${light[@]}"
run erode "$terrain" "$out/terraces.tif" --columns 640 --feature-size 2500 --iterations 150 --erosion-strength 0.9 \
    --constant-capacity 0 --plain-deposition 0 --terrace-deposition 10 --terrace-angle 12 --shaping-strength 0.1 \
    --shaping-sharpness 1 --shaping-detail 0.5 --fill-angle 0
# The sun overhead shows what is level: it is light, and slopes are dark.
run shade "$out/terraces.tif" "$out/terraces.png" --exaggeration 5 --elevation 88 --no-shadows --range 236 1000
run erode "$terrain" "$out/plains.tif" --columns 512 --feature-size 2000 --iterations 40 --erosion-strength 0.4 \
    --constant-capacity 0 --plain-deposition 1 --plain-angle 8 --shaping-strength 0.5 --shaping-sharpness 0.1 \
    --fill-angle 20
run shade "$out/plains.tif" "$out/plains.png" "${light[@]}"
show uneroded.png Before mountains.png 'Young mountains' terraces.png 'Level benches at several heights, under a sun overhead' \
    plains.png 'Gentle hills'
view mountains "$out/mountains.tif" --exaggeration 3 --bare --before "$terrain" --layer "Water:of 1=$out/mountains_flow.tif"

story 'Where water gathers' FlowSimulation <<'END'
Trails run downhill from all cells; the map is dark where many of them pass.
END
step flow "$terrain" "$out/flow.tif" --preview "$out/flow.png"
show before.png Before flow.png 'Streams and rivers'
view flow "$terrain" --exaggeration 3 --bare --layer "Flow:of 1=$out/flow.tif"

story 'Colours that water carries' ColorTransportSimulation <<'END'
A picture of the terrain is washed downhill along such trails: what lies on the heights is drawn out into the valleys.
END
run preview "$terrain" "$out/heights.png" --flat
step colour "$terrain" --image "$out/heights.png" "$out/washed.png"
show heights.png 'A picture: colours by height' washed.png 'Washed downhill'
view colour "$terrain" --exaggeration 3 --bare --drape "$out/washed.png"

story 'Rocks' DebrisSimulation <<'END'
A valley from close by, 450 m wide. 6000 rocks slide and bounce down its sides and come to rest on one another.
END
close=(--window 173 96 6 5 --resolution 960)
run debris "$terrain" "$out/valley.tif" "${close[@]}" --count 0
low_sun=(--elevation 22 --albedo 0.55)
run shade "$out/valley.tif" "$out/valley.png" "${low_sun[@]}"
step debris "$terrain" "$out/rocks.tif" "${close[@]}" --count 6000 --max-size 60 --min-size 8 \
    --favour-small --restitution 0.2
run shade "$out/rocks.tif" "$out/rocks.png" "${low_sun[@]}"
show valley.png Before rocks.png After
view rocks "$out/rocks.tif" --bare --before "$out/valley.tif"

story 'Sand in the wind' DuneSimulation <<'END'
A sheet of sand on a model of the fault's ridge, 560 m wide. The wind carries it into the lee of the rock and piles it up into
dunes of several sizes, with gentle slopes to the wind and slip faces away from it.
END
model=(--cell-size 1 --height-unit 0.08)
run debris "$terrain" "$out/ridge.tif" --window 262 40 140 112 --resolution 560 --count 0
run shade "$out/ridge.tif" "$out/ridge.png" "${model[@]}" --exaggeration 1.5 --azimuth 300 --elevation 35 --albedo 0.3
step dunes "$out/ridge.tif" "$out/dunes.tif" "${model[@]}" --sand 1.5 --duration 0.06 --sand-out "$out/sand.asc"
awk -v folder="$out" -f scripts/sand_colours.awk "$out/sand.asc"
run shade "$out/dunes.tif" "$out/dunes.png" "${model[@]}" --exaggeration 1.5 --azimuth 300 --elevation 35 \
    --albedo-red "$out/sand_red.asc" --albedo-green "$out/sand_green.asc" --albedo-blue "$out/sand_blue.asc"
show ridge.png 'The ground' dunes.png 'After the wind'
view dunes "$out/dunes.tif" "${model[@]}" --exaggeration 1.5 --bare --before "$out/ridge.tif" --drape "$out/dunes.png"

story 'A model from above' MeshRasterizer_RenderMesh <<'END'
A triangle mesh becomes a height grid: each cell gets the highest surface over it.
END
awk -f scripts/knot.awk >"$out/knot.obj"
knot=(--size 900x640 --rotate-z 30 --scale 0.76 --offset-y 0.02 --supersample)
sculpture=(--cell-size 1 --exaggeration 900 --elevation 60 --no-shadows --ambient-intensity 0.4)
step mesh "$out/knot.obj" "$out/knot.tif" "${knot[@]}" --rotate-x 50
run shade "$out/knot.tif" "$out/knot.png" "${sculpture[@]}" --albedo 0.6
run mesh "$out/knot.obj" "$out/turned.tif" "${knot[@]}" --rotate-x 15
run shade "$out/turned.tif" "$out/turned.png" "${sculpture[@]}" --albedo 0.6
show knot.png 'A knot of 57,600 triangles' turned.png 'The same, turned'
view knot "$out/knot.tif" --cell-size 1 --height-unit 900 --bare

story 'A model with a skin of rock' MeshRasterizer_RenderMeshWithTriplanarDisplacement <<'END'
The same knot, each point of it moved along its normal by the relief of the terrain, laid on from three sides.
END
step mesh "$out/knot.obj" "$out/knot_of_rock.tif" "${knot[@]}" --rotate-x 50 --displacement "$terrain" --displacement-amount 2 \
    --displacement-bias -0.015
run shade "$out/knot_of_rock.tif" "$out/knot_of_rock.png" "${sculpture[@]}" --albedo 0.6
show knot.png Before knot_of_rock.png After
view knot_of_rock "$out/knot_of_rock.tif" --cell-size 1 --height-unit 900 --bare --before "$out/knot.tif"

story 'A terrain from points' MeshRasterizer_RenderPointCloud <<'END'
20,000 points of the terrain, one in seven, are triangulated into a surface, and each triangle takes the one colour that most
of the picture under it is near to.
END
run dunes "$terrain" "$out/terrain.asc" --sand 0 --duration 0
# Rows of the file that hold heights have as many numbers as the grid has columns.
awk 'BEGIN { srand(7); cell = 83 }
    NF > 2 { ++row; for (i = 1; i <= NF; ++i) if (rand() < 0.15) printf "%.1f,%.1f,%s\n", i * cell, -row * cell, $i }
' "$out/terrain.asc" >"$out/points.csv"
step points "$out/points.csv" "$out/points.tif" --columns 512 --image "$out/heights.png" --image-out "$out/triangles.png"
run shade "$out/points.tif" "$out/points.png" "${light[@]}"
show before.png 'The terrain' points.png 'From a seventh of its points' triangles.png 'One colour a triangle'
view points "$out/points.tif" --exaggeration 3 --bare --drape "$out/triangles.png"

story 'Normals for a coarse model' MeshRasterizer_ComputeTangentSpaceNormals <<'END'
A model of every twelfth row and column gets a normal map of the whole terrain, so that it looks as fine when it is lit.
END
awk 'BEGIN { step = 12 }
    NF > 2 && row++ % step == 0 {
        for (across = 0; across * step < NF; ++across) printf "v %d %d %s\n", across * step, 1 - row, $(across * step + 1)
        ++down
    }
    END {
        for (y = 0; y + 1 < down; ++y)
            for (x = 0; x + 1 < across; ++x) {
                a = y * across + x + 1
                printf "f %d %d %d\nf %d %d %d\n", a, a + across, a + 1, a + 1, a + across, a + across + 1
            }
    }' "$out/terrain.asc" >"$out/coarse.obj"
step bake "$out/coarse.obj" "$terrain" "$out/normals.png" --up z
show before.png 'The terrain' normals.png 'Its normals in the frames of the coarse model'
view normals "$terrain" --exaggeration 3 --bare --drape "$out/normals.png"

story 'Stamps' StampInstancer_Populate <<'END'
Copies of a small height patch are placed on the land, here 200 of a hill.
END
awk 'BEGIN {
    printf "ncols 9\nnrows 9\nxllcorner 0\nyllcorner 0\ncellsize 1\n"
    for (y = -4; y <= 4; ++y)
        for (x = -4; x <= 4; ++x) printf "%d%s", x * x + y * y < 20 ? 140 - 7 * (x * x + y * y) : 0, x < 4 ? " " : "\n"
}' >"$out/hill.asc"
step stamp "$terrain" "$out/hills.tif" --stamps "$out/hill.asc" --count 200 --seed 2
run shade "$out/hills.tif" "$out/hills.png" "${light[@]}"
show before.png Before hills.png After
view stamps "$out/hills.tif" --exaggeration 3 --bare --before "$terrain"

story 'Small forms taken away' MedianFilter <<'END'
Each cell becomes the mean of the three middle heights of the disc around it: the hills go again, and edges stay.
END
step median "$out/hills.tif" "$out/median.tif" --radius 6
run shade "$out/median.tif" "$out/median.png" "${light[@]}"
show hills.png Before median.png After
view median "$out/median.tif" --exaggeration 3 --bare --before "$out/hills.tif"

story 'Broken rock' Cellular3D_Render <<'END'
The land rebuilt out of three-dimensional Voronoi cells: the top of the highest cell below the ground is the new height.
END
step cells "$terrain" "$out/cells.tif" --density 40 --layers 10 --random-out "$out/cell_numbers.tif"
run shade "$out/cells.tif" "$out/cells.png" "${light[@]}"
run preview "$out/cell_numbers.tif" "$out/cell_numbers.png" --flat --palette sunlight
show before.png Before cells.png After cell_numbers.png 'A random number for each cell'
view cells "$out/cells.tif" --exaggeration 3 --bare --before "$terrain" --layer "Number of the cell=$out/cell_numbers.tif"

story 'Several steps in one go' pipeline <<'END'
Rain, then frost: a file lists the commands, and grids go from one to the next in memory.
END
steps=$out/rain_and_frost.toml
sed "s|out/|$out/|" examples/rain_and_frost.toml >"$steps"
step pipeline "$steps"
show before.png Before rain_and_frost.png 'After rain and frost'
echo "<details><summary>The file</summary><pre>$(as_html <"$steps")</pre></details>" >>"$sections"
end rain_and_frost

cp docs/images/hero.jpg "$out/hero.jpg"
cat >"$page" <<END
<!doctype html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Tarn.oneAPI: sixteen computations on one terrain</title>
<link rel="icon" href="data:,">
<style>
$(cat web/gallery.css)
</style>
</head>
<body>
<header><img src="hero.jpg" alt="The terrain after a thousand rounds of rain, seen from the side"><div>
<h1>Tarn.oneAPI</h1><p>Sixteen computations on one real terrain, the Jacksboro fault in Tennessee. Made on this machine just
now: $(date '+%-d %B %Y, %H:%M'), on $("$tarn" devices | awk 'NF { sub(/^[[:space:]]+/, ""); print; exit }' | as_html).</p></div></header>
<main>
<nav>
$(cat "$contents")
</nav>
$(cat "$sections")
<footer>Commands are run in the project's folder with build/bin/tarn as tarn; times are of the whole command, with reading and
writing.</footer>
</main>
</body>
</html>
END
rm "$sections" "$contents"
cat <<END

$out/index.html tells the story with all pictures; open it in a browser.
END
