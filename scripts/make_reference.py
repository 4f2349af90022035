#!/usr/bin/env python3
"""Makes a page for each computation: what it models, its parameters, pictures of the main ones at three values, time and
memory, and what bad input gets. The text is that of the manual, of the tool's table of options and of the header.

    make_reference.py TARN TERRAIN TAGFILE FOLDER

TAGFILE is Doxygen's, of the header whose pages lie in ../api.
"""
import json
import re
import subprocess
import sys
import xml.etree.ElementTree as xml
from dataclasses import dataclass, field
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "tool"))
from generate_manual import sections  # noqa: E402

LIT = ["--exaggeration", "3", "--range", "236", "1076"]
MODEL = ["--cell-size", "1", "--height-unit", "0.06"]  # a model of a ridge for sand, 256 m wide
ON_LAND = "The land is 18 km wide and drawn with three times its height. Before:\n\n![The land before](images/land.png)"
SIDE = 2048  # cells, of the terrain that times and memory are measured on


class Tool:
    """The command-line tool in the folder of the pictures."""

    def __init__(self, tarn: str, folder: Path):
        self.tarn, self.folder = str(Path(tarn).resolve()), folder

    def __call__(self, *arguments) -> None:
        subprocess.run([self.tarn, "--quiet", *map(str, arguments)], check=True, cwd=self.folder)

    def read(self, *arguments) -> dict:
        return json.loads(subprocess.check_output([self.tarn, *arguments]))

    def refusal(self, *arguments) -> str:
        run = subprocess.run([self.tarn, *arguments], cwd=self.folder, capture_output=True, text=True)
        return f"$ tarn {' '.join(arguments)}\n{run.stderr.strip()}\n$ echo $?\n{run.returncode}"


# What draws the picture of a run: functions of the tool, the run without its output, its options and the picture.


def drawn_by(command, *light):
    def draw(tool, inputs, options, picture):
        tool(*inputs, "grid.tif", *options)
        tool(command, "grid.tif", picture, *light)
    return draw


def itself(tool, inputs, options, picture):
    tool(*inputs, picture, *options)


def its_preview(tool, inputs, options, picture):
    tool(*inputs, "grid.tif", *options, "--preview", picture)


def sand(tool, inputs, options, picture):
    tool(*inputs, "grid.tif", *options, *MODEL, "--sand-out", "sand.asc")
    subprocess.run(["awk", "-v", "folder=.", "-f", ROOT / "scripts/sand_colours.awk", "sand.asc"], check=True, cwd=tool.folder)
    colours = [part for name in ("red", "green", "blue") for part in (f"--albedo-{name}", f"sand_{name}.asc")]
    tool("shade", "grid.tif", picture, *MODEL, "--exaggeration", 1.5, "--azimuth", 300, "--elevation", 35, *colours)


@dataclass
class Page:
    """A computation: the command that does it, the method's sources, and rows of three pictures, each with its options."""
    title: str
    command: str
    sources: str
    rows: list
    inputs: list = field(default_factory=lambda: ["land.tif"])
    options: list = field(default_factory=list)
    draw: object = drawn_by("preview", *LIT)
    note: str = ON_LAND


def at(option: str, *values) -> list:
    return [(f"{option} {value}", None, [option, str(value)]) for value in values]


KNOT = ["--rotate-x", 50, "--rotate-z", 30, "--scale", 0.76, "--size", "360x256", "--supersample"]
SCULPTURE = drawn_by("shade", "--cell-size", 1, "--exaggeration", 360, "--elevation", 60, "--no-shadows",
                     "--ambient-intensity", 0.4, "--albedo", 0.6)
PYRAMID = "Pyramid: P. J. Burt and E. H. Adelson, *The Laplacian Pyramid as a Compact Image Code*, 1983."
PAGES = {
    "ThermalShaper_Process": Page(
        "Slopes that fail", "shape",
        PYRAMID + " Slopes: H. Scharr, *Optimale Operatoren in der digitalen Bildverarbeitung*, 2000.",
        [at("--rate", -0.1, -0.5, -2), at("--feature-size", 200, 600, 4000), at("--detail-gain", 0, 0.5, 1)]),
    "ThermalSimulation": Page(
        "Slopes that weather", "weather",
        "Material that slides above an angle of repose: F. K. Musgrave, C. E. Kolb and R. S. Mace, *The Synthesis and "
        "Rendering of Eroded Fractal Terrains*, 1989. " + PYRAMID,
        [at("--duration", 0.005, 0.02, 0.1), at("--repose-angle", 5, 15, 30), at("--feature-size", 200, 600, 2000)]),
    "ParallelErosionSimulation": Page(
        "Running water", "erode",
        "Particles of water: N. Chiba, K. Muraoka and K. Fujita, *An Erosion Model Based on Velocity Fields for the Visual "
        "Simulation of Mountain Scenery*, 1998. " + PYRAMID,
        [at("--iterations", 5, 30, 100), at("--feature-size", 300, 1000, 3000), at("--erosion-strength", 0.2, 0.6, 1),
         at("--shaping-strength", 0, 0.3, 1), at("--shaping-sharpness", 0, 0.6, 1)]),
    "DuneSimulation": Page(
        "Sand in the wind", "dunes", "B. T. Werner, *Eolian Dunes: Computer Simulations and Attractor Interpretation*, 1995.",
        [at("--duration", 0.02, 0.08, 0.25), at("--sand", 0.4, 1.2, 4), at("--repose-angle", 20, 34, 50)],
        ["ridge.tif"], ["--sand", 1.2, "--duration", 0.08], sand,
        "Sand on a model of a ridge, 256 m wide. The wind blows from the left."),
    "DebrisSimulation": Page(
        "Rocks", "debris",
        "Rough bodies: K. Perlin, *An Image Synthesizer*, 1985, and *Improving Noise*, 2002; S. Gustavson and I. McEwan, "
        "*Efficient Computational Noise in GLSL*, 2012.",
        [at("--count", 200, 1000, 5000), at("--max-size", 30, 60, 120), at("--friction", 0.3, 0.5, 0.6)],
        ["valley.tif"], ["--count", 1000, "--max-size", 60, "--min-size", 12, "--favour-small", "--restitution", 0.2],
        drawn_by("shade", "--albedo", 0.5, "--elevation", 25), "A valley, 450 m wide."),
    "FlowSimulation": Page(
        "Where water gathers", "flow",
        "It stands in for the drainage area of each cell: J. F. O'Callaghan and D. M. Mark, *The Extraction of Drainage "
        "Networks from Digital Elevation Data*, 1984.",
        [at("--flow-length", 0.05, 0.3, 1), at("--spread", 0, 1, 100)], draw=its_preview),
    "ColorTransportSimulation": Page(
        "Colours that water carries", "colour", "",
        [at("--transport", 0, 0.3, 0.7), at("--persistence", 0, 0.5, 1)], options=["--image", "colours.png"], draw=itself,
        note="The picture that is washed downhill:\n\n![Colours by height](images/colours.png)"),
    "Shade": Page(
        "Light", "shade",
        "Lambert's law of the cosine. Horizons that run along lines: V. Timonen and J. Westerholm, *Scalable Height Field "
        "Self-Shadowing*, 2010.",
        [at("--azimuth", 225, 315, 45), at("--elevation", 15, 45, 75), at("--ambient-intensity", 0, 0.3, 1),
         at("--exaggeration", 1, 3, 6)], options=LIT, draw=itself),
    "SunLightIntegral": Page(
        "A year of sun", "sunlight",
        "Declination: P. I. Cooper, *The Absorption of Radiation in Solar Stills*, 1969. Air mass: G. V. Rozenberg, "
        "*Twilight*, 1966.",
        [at("--latitude", 0, 36.6, 65), at("--haze", 0, 0.05, 0.15)],
        draw=drawn_by("preview", "--flat", "--palette", "sunlight", "--range", 0, 1, "--legend"),
        note="A year of sun; 2.68 is that of ground which faces the sun all the time."),
    "MeshRasterizer_RenderMesh": Page(
        "A model from above", "mesh", "Triangles: C. Ericson, *Real-Time Collision Detection*, 2005.",
        [at("--rotate-x", 0, 50, 80), at("--scale", 0.5, 0.76, 1), at("--vertical-scale", 0.5, 1, 2)],
        ["knot.obj"], KNOT, SCULPTURE, "A knot of 57,600 triangles."),
    "MeshRasterizer_RenderMeshWithTriplanarDisplacement": Page(
        "A model with a skin of rock", "mesh",
        "Maps from three sides: R. Geiss, *Generating Complex Procedural Terrains Using the GPU*, GPU Gems 3, 2007.",
        [at("--displacement-amount", 0.5, 2, 4), at("--displacement-bias", -0.03, -0.015, 0)],
        ["knot.obj"], [*KNOT, "--displacement", "terrain.tif", "--displacement-amount", 2, "--displacement-bias", -0.015],
        SCULPTURE, "A knot, displaced by the relief of a terrain, which counts from 0.007 to 0.033."),
    "MeshRasterizer_RenderPointCloud": Page(
        "A terrain from points", "points",
        "Delaunay triangulation by a sweep: S. Fortune, *A Sweepline Algorithm for Voronoi Diagrams*, 1987.",
        [at("--columns", 64, 128, 320), [(f"one cell in {n} is a point", [f"points{n}.csv"], []) for n in (400, 50, 7)]],
        ["points7.csv"], ["--columns", 320], note="Points of a terrain 18 km wide, drawn with three times its height."),
    "MeshRasterizer_ComputeTangentSpaceNormals": Page(
        "Normals for a coarse model", "bake",
        "Smooth normals: G. Thürmer and C. Wüthrich, *Computing Vertex Normals from Polygonal Facets*, 1998. Detail of one "
        "surface on another: P. Cignoni, C. Montani, C. Rocchini and R. Scopigno, *A General Method for Preserving Attribute "
        "Values on Simplified Meshes*, 1998.",
        [[(f"a model of every {n}th row and column", [f"model{n}.obj", "land.tif"], []) for n in (4, 16, 64)],
         at("--height-unit", 0.5, 1, 3)],
        ["model16.obj", "land.tif"], ["--up", "z"], itself,
        "Normals of a terrain 18 km wide, in the frames of models that have few of its cells as vertices."),
    "StampInstancer_Populate": Page(
        "Stamps", "stamp", "",
        [at("--count", 30, 200, 1000), at("--stamp-scale", 0.5, 1, 2)], options=["--stamps", "hill.asc", "--count", 200]),
    "MedianFilter": Page(
        "Small forms taken away", "median",
        "K. E. Batcher, *Sorting Networks and Their Applications*, 1968; A. Adams, *Fast Median Filters Using Separable Sorting "
        "Networks*, 2021.",
        [at("--radius", 1, 3, 8), at("--iterations", 1, 4, 16)]),
    "Cellular3D_Render": Page(
        "Broken rock", "cells", "S. Worley, *A Cellular Texture Basis Function*, 1996.",
        [at("--density", 20, 48, 100), at("--layers", 3, 8, 30), at("--gap", 0, 0.1, 0.2)], options=["--layers", 8]),
}


def make_inputs(tool: Tool, terrain: str) -> None:
    """The land of most pictures, 300 cells high, and what is made of it."""
    (tool.folder / "terrain.tif").symlink_to(terrain)
    tool("debris", "terrain.tif", "land.tif", "--count", 0, "--window", 110, 70, 240, 206, "--resolution", 300)
    tool("preview", "land.tif", "land.png", *LIT, "--legend")
    tool("preview", "land.tif", "colours.png", "--flat", "--range", 236, 1076)
    tool("debris", "terrain.tif", "ridge.tif", "--count", 0, "--window", 290, 60, 80, 64, "--resolution", 256)
    tool("debris", "terrain.tif", "valley.tif", "--count", 0, "--window", 173, 96, 6, 5, "--resolution", 360)
    tool("dunes", "land.tif", "land.asc", "--sand", 0, "--duration", 0)
    text = (tool.folder / "land.asc").read_text(encoding="utf-8").splitlines()
    rows = [line.split() for line in text if len(line.split()) > 2]
    cell = 80
    for step in (7, 50, 400):
        cells = [(x, y) for y, row in enumerate(rows) for x in range(len(row)) if (x * 7919 + y * 104729) % 1009 < 1009 / step]
        lines = [f"{x * cell},{-y * cell},{rows[y][x]}\n" for x, y in cells]
        (tool.folder / f"points{step}.csv").write_text("".join(lines), encoding="utf-8")
    for step in (4, 16, 64):
        coarse = [row[::step] for row in rows[::step]]
        across = len(coarse[0])
        lines = [f"v {x * step} {-y * step} {z}\n" for y, row in enumerate(coarse) for x, z in enumerate(row)]
        for a in (y * across + x + 1 for y in range(len(coarse) - 1) for x in range(across - 1)):
            lines.append(f"f {a} {a + across} {a + 1}\nf {a + 1} {a + across} {a + across + 1}\n")
        (tool.folder / f"model{step}.obj").write_text("".join(lines), encoding="utf-8")
    knot = subprocess.check_output(["awk", "-f", ROOT / "scripts/knot.awk"], text=True)
    (tool.folder / "knot.obj").write_text(knot, encoding="utf-8")
    hill = "".join(f"{max(0, 160 - 4 * (x * x + y * y))} " for y in range(-6, 7) for x in range(-6, 7))
    (tool.folder / "hill.asc").write_text("ncols 13\nnrows 13\nxllcorner 0\nyllcorner 0\ncellsize 1\n" + hill, encoding="utf-8")


def pictures(tool: Tool, name: str, page: Page, options: dict) -> str:
    text = page.note + "\n"
    for row in page.rows:
        text += '\n<div class="three">\n'
        for caption, inputs, chosen in row:
            file = f"{name}-{re.sub('[^a-z0-9.]+', '-', caption)}.png"
            # The value that a picture is about takes the place of the one that goes with all.
            along = page.options
            if chosen and chosen[0] in along:
                place = along.index(chosen[0])
                along = along[:place] + along[place + 2:]
            page.draw(tool, [page.command, *(inputs or page.inputs)], [*along, *chosen], file)
            default = options[chosen[0]].get("default") if chosen else None
            if isinstance(default, (int, float)) and default == float(chosen[1]):
                caption += " (default)"
            image = f'<a href="images/{file}"><img src="images/{file}" alt="{page.title}: {caption}"></a>'
            text += f"<figure>{image}<figcaption>{caption}</figcaption></figure>\n"
        text += "</div>\n"
    return text


# Text


def header_comments(header: str) -> dict:
    """The comment of each function: {"Shade": "Renders a terrain ..."}."""
    comments = {}
    for comment, name in re.findall(r"/\*\*((?:(?!\*/).)*)\*/\s*TARN_API[^(;]*?(\w+)\(", header, flags=re.S):
        comments[name] = re.sub(r"^ \* ?", "", comment, flags=re.M).strip()
    return comments


def api_links(tagfile: str) -> dict:
    """Where Doxygen tells of functions and records: {"Shade": "oneapi_8h.html#a1"}."""
    links = {}
    for compound in xml.parse(tagfile).getroot():
        if compound.get("kind") == "struct":
            links[compound.findtext("name")] = compound.findtext("filename")
        for member in compound.findall("member[@kind='function']"):
            links[member.findtext("name")] = member.findtext("anchorfile") + "#" + member.findtext("anchor")
    return links


def limits(option: dict) -> str:
    if "members" in option:
        return ", ".join(map(str, option["members"]))
    if "exclusive_minimum" in option:
        return f"above {option['exclusive_minimum']:g}"
    if "minimum" in option:
        is_any = option["minimum"] < -1e38 and option["maximum"] > 1e38
        return "any" if is_any else f"{option['minimum']:.10g} to {option['maximum']:.10g}"
    return ", ".join(option.get("choices", []))


def parameter_table(options: list, manual: str) -> str:
    """Out of the tool's table of options; the manual says more on some of them."""
    rows = [[cell.strip() for cell in row.strip("|").split("|")] for row in manual.splitlines() if row.startswith("| `--")]
    meanings = {names[0]: row[2] for row in rows if len(names := re.findall(r"--[a-z-]+", row[0])) == 1}
    text = "| Option | Default | Range | Unit | Meaning |\n|---|---|---|---|---|\n"
    for option in options:
        default = option.get("default", option.get("default_text", "required" if option["required"] else ""))
        values = default if isinstance(default, list) else [default]
        value = " ".join(v if isinstance(v, str) else "" if isinstance(v, bool) else f"{v:.10g}" for v in values)
        words = meanings.get(option["option"], option["help"])
        cells = [f"`{option['option']}`", value, limits(option), option["unit"], words]
        text += "| " + " | ".join(cell.replace("|", "\\|") for cell in cells) + " |\n"
    return text


def prose(section: str) -> str:
    """The manual's section without the table of options; its pictures and links lie one folder up from here."""
    blocks = [block for block in re.split(r"\n\n+", section) if not block.startswith("| Option")]
    return re.sub(r"\]\((?!https?:|#)", "](../docs/", "\n\n".join(blocks)).replace("](#", "](../docs/tool.md#")


def as_markdown(comment: str) -> str:
    """A comment of the header: names of parameters as code, products with a sign that Markdown leaves alone."""
    comment = re.sub(r"^- ([\w, ]+):", lambda names: "- " + re.sub(r"\w+", r"`\g<0>`", names[1]) + ":", comment, flags=re.M)
    return re.sub(r" \* ", " × ", comment).replace("<", "&lt;")


def cost_text(cost: dict) -> str:
    million = SIDE * SIDE / 1e6
    # A run tells of at least 64 MiB.
    told = cost["mebibytes"]
    memory = "not told" if told == 0 else ("at most " if told <= 64 else "") + f"{told / million:.0f} MiB"
    seconds = cost["seconds_per_million_cells"]
    time = f"{seconds:.1f} s" if seconds >= 1 else f"{seconds * 1000:.{0 if seconds > 0.01 else 1}f} ms"
    return f"| Time for a million cells | Memory for a million cells |\n|---|---|\n| {time} | {memory} |\n"


def bad_input(tool: Tool, page: Page, options: list) -> str:
    needed = [o["option"] for o in options if o["required"] and o["option"]]
    along = [str(part) for i, part in enumerate(page.options) if part in needed or (i and page.options[i - 1] in needed)]
    number = next(o for o in options if "exclusive_minimum" in o or limits(o).count(" to "))
    beyond = f"{number['exclusive_minimum'] if 'exclusive_minimum' in number else number['minimum'] - 1:g}"
    out = "out.png" if page.draw is itself else "out.tif"
    runs = [[page.command, *page.inputs, out, *along, number["option"], value] for value in (beyond, "nan")]
    runs.append([page.command, "missing.tif", *page.inputs[1:], out, *along])
    return "\n\n".join(tool.refusal(*run) for run in runs)


def main(tarn: str, terrain: str, tagfile: str, folder_name: str) -> None:
    folder = Path(folder_name)
    images = folder / "images"
    images.mkdir(parents=True)
    tool = Tool(tarn, images)
    make_inputs(tool, str(Path(terrain).resolve()))
    table = tool.read("options", "--json")
    commands = {command["name"]: command for command in table["commands"]}
    # What most commands take is told by the manual.
    names = [option["option"] for command in table["commands"] for option in command["options"]]
    common = {name for name in names if names.count(name) > len(commands) / 2}
    costs = {cost["function"]: cost for cost in tool.read("bench", "--json", "--size", str(SIDE))["results"]}
    manual = sections((ROOT / "docs/tool.md").read_text(encoding="utf-8"))
    header = (ROOT / "include/tarn/oneapi.h").read_text(encoding="utf-8")
    comments = header_comments(header)
    links = api_links(tagfile)
    functions = {name for command in table["commands"] for name in command["functions"]}
    assert functions - {"GetDevices"} == set(PAGES), "each computation has a page"
    for name, page in PAGES.items():
        command = commands[page.command]
        section = manual["tarn " + page.command]
        options = [option for option in command["options"] if option["option"] not in common]
        model, buffers = re.split(r"\n\n(?=- )", comments[name], maxsplit=1)
        record = re.search(rf"{name}\([^;]*?(\w+_Parameters)\*", header)[1]
        refusals = bad_input(tool, page, command["options"]).replace("\n", "\n    ")
        text = f"""# {page.title}

[`{name}`](../api/{links[name]}) with [`{record}`](../api/{links[record]}); in the tool
[`tarn {page.command}`](../docs/tool.md#tarn-{page.command})

{prose(section)}

## The model

{as_markdown(model)}

{page.sources}

## Parameters

{parameter_table(options, section)}
Every command takes the options of [grids](../docs/tool.md#grids) and [files](../docs/tool.md#files) as well. The fields of the
record, with their own limits, are [in the header](../api/{links[record]}).

## The main ones at three values

{pictures(tool, name, page, {option["option"]: option for option in command["options"]})}
## Examples
{"".join(chr(10) + example["text"] + ":" + chr(10) + chr(10) + "    " + example["line"] + chr(10) for example in command["examples"])}
## Time and memory

{cost_text(costs[name])}
Measured by [`tarn bench`](../docs/tool.md#tarn-bench) on the machine that made this page, for {SIDE} x {SIDE} cells. The
memory is what the run tells the host that it takes.

## Buffers, bad input, status

{as_markdown(buffers)}

The tool refuses before it works and says why, in one line:

    {refusals}
"""
        (folder / f"{name}.md").write_text(text, encoding="utf-8")
    for file in images.iterdir():
        if file.suffix != ".png":
            file.unlink()


if __name__ == "__main__":
    main(*sys.argv[1:])
