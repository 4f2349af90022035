"""How results look when they are loaded: a ramp and a legend for each kind of grid."""
from __future__ import annotations

import math

from qgis.core import (
    QgsBasicNumericFormat,
    QgsColorRampLegendNodeSettings,
    QgsColorRampShader,
    QgsContrastEnhancement,
    QgsMultiBandColorRenderer,
    QgsProcessingLayerPostProcessorInterface,
    QgsRasterBandStats,
    QgsRasterShader,
    QgsSingleBandGrayRenderer,
    QgsSingleBandPseudoColorRenderer,
)
from qgis.PyQt.QtGui import QColor

# Colours at even steps from the least to the greatest value. Maps of what lies on the ground begin transparent.
RAMPS = {
    # Lowland green over ochre to pale rock.
    "heights": ["#688e68", "#98ac76", "#ccc48e", "#c2a478", "#b09482", "#ece8e4"],
    # From the darkness of a valley in winter to a slope in full sun.
    "sunlight": ["#181438", "#54246e", "#aa3860", "#e46e40", "#f6b454", "#fff4c4"],
    "flow": ["#00205aaa", "#c04f86c6", "#ff205aaa", "#ff10306a"],
    "depth": ["#00c99b4f", "#b0d9b26a", "#ffb07c32", "#ff6e4312"],
    "random": ["#000000", "#5e4fa2", "#3288bd", "#66c2a5", "#fee08b", "#f46d43", "#9e0142"],
}
# The sign of a wear says whether ground was lost or gained.
DIVERGING = ["#205aaa", "#a9c2e0", "#ffffff", "#e3aeb0", "#b22228"]
KINDS = {
    "depth": "depth",
    "sediment": "depth",
    "sand": "depth",
    "wear": "wear",
    "flow": "flow",
    "coverage": "flow",
    "speed": "flow",
    "wind_trace": "flow",
    "rock_id": "random",
    "ids": "random",
    "noise": "random",
    "random": "random",
    "diffuse": "light",
    "shadow": "light",
    "ao": "light",
    "hit_x": "light",
    "hit_y": "light",
}


def kind_of(command: str, field: str) -> str:
    if field == "heights" and command in ("flow", "sunlight"):
        return command
    return KINDS.get(field, "heights")


def style(layer, kind: str, unit: str = "") -> None:
    """Gives a raster layer the renderer of a kind of grid."""
    provider = layer.dataProvider()
    if layer.bandCount() >= 3:
        layer.setRenderer(QgsMultiBandColorRenderer(provider, 1, 2, 3))
        return
    stats = provider.bandStatistics(1, QgsRasterBandStats.Min | QgsRasterBandStats.Max)
    low, high = stats.minimumValue, stats.maximumValue
    if not high > low:
        high = low + 1
    if kind == "light":
        renderer = QgsSingleBandGrayRenderer(provider, 1)
        contrast = QgsContrastEnhancement(provider.dataType(1))
        contrast.setContrastEnhancementAlgorithm(QgsContrastEnhancement.StretchToMinimumMaximum)
        contrast.setMinimumValue(low)
        contrast.setMaximumValue(high)
        renderer.setContrastEnhancement(contrast)
        layer.setRenderer(renderer)
        return
    colours = RAMPS.get(kind, DIVERGING)
    if kind == "wear":
        high = max(abs(low), abs(high))
        low = -high
    # The eye tells small amounts of water and sediment apart, not large ones.
    power = 2 if kind in ("flow", "depth") else 1
    shader = QgsColorRampShader(low, high)
    shader.setColorRampType(QgsColorRampShader.Interpolated)
    items = []
    for n, colour in enumerate(colours):
        value = low + (high - low) * (n / (len(colours) - 1)) ** power
        items.append(QgsColorRampShader.ColorRampItem(value, QColor(colour), f"{value:.4g} {unit}".strip()))
    shader.setColorRampItemList(items)
    legend = QgsColorRampLegendNodeSettings()
    legend.setSuffix(f" {unit}" if unit else "")
    numbers = QgsBasicNumericFormat()
    numbers.setNumberDecimalPlaces(max(0, 2 - math.floor(math.log10(high - low))))
    legend.setNumericFormat(numbers)
    shader.setLegendSettings(legend)
    raster_shader = QgsRasterShader(low, high)
    raster_shader.setRasterShaderFunction(shader)
    renderer = QgsSingleBandPseudoColorRenderer(provider, 1, raster_shader)
    renderer.setClassificationMin(low)
    renderer.setClassificationMax(high)
    layer.setRenderer(renderer)


class Styler(QgsProcessingLayerPostProcessorInterface):
    """Styles a result when QGIS loads it."""

    _alive: list = []  # QGIS does not own them

    def __init__(self, kind: str, unit: str):
        super().__init__()
        self._kind, self._unit = kind, unit
        Styler._alive.append(self)

    def postProcessLayer(self, layer, _context, _feedback) -> None:
        style(layer, self._kind, self._unit)
        layer.triggerRepaint()
        Styler._alive.remove(self)
