"""Tarn.oneAPI in Blender: terrain of height grids, and erosion, weathering and rocks on grid objects.

Vertices of a terrain are in metres; the object's scale makes the scene. What a computation gives beside the heights
(flow, sediment, wear...) becomes attributes of the vertices, for shaders.
"""
import importlib.util
import inspect
import json
import sys
from pathlib import Path

import bpy
import numpy as np
from bpy_extras.io_utils import ImportHelper

HERE = Path(__file__).parent
# The package `tarn` of the machine, else the one that came with the add-on.
if importlib.util.find_spec("tarn") is None:
    sys.path.append(str(HERE / "lib"))
import tarn  # noqa: E402
from tarn._grids import resample  # noqa: E402

bl_info = {
    "name": "Tarn Terrain",
    "description": "Height grids as terrain; erosion, weathering and rocks on grid objects",
    "version": (0, 1, 0),
    "blender": (3, 0, 0),
    "location": "View3D > Sidebar > Tarn; File > Import",
    "category": "Mesh",
}

# Lowland green over ochre to pale rock, in linear light.
_TINTS = (
    (0.14, 0.27, 0.14), (0.31, 0.41, 0.18), (0.60, 0.55, 0.27), (0.54, 0.37, 0.19), (0.43, 0.30, 0.22),
    (0.84, 0.80, 0.78),
)  # fmt: skip


class Lattice:
    """The vertices of an object as rows from the north and columns from the west."""

    def __init__(self, mesh: bpy.types.Mesh):
        places = np.empty(3 * len(mesh.vertices), np.float32)
        mesh.vertices.foreach_get("co", places)
        self._mesh, self._places = mesh, places.reshape(-1, 3)
        x, y = np.round(self._places[:, 0], 4), np.round(self._places[:, 1], 4)
        self._order = np.lexsort((x, -y))
        rows, columns = len(np.unique(y)), len(np.unique(x))
        if rows < 2 or columns < 2 or rows * columns != len(places) // 3:
            raise ValueError(f"'{mesh.name}' is no grid of vertices in rows and columns")
        self.shape = (rows, columns)
        self.cell_size = float((x.max() - x.min()) / (columns - 1))

    @property
    def heights(self) -> np.ndarray:
        return self._places[self._order, 2].reshape(self.shape)

    @heights.setter
    def heights(self, cells: np.ndarray) -> None:
        self._places[self._order, 2] = cells.ravel()
        self._mesh.vertices.foreach_set("co", self._places.ravel())
        self._mesh.update()

    def set_attribute(self, name: str, cells: np.ndarray) -> None:
        attributes = self._mesh.attributes
        attribute = attributes.get(name) or attributes.new(name, "FLOAT", "POINT")
        values = np.empty(len(self._order), np.float32)
        values[self._order] = cells.ravel()
        attribute.data.foreach_set("value", values)


def make_terrain(heights: np.ndarray, cell_size: float, name: str = "Terrain") -> bpy.types.Object:
    """A mesh with a vertex for each cell, in metres, smooth and coloured by height."""
    rows, columns = heights.shape
    x = (np.arange(columns, dtype=np.float32) - (columns - 1) / 2) * np.float32(cell_size)
    y = ((rows - 1) / 2 - np.arange(rows, dtype=np.float32)) * np.float32(cell_size)
    places = np.empty((rows, columns, 3), np.float32)
    places[:, :, 0], places[:, :, 1], places[:, :, 2] = x, y[:, None], heights
    first = np.arange(rows * columns, dtype=np.int32).reshape(rows, columns)[:-1, :-1].ravel()
    corners = np.column_stack([first, first + columns, first + columns + 1, first + 1])

    mesh = bpy.data.meshes.new(name)
    mesh.vertices.add(rows * columns)
    mesh.vertices.foreach_set("co", places.ravel())
    mesh.loops.add(corners.size)
    mesh.loops.foreach_set("vertex_index", corners.ravel())
    mesh.polygons.add(len(corners))
    mesh.polygons.foreach_set("loop_start", np.arange(0, corners.size, 4, dtype=np.int32))
    mesh.polygons.foreach_set("loop_total", np.full(len(corners), 4, np.int32))
    mesh.polygons.foreach_set("use_smooth", np.ones(len(corners), bool))
    mesh.update(calc_edges=True)
    mesh.materials.append(terrain_material())
    terrain = bpy.data.objects.new(name, mesh)
    bpy.context.collection.objects.link(terrain)
    return terrain


def terrain_material() -> bpy.types.Material:
    """Colours by height, and water where the attribute `flow` says so."""
    material = bpy.data.materials.get("Tarn terrain")
    if material is not None:
        return material
    material = bpy.data.materials.new("Tarn terrain")
    material.use_nodes = True
    nodes, links = material.node_tree.nodes, material.node_tree.links
    shader = nodes["Principled BSDF"]
    shader.inputs["Roughness"].default_value = 0.9
    place, split, ramp = (nodes.new(f"ShaderNode{kind}") for kind in ("TexCoord", "SeparateXYZ", "ValToRGB"))
    links.new(place.outputs["Generated"], split.inputs[0])
    links.new(split.outputs["Z"], ramp.inputs["Fac"])
    stops = ramp.color_ramp.elements
    while len(stops) < len(_TINTS):
        stops.new(0.5)
    for n, tint in enumerate(_TINTS):
        stops[n].position = n / (len(_TINTS) - 1)
        stops[n].color = (*tint, 1)
    flow, strength, mix = (nodes.new(f"ShaderNode{kind}") for kind in ("Attribute", "Math", "MixRGB"))
    flow.attribute_name = "flow"
    strength.operation, strength.use_clamp = "MULTIPLY", True
    strength.inputs[1].default_value = 8.0
    mix.inputs["Color2"].default_value = (0.03, 0.10, 0.30, 1)
    links.new(flow.outputs["Fac"], strength.inputs[0])
    links.new(strength.outputs[0], mix.inputs["Fac"])
    links.new(ramp.outputs["Color"], mix.inputs["Color1"])
    links.new(mix.outputs[0], shader.inputs["Base Color"])
    return material


def read_heights(path: str) -> np.ndarray:
    """The first band of a raster, with NaN where there is no value."""
    from osgeo import gdal

    gdal.UseExceptions()
    dataset = gdal.Open(path)  # which its band does not keep
    band = dataset.GetRasterBand(1)
    cells = band.ReadAsArray().astype(np.float32)
    cells[band.GetMaskBand().ReadAsArray() == 0] = np.nan
    return cells


class TARN_OT_load(bpy.types.Operator, ImportHelper):
    """Load a height grid as terrain"""

    bl_idname = "tarn.load"
    bl_label = "Height grid (.tif, .png, .asc, .hgt, .exr)"
    bl_options = {"REGISTER", "UNDO"}
    filter_glob: bpy.props.StringProperty(default="*.tif;*.tiff;*.png;*.asc;*.hgt;*.exr", options={"HIDDEN"})
    cell_size: bpy.props.FloatProperty(name="Cell size (metres)", default=30.0, min=1e-3)
    refine: bpy.props.IntProperty(name="Refine", default=1, min=1, max=16, description="Vertices a cell and axis")
    scale: bpy.props.FloatProperty(name="Scale", default=0.001, min=1e-9, description="0.001: a kilometre is 1")

    def execute(self, context):
        try:
            heights = read_heights(self.filepath)
        except (ImportError, RuntimeError) as error:
            self.report({"ERROR"}, str(error))
            return {"CANCELLED"}
        lowest = float(np.nanmin(heights)) if np.isfinite(heights).any() else 0.0
        heights = np.nan_to_num(heights, nan=lowest)
        if self.refine > 1:
            heights = resample(heights, tuple(side * self.refine for side in heights.shape))
        terrain = make_terrain(heights, self.cell_size / self.refine, Path(self.filepath).stem)
        terrain.scale = (self.scale,) * 3
        bpy.ops.object.select_all(action="DESELECT")
        terrain.select_set(True)
        context.view_layer.objects.active = terrain
        return {"FINISHED"}


class _Computation:
    """Runs a function of the package on the active grid object."""

    bl_options = {"REGISTER", "UNDO"}

    @classmethod
    def poll(cls, context):
        return context.active_object is not None and context.active_object.type == "MESH"

    def execute(self, context):
        options = {name: getattr(self, name) for name in self.arguments}
        options = {name: value for name, value in options.items() if value or name not in self.unset}
        manager = context.window_manager
        manager.progress_begin(0, 100)
        try:
            lattice = Lattice(context.active_object.data)
            result = self.function(
                lattice.heights, cell_size=lattice.cell_size, progress=manager.progress_update, **options
            )
        except (ValueError, TypeError, ArithmeticError, RuntimeError) as error:
            self.report({"ERROR"}, str(error))
            return {"CANCELLED"}
        finally:
            manager.progress_end()
        lattice.heights = result.heights
        for name, cells in result._asdict().items():
            if name != "heights":
                lattice.set_attribute(name, cells)
        return {"FINISHED"}


def _operators() -> list[type]:
    """An operator for each computation, with the properties that the table of the command's options gives it."""
    table = json.loads((HERE / "options.json").read_text("utf-8"))["commands"]
    made = []
    for command in table:
        if command["name"] not in ("erode", "weather", "debris"):
            continue
        function = getattr(tarn, command["name"])
        properties, unset = {}, set()
        for option in command["options"]:
            name = option["name"]
            if option["role"] != "parameter" or name in ("cell_size", "height_unit", "device") or (
                name not in inspect.signature(function).parameters
            ):
                continue
            unit = f" ({option['unit']})" if option["unit"] else ""
            words = {"name": name.replace("_", " ").capitalize() + unit, "description": option["help"]}
            if "default" not in option:  # 0 stands for what follows from the terrain
                unset.add(name)
                words["description"] += f"; 0: {option['default_text']}"
            if option["type"] == "flag":
                properties[name] = bpy.props.BoolProperty(default=option["default"], **words)
                continue
            kind = bpy.props.IntProperty if option["type"] == "integer" else bpy.props.FloatProperty
            least, most = option.get("minimum", option.get("exclusive_minimum")), option["maximum"]
            words |= {"min": least, "max": min(most, 2**31 - 1) if option["type"] == "integer" else most}
            properties[name] = kind(default=option.get("default", 0), **words)
        body = {
            "bl_idname": f"tarn.{command['name']}",
            "bl_label": command["summary"],
            "__doc__": command["summary"],
            "__annotations__": properties,
            "arguments": tuple(properties),
            "unset": unset,
            "function": staticmethod(function),
        }
        made.append(type(f"TARN_OT_{command['name']}", (_Computation, bpy.types.Operator), body))
    return made


class TARN_PT_terrain(bpy.types.Panel):
    bl_label = "Terrain"
    bl_category = "Tarn"
    bl_space_type, bl_region_type = "VIEW_3D", "UI"

    def draw(self, _context):
        self.layout.operator("tarn.load", text="Load a height grid", icon="IMPORT")
        for name, text in (("erode", "Erode"), ("weather", "Weather"), ("debris", "Strew rocks")):
            self.layout.operator(f"tarn.{name}", text=text)


def _import_menu(menu, _context):
    menu.layout.operator(TARN_OT_load.bl_idname)


_classes = [TARN_OT_load, *_operators(), TARN_PT_terrain]


def register():
    for one in _classes:
        bpy.utils.register_class(one)
    bpy.types.TOPBAR_MT_file_import.append(_import_menu)


def unregister():
    bpy.types.TOPBAR_MT_file_import.remove(_import_menu)
    for one in reversed(_classes):
        bpy.utils.unregister_class(one)
