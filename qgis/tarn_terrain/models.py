"""Models of triangles, by meshio."""
from __future__ import annotations

import os

import numpy as np
from qgis.core import QgsProcessingException


def read_model(path: str, up: str = "auto") -> dict[str, np.ndarray]:
    """Vertices, triangles and normals of a model, with x to the east, y to the south and z up."""
    try:
        import meshio
    except ImportError:
        raise QgsProcessingException("models are read by meshio, which is missing; install python3-meshio") from None
    try:
        mesh = meshio.read(path)
    except (meshio.ReadError, OSError, ValueError, SystemExit) as error:  # it also exits
        raise QgsProcessingException(f"cannot read '{path}': {error}") from None
    faces = [np.asarray(block.data) for block in mesh.cells if block.type in ("triangle", "quad", "polygon")]
    triangles = [
        face[:, [0, corner, corner + 1]] for face in faces if len(face) for corner in range(1, face.shape[1] - 1)
    ]
    if not triangles:
        raise QgsProcessingException(f"'{path}' has no triangles")
    corners = np.concatenate(triangles)
    points = np.asarray(mesh.points, np.float32)
    normals = _normals(points, corners)
    y_is_up = up == "y" or (up == "auto" and os.path.splitext(path)[1].lower() == ".obj")

    def on_map(rows: np.ndarray) -> np.ndarray:
        return rows[:, [0, 2, 1]] if y_is_up else rows * np.float32([1, -1, 1])

    return {"vertices": on_map(points), "triangles": corners, "normals": on_map(normals)}


def _normals(points: np.ndarray, corners: np.ndarray) -> np.ndarray:
    """The mean of the unit normals of the faces around each place."""

    def unit(rows: np.ndarray) -> np.ndarray:
        length = np.sqrt(rows[:, [0]] * rows[:, [0]] + rows[:, [1]] * rows[:, [1]] + rows[:, [2]] * rows[:, [2]])
        return np.divide(rows, length, out=np.zeros_like(rows), where=length > 0)

    a, b, c = (points[corners[:, n]] for n in range(3))
    of_faces = unit(np.cross(b - a, c - a))
    _places, place_of_vertex = np.unique(points, axis=0, return_inverse=True)
    sums = np.zeros_like(points)
    for n in range(3):
        np.add.at(sums, place_of_vertex[corners[:, n]], of_faces)
    return unit(sums)[place_of_vertex]
