"""Pixwerk's raster functions from Python.

A chain (a dict, a JSON text, a chain file or a raster's name) opens as a `Chain`: its raster
info as plain Python values, any window read into NumPy arrays of the exact dtype with the
validity as a mask, exports to files, and lazy `dask.array` and `xarray.DataArray` forms that
run on Dask's schedulers, `distributed` included.

    >>> import pixwerk
    >>> dem = pixwerk.array(numpy.arange(16, dtype="float32").reshape(4, 4),
    ...                     geotransform=(0, 10, 0, 40, 0, -10))
    >>> slope = pixwerk.open({"function": "SlopeFunction", "arguments": {"DEM": dem}})
    >>> slope.read().shape
    (1, 4, 4)
"""

from ._pixwerk import PixwerkError
from ._chain import Chain, ArrayInput, array, open, functions, function

__all__ = ["Chain", "ArrayInput", "PixwerkError", "array", "open", "functions", "function"]
__version__ = "0.1.0"
