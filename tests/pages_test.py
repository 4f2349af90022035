"""The page of `tarn view` in a browser:  pages_test.py TARN TERRAIN FOLDER, which keeps the pictures of the page."""
import os
import subprocess
import sys
import tempfile

from browser import Browser

tarn, terrain, pictures = (os.path.abspath(path) for path in sys.argv[1:])


def press(browser, key):
    browser.run(f"document.body.dispatchEvent(new KeyboardEvent('keydown', {{key: '{key}', bubbles: true}}))")


def state(browser):
    return browser.run("return [stage.terrain.camera.position.toArray(), stage.terrain.stretch.value,"
                       " stage.terrain.divider, stage.layers.map(l => l.on), document.documentElement.className,"
                       " by_id('wireframe').checked, stage.terrain.light.value].map(v => JSON.stringify(v))")


with tempfile.TemporaryDirectory() as folder, Browser() as browser:
    def run(*arguments):
        subprocess.run([tarn, "--quiet", *arguments], cwd=folder, check=True)

    run("weather", terrain, "weathered.asc", "--depth-out", "depth.tif", "--preview", "picture.png")
    run("view", "weathered.asc", "page.html", "--before", terrain, "--drape", "picture.png",
        "--layer", "Cover:m=depth.tif", "--exaggeration", "3")
    browser.open(f"{folder}/page.html")
    browser.wait("document.getElementById('message').textContent === ''")
    assert browser.colours() > 1000, "the canvas is blank"
    loaded = browser.run("return performance.getEntriesByType('resource').map(r => r.name)")
    assert all(name.startswith("data:") for name in loaded), f"the page needs other files: {loaded}"
    browser.picture(f"{pictures}/view.png")
    names = browser.run("return stage.layers.map(layer => layer.name)")
    assert names == ["Height", "Slope", "Normals", "Change", "Cover", "Flow", "Shadow", "Sky in view",
                     "Sunlight of a year", "Picture"], names

    # Heights come back within half a step of the 16 bits.
    rows = [line.split() for line in open(f"{folder}/weathered.asc")]
    cells = [float(text) for row in rows if len(row) > 2 for text in row]
    shown = browser.run("return Array.from(stage.sides.after)")
    step = (max(cells) - min(cells)) / 65534
    assert max(abs(a - b) for a, b in zip(cells, shown, strict=True)) < 0.51 * step

    # What each key changes, and nothing else.
    before = state(browser)
    for key, changed in [("ArrowLeft", 0), ("+", 0), ("]", 1), (".", 2), ("5", 3), ("t", 4), ("w", 5), ("l", 6)]:
        press(browser, key)
        after = state(browser)
        assert [i for i in range(7) if after[i] != before[i]] == [changed], f"{key}: {before} {after}"
        before = after
    readout = browser.run("return by_id('readout').textContent")
    assert "Height " in readout and " m" in readout and "change" in readout, readout
    for key in ["w", "l", "4", "6", "7"]:
        press(browser, key)
    browser.wait("stage.layers.every(layer => !layer.on || !layer.load)")
    legend = browser.run("return document.querySelectorAll('.layer')[3].querySelector('.ticks').textContent")
    assert "m" in legend and legend.startswith("-"), legend
    assert browser.colours() > 1000, "the layers are blank"
    browser.picture(f"{pictures}/view_layers.png")
    assert browser.errors() == []
