"""The page with the library in it, from the disk and served, in a browser:  live_test.py PAGE TARN TERRAIN PICTURE."""
import base64
import os
import struct
import subprocess
import sys
import tempfile
import threading

from browser import Browser

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "web"))
from serve import make_server  # noqa: E402

page, tarn, terrain, picture = (os.path.abspath(path) for path in sys.argv[1:])


def run(browser, name, **settings):
    """The settings, and the checksum of the heights and layers that the run leaves."""
    browser.run(f"by_id('computation').value = '{name}'; live.list_sliders()")
    for slider, value in settings.items():
        browser.run(f"document.querySelector('#sliders [name={slider}]').value = {value}")
    browser.run("by_id('run').click()")
    browser.wait("!by_id('run').disabled")
    said = browser.run("return by_id('said').textContent")
    assert said.startswith("Done in "), f"{name}: {said}"
    return name, browser.run("""
        let sum = 0;
        for (const cells of [live.state.heights, ...live.state.layers.map(layer => layer.cells)])
          for (const word of new Uint32Array(cells.buffer)) sum = Math.imul(sum ^ word, 16777619);
        return sum""")


def test(browser, folder):
    browser.wait("document.getElementById('message').textContent === ''")

    # The bits of the native library, from the same terrain with the same settings, through the page's own GeoTIFFs.
    sums = [run(browser, "weather")]
    cells = browser.run("const view = new DataView(write_tiff(live.grid, live.state.heights)), from ="
                        " view.byteLength - 4 * live.grid.width * live.grid.height;"
                        "return Array.from({length: live.grid.width * live.grid.height},"
                        " (_, i) => view.getUint32(from + 4 * i, true))")
    for name, options in {"native": ["COMPRESS=NONE", "TILED=NO"], "packed": ["COMPRESS=LZW", "PREDICTOR=3"]}.items():
        subprocess.run([tarn, "--quiet", "weather", terrain, f"{folder}/{name}.tif", *(f"--co={o}" for o in options),
                        "--cell-size", str(browser.run("return side_of_cell(live.grid)"))], check=True)
    native = open(f"{folder}/native.tif", "rb").read()
    assert struct.pack(f"<{len(cells)}I", *cells) in native, "the page's heights are not those of the native library"

    packed = base64.b64encode(open(f"{folder}/packed.tif", "rb").read()).decode()
    assert browser.run(f"""
        const {{cells}} = await read_tiff(await (await fetch('data:;base64,{packed}')).arrayBuffer());
        return cells.every((cell, i) => cell === live.state.heights[i])"""), "a compressed GeoTIFF is not read as it is"

    sums += [run(browser, name) for name in ["erode", "shape", "flow", "light", "rocks"]]
    sums.append(run(browser, "dunes", duration=0.005))
    browser.run("live.undo(); live.undo()")
    browser.run("by_id('run').click()")
    browser.wait("by_id('progress').value > 0 || by_id('cancel').disabled")
    browser.run("by_id('cancel').click()")
    sums.append(run(browser, "shape"))
    assert browser.colours() > 1000, "the canvas is blank"
    assert browser.errors() == []
    return sums


with tempfile.TemporaryDirectory() as folder, Browser() as browser, make_server(os.path.dirname(page)) as server:
    threading.Thread(target=server.serve_forever, daemon=True).start()
    browser.open(page)
    alone = test(browser, folder)
    browser.picture(picture)
    assert browser.run("return by_id('said').textContent").endswith("on one thread.")

    browser.open(f"http://localhost:{server.server_port}/{os.path.basename(page)}")
    assert browser.run("return crossOriginIsolated")
    shared = test(browser, folder)
    assert shared == alone, "results depend on threads"
    if os.cpu_count() > 1:
        said = browser.run("return by_id('said').textContent")
        assert said.endswith(" threads."), said
    server.shutdown()
print("all passed")
