"""The page with the library in it, in a browser:  live_test.py PAGE TARN TERRAIN PICTURE."""
import os
import struct
import subprocess
import sys
import tempfile

from browser import Browser

page, tarn, terrain, picture = (os.path.abspath(path) for path in sys.argv[1:])


def run(browser, name, **settings):
    browser.run(f"by_id('computation').value = '{name}'; live.list_sliders()")
    for slider, value in settings.items():
        browser.run(f"document.querySelector('#sliders [name={slider}]').value = {value}")
    browser.run("live.run()")
    browser.wait("!by_id('run').disabled")
    said = browser.run("return by_id('said').textContent")
    assert said.startswith("Done in "), f"{name}: {said}"


with tempfile.TemporaryDirectory() as folder, Browser() as browser:
    browser.open(page)
    browser.wait("document.getElementById('message').textContent === ''")

    # The bits of the native library, from the same terrain with the same settings, through the page's own GeoTIFFs.
    run(browser, "weather")
    cells = browser.run("const view = new DataView(write_tiff(live.grid, live.state.heights)), from ="
                        " view.byteLength - 4 * live.grid.width * live.grid.height;"
                        "return Array.from({length: live.grid.width * live.grid.height},"
                        " (_, i) => view.getUint32(from + 4 * i, true))")
    subprocess.run([tarn, "--quiet", "weather", terrain, f"{folder}/native.tif", "--co", "COMPRESS=NONE",
                    "--co", "TILED=NO", "--cell-size", str(browser.run("return side_of_cell(live.grid)"))], check=True)
    native = open(f"{folder}/native.tif", "rb").read()
    assert struct.pack(f"<{len(cells)}I", *cells) in native, "the page's heights are not those of the native library"

    for name in ["erode", "shape", "flow", "light", "rocks"]:
        run(browser, name)
    run(browser, "dunes", duration=0.005)
    browser.run("live.undo(); live.undo()")
    browser.run("live.run()")
    browser.run("live.cancel()")
    run(browser, "shape")
    assert browser.colours() > 1000, "the canvas is blank"
    browser.picture(picture)
    assert browser.errors() == []
print("all passed")
