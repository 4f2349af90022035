"""What the application sees of the plugin, as a line of JSON. Arguments: a raster, and a folder for results."""
import json
import os
import sys
import threading
import time

sys.path[:0] = ["/usr/share/qgis/python/plugins", os.environ["QGIS_PLUGINPATH"]]
from qgis.core import (  # noqa: E402
    QgsApplication,
    QgsProcessingContext,
    QgsProcessingFeedback,
    QgsProcessingParameterDefinition,
    QgsProject,
    QgsRasterLayer,
)

application = QgsApplication([], False)
application.initQgis()
from processing.core.Processing import Processing  # noqa: E402
from tarn_terrain.plugin import Plugin  # noqa: E402
from tarn_terrain.styles import kind_of, style  # noqa: E402

Processing.initialize()
plugin = Plugin()
plugin.initProcessing()
source, folder = sys.argv[1:3]
registry = QgsApplication.processingRegistry()
erode = registry.algorithmById("tarn:erode")
definition = erode.parameterDefinition("FILL_SLOPE_SCALE")
is_advanced = bool(definition.flags() & QgsProcessingParameterDefinition.FlagAdvanced)
seen = {
    "algorithms": len(plugin.provider.algorithms()),
    "fill_slope_scale": "advanced" if is_advanced else "plain",
    "rings": registry.algorithmById("tarn:shade").parameterDefinition("RINGS").type(),
}


def run(algorithm: str, feedback, **parameters):
    context = QgsProcessingContext()
    context.setProject(QgsProject.instance())
    return registry.algorithmById(algorithm).create().run({"INPUT": source, **parameters}, context, feedback)


feedback, percents = QgsProcessingFeedback(), []
feedback.progressChanged.connect(percents.append)
outputs = {name: f"{folder}/{name}.tif" for name in ("OUTPUT", "FLOW_OUT")}
results, succeeded = run("tarn:erode", feedback, ITERATIONS=3, **outputs)
assert succeeded and results == outputs, results
seen["progress"] = percents

feedback, cancelled = QgsProcessingFeedback(), []


def cancel():
    cancelled.append(time.monotonic())
    feedback.cancel()


threading.Timer(0.5, cancel).start()
os.mkdir(f"{folder}/cancelled")
run("tarn:weather", feedback, DURATION=1000, OUTPUT=f"{folder}/cancelled/out.tif")
seen["cancelled_after"] = time.monotonic() - cancelled[0]
seen["files_of_cancelled"] = os.listdir(f"{folder}/cancelled")

seen["ramps"] = {}
for field, path in (("heights", outputs["OUTPUT"]), ("flow", outputs["FLOW_OUT"])):
    layer = QgsRasterLayer(path, field)
    style(layer, kind_of("erode", field), "m" if field == "heights" else "")
    items = layer.renderer().shader().rasterShaderFunction().colorRampItemList()
    seen["ramps"][field] = [item.color.name() for item in items]
    if field == "heights":
        seen["legend"] = [item.label for item in items]
print(json.dumps(seen), flush=True)
os._exit(0)  # QGIS takes its objects down in an order that Python does not know
