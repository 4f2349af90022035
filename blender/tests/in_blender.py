"""Runs the add-on on a terrain and compares it with the commands. Arguments: a raster, and the folder of their files."""
import sys

import bpy
import numpy as np

bpy.ops.preferences.addon_enable(module="tarn_terrain")
import tarn_terrain  # noqa: E402

source, folder = sys.argv[sys.argv.index("--") + 1 :]


def lattice():
    return tarn_terrain.Lattice(bpy.context.active_object.data)


def equals(name: str, cells) -> None:
    np.testing.assert_array_equal(cells, tarn_terrain.read_heights(f"{folder}/{name}.tif"), err_msg=name)


assert bpy.ops.tarn.load(filepath=source, cell_size=80.0) == {"FINISHED"}
np.testing.assert_array_equal(lattice().heights, tarn_terrain.read_heights(source))
assert bpy.ops.tarn.erode(iterations=5) == {"FINISHED"}
equals("eroded", lattice().heights)
attribute = bpy.context.active_object.data.attributes["flow"].data
values = np.empty(len(attribute), np.float32)
attribute.foreach_get("value", values)
equals("flow", values.reshape(lattice().shape))
assert bpy.ops.tarn.weather() == {"FINISHED"}
equals("weathered", lattice().heights)
assert bpy.ops.tarn.debris(count=100) == {"FINISHED"}
equals("rocks", lattice().heights)

# Blender's own grids will do, and other meshes are refused in one sentence.
bpy.ops.mesh.primitive_grid_add(x_subdivisions=40, y_subdivisions=30, size=100)
assert lattice().shape == (31, 41)
assert bpy.ops.tarn.erode() == {"FINISHED"}
bpy.ops.mesh.primitive_uv_sphere_add()
try:
    bpy.ops.tarn.erode()
except RuntimeError as error:
    assert "is no grid of vertices" in str(error)
else:
    raise AssertionError("a sphere was eroded")
