#!/usr/bin/env bash
# Takes the terrain in data/ through everything that the library computes, by the steps of examples/demo.toml, and writes
# grids, pictures of them, pages that show them in three dimensions, and index.html, which tells the story. Every picture but
# those of differences and of bare colours is rendered by the library.
#   scripts/gallery.sh TARN FOLDER
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

tarn=$1
out=$2
terrain=data/jacksboro.tif
mkdir -p "$out"

# The page: `story TITLE FUNCTION` begins a section, with its text from standard input; `step OUTPUT` tells the step that makes
# a file of the folder, with its time; `show PICTURE CAPTION [PICTURE CAPTION]...` shows pictures of the folder; `end NAME` ends
# the section with that step and a link to NAME.html.
page=$out/index.html
sections=$out/sections.html
contents=$out/contents.html
notes=$out/notes.txt
: >"$sections"
: >"$contents"
: >"$notes"
as_html() { sed 's/&/\&amp;/g; s/</\&lt;/g'; }

# run_steps NAME: runs the steps of examples/NAME.toml, and keeps the notes, which have each step's line and time.
run_steps() {
    sed "s|out/|$out/|g" "examples/$1.toml" >"$out/$1.toml"
    echo "tarn pipeline $out/$1.toml"
    "$tarn" pipeline "$out/$1.toml" 2>&1 | tee -a "$notes"
}

story() {
    echo "<a href=\"#$2\">$1</a>" >>"$contents"
    { echo "<section id=\"$2\"><h2>$1 <small>$2</small></h2><p>"; cat; echo '</p>'; } >>"$sections"
}
step() {
    local line number seconds
    line=$(grep --max-count=1 "step .* '\?$out/$1'\?\( \|$\)" "$notes") # quoted where the folder has a space in its name
    number=$(sed 's/.*\(step [0-9]* of [0-9]*\): .*/\1/' <<<"$line")
    seconds=$(sed -n "s/.*$number: \([0-9.]* s\)$/\1/p" "$notes")
    tell "${line#*"$number": }" "$seconds"
}
tell() {
    told="<pre>$(as_html <<<"$1")</pre><div class=\"more\"><span>$2</span>"
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
end() {
    echo "$told<a href=\"$1.html\">See it in three dimensions</a></div></section>" >>"$sections"
}

echo
"$tarn" devices
echo

# Models for the steps: a knot, a hill, a seventh of the terrain's cells as points, and every twelfth row and column of it.
awk -f scripts/knot.awk >"$out/knot.obj"
awk 'BEGIN {
    printf "ncols 9\nnrows 9\nxllcorner 0\nyllcorner 0\ncellsize 1\n"
    for (y = -4; y <= 4; ++y)
        for (x = -4; x <= 4; ++x) printf "%d%s", x * x + y * y < 20 ? 140 - 7 * (x * x + y * y) : 0, x < 4 ? " " : "\n"
}' >"$out/hill.asc"
"$tarn" --quiet dunes "$terrain" "$out/terrain.asc" --sand 0 --duration 0
# Rows of the file that hold heights have as many numbers as the grid has columns.
awk 'BEGIN { srand(7); cell = 83 }
    NF > 2 { ++row; for (i = 1; i <= NF; ++i) if (rand() < 0.15) printf "%.1f,%.1f,%s\n", i * cell, -row * cell, $i }
' "$out/terrain.asc" >"$out/points.csv"
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

run_steps demo
# The sand in its own colour, by its depth.
awk -v folder="$out" -f scripts/sand_colours.awk "$out/sand.asc"
model=(--cell-size 1 --height-unit 0.08 --exaggeration 1.5)
"$tarn" --quiet shade "$out/dunes.tif" "$out/dunes.png" "${model[@]}" --azimuth 300 --elevation 35 \
    --albedo-red "$out/sand_red.asc" --albedo-green "$out/sand_green.asc" --albedo-blue "$out/sand_blue.asc"
"$tarn" --quiet view "$out/dunes.tif" "$out/dunes.html" --title 'Tarn.oneAPI: dunes' "${model[@]}" --bare \
    --before "$out/ridge.tif" --drape "$out/dunes.png"
run_steps rain_and_frost

story 'The land, and its light' Shade <<'END'
A fault in Tennessee, 30 km wide, three times as high as it is. The library lights it with the shadows of a sun and with the
light of the sky that each place sees; given a day and an hour, with the sun of that place.
END
step before.png
show before.png 'Sun from the north-west, as on maps' winter_afternoon.png 'The 21st of December, half past three'
end land

story 'A year of sun' SunLightIntegral <<'END'
How much light each place receives over a span of days: the sun of each hour, cut off by the mountains and dimmed by the air.
END
step sunlight_year.tif
show sunlight_year.png 'A year: 27 to 48 % of full sun' sunlight_midwinter.png 'Its darkest three weeks: 2 to 29 %'
end sunlight

story 'Slopes that fail' ThermalShaper_Process <<'END'
Slow slope failure, at all scales at once: slopes wear back evenly from their crests, which stay sharp.
END
step shaped.tif
show before.png Before after.png After difference.png 'Metres lost and gained'
end shape

story 'Slopes that weather' ThermalSimulation <<'END'
Ground that is too steep comes loose, slides downhill and comes to rest as a cover of scree.
END
step weathered.tif
show before.png Before weathered.png After depth.png 'Depth of the loose cover, metres' wear.png 'What came loose, metres'
end weather

story 'Running water' ParallelErosionSimulation <<'END'
Drops spring everywhere, run downhill, cut where they are fast and drop their load where they are slow. Three tempers: young
mountains, benches at several heights, and hills in their own debris.
END
step mountains.tif
show uneroded.png Before mountains.png 'Young mountains' terraces.png 'Level benches at several heights, under a sun overhead' \
    plains.png 'Gentle hills'
end mountains

story 'Where water gathers' FlowSimulation <<'END'
Trails run downhill from all cells; the map is dark where many of them pass.
END
step flow.tif
show before.png Before flow.png 'Streams and rivers'
end flow

story 'Colours that water carries' ColorTransportSimulation <<'END'
A picture of the terrain is washed downhill along such trails: what lies on the heights is drawn out into the valleys.
END
step washed.png
show heights.png 'A picture: colours by height' washed.png 'Washed downhill'
end colour

story 'Rocks' DebrisSimulation <<'END'
A valley from close by, 450 m wide. 6000 rocks slide and bounce down its sides and come to rest on one another.
END
step rocks.tif
show valley.png Before rocks.png After
end rocks

story 'Sand in the wind' DuneSimulation <<'END'
A sheet of sand on a model of the fault's ridge, 560 m wide. The wind carries it into the lee of the rock and piles it up into
dunes of several sizes, with gentle slopes to the wind and slip faces away from it.
END
step dunes.tif
show ridge.png 'The ground' dunes.png 'After the wind'
end dunes

story 'A model from above' MeshRasterizer_RenderMesh <<'END'
A triangle mesh becomes a height grid: each cell gets the highest surface over it.
END
step knot.tif
show knot.png 'A knot of 57,600 triangles' turned.png 'The same, turned'
end knot

story 'A model with a skin of rock' MeshRasterizer_RenderMeshWithTriplanarDisplacement <<'END'
The same knot, each point of it moved along its normal by the relief of the terrain, laid on from three sides.
END
step knot_of_rock.tif
show knot.png Before knot_of_rock.png After
end knot_of_rock

story 'A terrain from points' MeshRasterizer_RenderPointCloud <<'END'
20,000 points of the terrain, one in seven, are triangulated into a surface, and each triangle takes the one colour that most
of the picture under it is near to.
END
step points.tif
show before.png 'The terrain' points.png 'From a seventh of its points' triangles.png 'One colour a triangle'
end points

story 'Normals for a coarse model' MeshRasterizer_ComputeTangentSpaceNormals <<'END'
A model of every twelfth row and column gets a normal map of the whole terrain, so that it looks as fine when it is lit.
END
step normals.png
show before.png 'The terrain' normals.png 'Its normals in the frames of the coarse model'
end normals

story 'Stamps' StampInstancer_Populate <<'END'
Copies of a small height patch are placed on the land, here 200 of a hill.
END
step hills.tif
show before.png Before hills.png After
end stamps

story 'Small forms taken away' MedianFilter <<'END'
Each cell becomes the mean of the three middle heights of the disc around it: the hills go again, and edges stay.
END
step median.tif
show hills.png Before median.png After
end median

story 'Broken rock' Cellular3D_Render <<'END'
The land rebuilt out of three-dimensional Voronoi cells: the top of the highest cell below the ground is the new height.
END
step cells.tif
show before.png Before cells.png After cell_numbers.png 'A random number for each cell'
end cells

story 'Several steps in one go' pipeline <<'END'
All of this comes out of one file of sixty steps, <a href="demo.toml">demo.toml</a>: they run in one process, and grids go from one
to the next in memory. Here is a small one, rain and then frost.
END
tell "tarn pipeline $out/rain_and_frost.toml" "$(sed -n 's/.*step . of 4: \([0-9.]*\) s$/\1/p' "$notes" | awk '{ sum += $1 } END { print sum }') s"
show before.png Before rain_and_frost.png 'After rain and frost'
echo "<details><summary>The file</summary><pre>$(as_html <"$out/rain_and_frost.toml")</pre></details>" >>"$sections"
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
<footer>Commands are run in the project's folder with build/bin/tarn as tarn; times are of the whole step, with reading
and writing.</footer>
</main>
</body>
</html>
END
rm "$sections" "$contents" "$notes"
cat <<END

$out/index.html tells the story with all pictures; open it in a browser.
END
