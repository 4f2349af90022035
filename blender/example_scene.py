"""An example scene: the terrain of a file, eroded and strewn with rocks, in the light of a low sun.

blender --background --python example_scene.py -- IN.tif PICTURE.png [SCENE.blend]
"""
import math
import sys

import bpy

source, picture, *scene_file = sys.argv[sys.argv.index("--") + 1 :]
bpy.ops.wm.read_factory_settings(use_empty=True)
bpy.ops.preferences.addon_enable(module="tarn_terrain")

bpy.ops.tarn.load(filepath=source, cell_size=83.0, refine=2)
terrain = bpy.context.active_object
terrain.scale.z *= 2  # twice the height
bpy.ops.tarn.erode(iterations=25, feature_size=1500)
bpy.ops.tarn.weather(duration=0.0001, repose_angle=35, feature_size=100)
bpy.ops.tarn.debris(count=300, max_size=160, draw_unmoved=True, favour_small=True)

sun = bpy.data.objects.new("Sun", bpy.data.lights.new("Sun", "SUN"))
sun.rotation_euler = (math.radians(58), 0, math.radians(-60))
sun.data.energy, sun.data.color = 4.0, (1.0, 0.93, 0.82)
camera = bpy.data.objects.new("Camera", bpy.data.cameras.new("Camera"))
camera.location = (-1, -21, 10)
camera.rotation_euler = (math.radians(62), 0, 0)
for thing in (sun, camera):
    bpy.context.collection.objects.link(thing)
world = bpy.data.worlds.new("Sky")
world.use_nodes = True
world.node_tree.nodes["Background"].inputs["Color"].default_value = (0.45, 0.60, 0.85, 1)
world.node_tree.nodes["Background"].inputs["Strength"].default_value = 0.5

scene = bpy.context.scene
scene.world, scene.camera = world, camera
scene.render.engine = "CYCLES"  # the one that needs no display
scene.cycles.samples, scene.cycles.use_denoising = 40, False
scene.render.resolution_x, scene.render.resolution_y = 960, 540
scene.view_settings.view_transform = "Standard"
scene.render.filepath = picture
bpy.ops.render.render(write_still=True)
if scene_file:
    bpy.ops.wm.save_as_mainfile(filepath=scene_file[0])
