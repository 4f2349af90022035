"""The plugin, which is nothing but its provider."""
from pathlib import Path

from qgis.core import QgsApplication, QgsProcessingProvider
from qgis.PyQt.QtGui import QIcon

from .algorithm import algorithms


class Provider(QgsProcessingProvider):
    def id(self) -> str:
        return "tarn"

    def name(self) -> str:
        return "Tarn Terrain"

    def icon(self) -> QIcon:
        return QIcon(str(Path(__file__).parent / "icon.svg"))

    def loadAlgorithms(self) -> None:
        for algorithm in algorithms():
            self.addAlgorithm(algorithm)


class Plugin:
    def __init__(self):
        self.provider = None

    def initProcessing(self) -> None:
        self.provider = Provider()
        QgsApplication.processingRegistry().addProvider(self.provider)

    def initGui(self) -> None:
        self.initProcessing()

    def unload(self) -> None:
        QgsApplication.processingRegistry().removeProvider(self.provider)
