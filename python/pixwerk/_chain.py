"""Chains opened in this process, their reads and exports, and NumPy arrays as chain inputs."""

import builtins
import json
import os
import threading
import uuid

import numpy as np

from . import _pixwerk
from ._pixwerk import PixwerkError

_PLACEHOLDER = "PIXWERK_ARRAY_{}"


class ArrayInput:
    """A NumPy array with its georeference, usable wherever a chain takes a raster.

    `data` has 2 (rows, columns) or 3 (bands, rows, columns) dimensions; a masked array's
    masked cells are invalid, as are cells holding `nodata`. `geotransform` is GDAL's
    (x0, cell width, 0, y0, 0, -cell height), pixel space when absent; `crs` is WKT or
    anything GDAL reads ("EPSG:32633").
    """

    def __init__(self, data, geotransform=None, crs=None, nodata=None, *, _token=None):
        values = np.ma.getdata(data)
        if not isinstance(values, np.ndarray):
            values = np.asarray(values)
        valid = None
        if np.ma.isMaskedArray(data) and data.mask is not np.ma.nomask:
            valid = ~np.ma.getmaskarray(data)
        if values.ndim not in (2, 3):
            raise ValueError(
                f"a chain input is an array of 2 (rows, columns) or 3 (bands, rows, columns) "
                f"dimensions, not {values.ndim}")
        rows = values.shape[-2]
        if geotransform is None:
            geotransform = (0.0, 1.0, 0.0, float(rows), 0.0, -1.0)
        self._data = data
        self._geotransform = tuple(float(v) for v in geotransform)
        self._crs = crs
        self._nodata = None if nodata is None else float(nodata)
        self._token = _token or uuid.uuid4().hex
        self._name = _pixwerk.name_array(values, list(self._geotransform), crs, self._nodata,
                                         valid)

    @property
    def name(self):
        """The name chains know this array by in this process."""
        return self._name

    def __reduce__(self):
        return (_rebuild_array, (self._data, self._geotransform, self._crs, self._nodata,
                                 self._token))

    def __del__(self):
        name = getattr(self, "_name", None)
        if name is not None and _pixwerk is not None:
            _pixwerk.forget_array(name)

    def __repr__(self):
        shape = "x".join(str(n) for n in np.shape(self._data))
        return f"<pixwerk.ArrayInput {shape} {np.asarray(np.ma.getdata(self._data)).dtype}>"


def _rebuild_array(data, geotransform, crs, nodata, token):
    return ArrayInput(data, geotransform, crs, nodata, _token=token)


def array(data, geotransform=None, crs=None, nodata=None):
    """A NumPy array as a chain input (see `ArrayInput`)."""
    return ArrayInput(data, geotransform, crs, nodata)


def _text(value):
    if isinstance(value, bool):
        return "true" if value else "false"
    return str(value)


class Chain:
    """A chain bound in this process: its raster info, reads, exports and Dask forms."""

    def __init__(self, template, base, variables, arrays):
        self._template = template
        self._base = base
        self._variables = dict(variables)
        self._arrays = dict(arrays)
        filled = dict(self._variables)
        filled.update({key: value.name for key, value in self._arrays.items()})
        self._core = _pixwerk.Chain(template, base, filled)
        self._info = self._core.info()

    # --- the raster -----------------------------------------------------------------------

    @property
    def info(self):
        """The output raster's info as a dict of plain Python values."""
        return dict(self._info)

    width = property(lambda self: self._info["width"], doc="columns of cells")
    height = property(lambda self: self._info["height"], doc="rows of cells")
    count = property(lambda self: self._info["band_count"], doc="the number of bands")
    dtype = property(lambda self: np.dtype(self._info["dtype"]), doc="the cells' NumPy dtype")
    geotransform = property(lambda self: self._info["geotransform"],
                            doc="GDAL's (x0, cell width, 0, y0, 0, -cell height)")
    crs = property(lambda self: self._info["crs"], doc="the reference as WKT, or None")
    nodata = property(lambda self: list(self._info["nodata"]),
                      doc="each band's no-data value, or None")
    band_names = property(lambda self: list(self._info["band_names"]),
                          doc="each band's name, or None")

    @property
    def shape(self):
        return (self.count, self.height, self.width)

    @property
    def json(self):
        """The chain as JSON text, its placeholders filled."""
        return self._core.json

    def __repr__(self):
        return (f"<pixwerk.Chain {self.count} x {self.height} x {self.width} "
                f"{self.dtype.name}>")

    # --- reads ----------------------------------------------------------------------------

    def read(self, window=None, bands=None, masked=True):
        """Cells of a window into NumPy arrays of the output's exact dtype.

        `window` is (column, row, width, height), the whole raster when absent; it may reach
        beyond the edges, whose cells are invalid. `bands` is a band number (from 1; a 2-d
        result) or a list of them. The result is a masked array whose mask marks invalid
        cells, or with `masked=False` a pair (values, valid) of plain arrays. The GIL is
        released while the cells are computed, so threads may read at once.
        """
        if window is None:
            window = (0, 0, self.width, self.height)
        try:
            column, row, width, height = (int(v) for v in window)
        except (TypeError, ValueError):
            raise ValueError(f"a window is (column, row, width, height), not {window!r}") from None
        values, valid = self._core.read(column, row, width, height)
        single = False
        if bands is not None:
            single = isinstance(bands, (int, np.integer))
            chosen = [bands] if single else list(bands)
            for b in chosen:
                if not isinstance(b, (int, np.integer)) or not 1 <= b <= self.count:
                    raise ValueError(
                        f"band {b!r} is not one of the chain's bands 1 to {self.count}")
            index = [b - 1 for b in chosen]
            values, valid = values[index], valid[index]
            if single:
                values, valid = values[0], valid[0]
        if not masked:
            return values, valid
        return np.ma.MaskedArray(values, mask=~valid, fill_value=0)

    # --- exports --------------------------------------------------------------------------

    def export(self, path, format=None, options=(), threads=0, nodata=None, mask=False,
               progress=None):
        """Writes the chain to a GeoTIFF or COG, nothing lost (as `pixwerk run` does).

        `format` is "GTiff" or "COG" (from the extension when absent); `options` are the
        driver's KEY=VALUE creation options; `progress(fraction)` is called as strips are
        written and may return False to cancel. `nodata` or `mask` choose how invalid cells
        are kept, instead of the automatic rule.
        """
        path = os.fspath(path)
        if format is None:
            extension = os.path.splitext(path)[1].lower()
            if extension not in (".tif", ".tiff"):
                raise ValueError(
                    f"no format for '{path}': give format='GTiff' or 'COG', or a .tif name")
            format = "GTiff"
        if isinstance(options, str):
            options = [options]
        self._core.export(path, str(format), [str(o) for o in options], int(threads),
                          None if nodata is None else float(nodata), bool(mask), progress)
        return path

    # --- Dask and xarray ------------------------------------------------------------------

    def to_dask(self, chunks=None, masked=True):
        """The chain as a lazy `dask.array` of shape (bands, rows, columns); see pixwerk.dask."""
        from . import dask as _dask
        return _dask.to_dask(self, chunks=chunks, masked=masked)

    def to_xarray(self, chunks=None, masked=True):
        """The chain as a lazy `xarray.DataArray` with x/y coordinates and its CRS."""
        from . import dask as _dask
        return _dask.to_xarray(self, chunks=chunks, masked=masked)

    # --- travel ---------------------------------------------------------------------------

    def recipe(self):
        """What rebinds this chain in another process: a small picklable tuple."""
        return (self._template, self._base, tuple(sorted(self._variables.items())),
                tuple(sorted(self._arrays.items())))

    def __reduce__(self):
        return (_rebuild_chain, self.recipe())


def _rebuild_chain(template, base, variables, arrays):
    return Chain(template, base, dict(variables), dict(arrays))


_bound = {}
_bound_lock = threading.Lock()


def bound(recipe):
    """The chain of `recipe`, bound once per process and kept for later tasks."""
    template, base, variables, arrays = recipe
    key = (template, base, variables, tuple((k, a._token) for k, a in arrays))
    with _bound_lock:
        chain = _bound.get(key)
    if chain is None:
        chain = _rebuild_chain(*recipe)
        with _bound_lock:
            chain = _bound.setdefault(key, chain)
    return chain


def _template(node, arrays, variables):
    """`node` with its array inputs as placeholders and its chains as their JSON; a nested
    chain's placeholder values join `variables`."""
    if isinstance(node, ArrayInput):
        for key, value in arrays.items():
            if value is node:
                return "${" + key + "}"
        key = _PLACEHOLDER.format(len(arrays) + 1)
        arrays[key] = node
        return "${" + key + "}"
    if isinstance(node, np.ndarray):
        raise TypeError("a NumPy array in a chain needs its georeference: wrap it in "
                        "pixwerk.array(data, geotransform=..., crs=..., nodata=...)")
    if isinstance(node, Chain):
        text = node._template
        final = {}
        for i, (key, value) in enumerate(node._arrays.items()):
            marker = "${PIXWERK_NESTED_%d}" % i
            text = text.replace("${" + key + "}", marker)
            final[marker] = _template(value, arrays, variables)
        for marker, placeholder in final.items():
            text = text.replace(marker, placeholder)
        for key, value in node._variables.items():
            if variables.setdefault(key, value) != value:
                raise ValueError(f"chains in one chain give '{key}' different values")
        return json.loads(text)
    if isinstance(node, dict):
        return {str(k): _template(v, arrays, variables) for k, v in node.items()}
    if isinstance(node, (list, tuple)):
        return [_template(v, arrays, variables) for v in node]
    if isinstance(node, os.PathLike):
        return os.fspath(node)
    return node


def open(source, **variables):
    """Opens and binds a chain.

    `source` is a dict (array inputs and other chains may stand in it), a JSON text, a chain
    file (.json) or a raster's name (opened as it is). `variables` fill the chain's
    "${NAME}" placeholders, as `pixwerk run --set NAME=VALUE` does. Relative dataset names
    are read from the chain file's folder, else from the current folder.
    """
    base = os.getcwd()
    values = {str(k): _text(v) for k, v in variables.items()}
    arrays = {}
    if isinstance(source, Chain):
        source = {"function": "IdentityFunction", "arguments": {"Raster": source}}
    if isinstance(source, dict):
        inner = {}
        text = json.dumps(_template(source, arrays, inner))
        for key, value in inner.items():
            values.setdefault(key, value)
    elif isinstance(source, (str, os.PathLike)):
        name = os.fspath(source)
        if name.lstrip().startswith("{"):
            text = name
        elif name.lower().endswith(".json"):
            try:
                with builtins.open(name, encoding="utf-8") as f:
                    text = f.read()
            except OSError as error:
                raise PixwerkError(f"the chain file '{name}' cannot be read: "
                                   f"{error.strerror}") from None
            base = os.path.dirname(os.path.abspath(name))
        else:
            text = json.dumps({"function": "IdentityFunction",
                               "arguments": {"Raster": name}})
    else:
        raise TypeError(f"a chain is a dict, a JSON text or a file name, not "
                        f"{type(source).__name__}")
    return Chain(text, base, values, arrays)


def functions():
    """Every function of this build with its declared arguments, as dicts."""
    return _pixwerk.functions()


def function(name):
    """One function's declaration, by class name or programmatic identifier (any case)."""
    wanted = str(name).split(".")[-1].lower()
    for f in _pixwerk.functions():
        if f["name"].lower() == wanted:
            return f
    nearest = _pixwerk.suggest_function(str(name))
    hint = f" (did you mean '{nearest}'?)" if nearest else ""
    raise PixwerkError(f"no function '{name}' in this build{hint}")
