"""Chains as Dask arrays and xarray DataArrays, and exports through a Dask cluster.

A chain travels to the workers as its recipe (the JSON, its base folder and placeholder
values); each worker process binds it once and reads the windows of its tasks, so a task
graph stays small and picklable. The same code runs on the threaded scheduler, on a
`distributed.LocalCluster` of processes and on a cluster reached by its scheduler's address.
"""

import math
import os
import shutil
import tempfile
import xml.sax.saxutils

import numpy as np

from . import _chain
from ._pixwerk import PixwerkError

#: Chunks are multiples of this many cells a side, the rows the export writes at a time.
BLOCK = 256
#: The default chunk side in cells.
CHUNK = 1024


def _sizes(total, step):
    return tuple(min(step, total - start) for start in range(0, total, step))


def _chunking(chain, chunks):
    if chunks is None:
        chunks = CHUNK
    if isinstance(chunks, (int, np.integer)):
        chunks = (chunks, chunks)
    try:
        rows, columns = (int(c) for c in chunks)
    except (TypeError, ValueError):
        raise ValueError(f"chunks are a number of cells or (rows, columns), not {chunks!r}") \
            from None
    if rows < 1 or columns < 1:
        raise ValueError(f"chunks of {rows} x {columns} cells are empty")
    return _sizes(chain.height, rows), _sizes(chain.width, columns)


def _read(recipe, column, row, width, height, mode):
    """One chunk of the chain of `recipe`: masked, raw values, or NaN where invalid."""
    # One thread: the scheduler runs tasks in parallel itself.
    values, valid = _chain.bound(recipe)._core.read(column, row, width, height, 1)
    if mode == "masked":
        return np.ma.MaskedArray(values, mask=~valid, fill_value=0)
    if mode == "nan":
        if values.dtype.kind != "f":
            values = values.astype(np.float64)
        values[~valid] = np.nan
    return values


def _array(chain, chunks, mode, dtype):
    import dask.array as da
    from dask.base import tokenize

    rows, columns = _chunking(chain, chunks)
    recipe = chain.recipe()
    key = (recipe[0], recipe[1], recipe[2], tuple((k, a._token) for k, a in recipe[3]))
    name = "pixwerk-" + tokenize(key, rows, columns, mode)
    graph = {}
    top = 0
    for i, height in enumerate(rows):
        left = 0
        for j, width in enumerate(columns):
            graph[(name, 0, i, j)] = (_read, recipe, left, top, width, height, mode)
            left += width
        top += height
    empty = np.empty((0, 0, 0), dtype)
    meta = np.ma.masked_array(empty, fill_value=0) if mode == "masked" else empty
    return da.Array(graph, name, chunks=((chain.count,), rows, columns), dtype=dtype, meta=meta)


def to_dask(chain, chunks=None, masked=True):
    """The chain as a lazy `dask.array` of shape (bands, rows, columns).

    Chunks are `chunks` cells a side (a number or (rows, columns); 1024 by default) and
    never split a band. With `masked` the chunks are masked arrays whose masks mark invalid
    cells; otherwise they hold the raw values, invalid cells included.
    """
    if not isinstance(chain, _chain.Chain):
        chain = _chain.open(chain)
    return _array(chain, chunks, "masked" if masked else "raw", chain.dtype)


def coordinates(chain):
    """The x and y coordinates of the cells' centres."""
    x0, dx, _, y0, _, dy = chain.geotransform
    x = x0 + (np.arange(chain.width) + 0.5) * dx
    y = y0 + (np.arange(chain.height) + 0.5) * dy
    return x, y


def to_xarray(chain, chunks=None, masked=True):
    """The chain as a lazy `xarray.DataArray` (band, y, x) with cell-centre coordinates.

    With `masked` invalid cells are NaN (integer outputs become float64, as xarray users
    expect); otherwise the raw values, with the no-data values in the attributes. The
    attributes hold the CRS as WKT ("crs"), GDAL's geotransform ("transform") and each
    band's no-data value ("nodata").
    """
    import xarray

    if not isinstance(chain, _chain.Chain):
        chain = _chain.open(chain)
    dtype = chain.dtype
    if masked and dtype.kind != "f":
        dtype = np.dtype(np.float64)
    data = _array(chain, chunks, "nan" if masked else "raw", dtype)
    x, y = coordinates(chain)
    coords = {"band": np.arange(1, chain.count + 1), "y": y, "x": x}
    names = chain.band_names
    if any(n is not None for n in names):
        coords["band_name"] = ("band", [n or "" for n in names])
    attrs = {"crs": chain.crs or "", "transform": tuple(chain.geotransform),
             "nodata": [np.nan if v is None else v for v in chain.nodata]}
    return xarray.DataArray(data, dims=("band", "y", "x"), coords=coords, attrs=attrs)


# --- exports through a cluster ------------------------------------------------------------

_GDAL_TYPES = {"uint8": "Byte", "int8": "Byte", "uint16": "UInt16", "int16": "Int16",
               "uint32": "UInt32", "int32": "Int32", "float32": "Float32",
               "float64": "Float64"}


def _strip_nodata(chain, nodata):
    """The no-data value every strip writes (the user's, or the bands' common own one), so
    that the strips agree; None: the strips mark invalid cells in mask bands."""
    if nodata is not None:
        return float(nodata)
    own = chain.nodata
    if own and own[0] is not None and all(v == own[0] for v in own):
        return float(own[0])
    return None


def _write_strip(recipe, path, row, height, nodata):
    """One strip of rows of the chain of `recipe` to its own tiled GeoTIFF."""
    chain = _chain.bound(recipe)
    chain._core.export_window(path, 0, row, chain.width, height, "GTiff",
                              ["TILED=YES", "COMPRESS=NONE"], 1, nodata)
    return path


def _number(value):
    return "nan" if math.isnan(value) else repr(value)


def _source(file, band, width, row, height):
    return ["    <SimpleSource>",
            f'      <SourceFilename relativeToVRT="1">{file}</SourceFilename>',
            f"      <SourceBand>{band}</SourceBand>",
            f'      <SrcRect xOff="0" yOff="0" xSize="{width}" ySize="{height}"/>',
            f'      <DstRect xOff="0" yOff="{row}" xSize="{width}" ySize="{height}"/>',
            "    </SimpleSource>"]


def _vrt(chain, strips, nodata, folder_name):
    """A VRT of the strips, read from its own folder."""
    x0, dx, _, y0, _, dy = chain.geotransform
    escape = xml.sax.saxutils.escape
    lines = [f'<VRTDataset rasterXSize="{chain.width}" rasterYSize="{chain.height}">']
    if chain.crs:
        lines.append(f"  <SRS>{escape(chain.crs)}</SRS>")
    lines.append(f"  <GeoTransform>{x0!r}, {dx!r}, 0, {y0!r}, 0, {dy!r}</GeoTransform>")
    gdal_type = _GDAL_TYPES[chain.dtype.name]
    for band in range(1, chain.count + 1):
        lines.append(f'  <VRTRasterBand dataType="{gdal_type}" band="{band}">')
        if chain.dtype.name == "int8":
            lines.append('    <Metadata domain="IMAGE_STRUCTURE"><MDI key="PIXELTYPE">'
                         'SIGNEDBYTE</MDI></Metadata>')
        name = chain.band_names[band - 1]
        if name:
            lines.append(f"    <Description>{escape(name)}</Description>")
        if nodata is not None:
            lines.append(f"    <NoDataValue>{_number(nodata)}</NoDataValue>")
        for path, row, height in strips:
            file = escape(folder_name + "/" + os.path.basename(path))
            lines += _source(file, band, chain.width, row, height)
        lines.append("  </VRTRasterBand>")
    if nodata is None:
        # The strips' mask bands, one for the whole dataset.
        lines += ["  <MaskBand>", '    <VRTRasterBand dataType="Byte">']
        for path, row, height in strips:
            file = escape(folder_name + "/" + os.path.basename(path))
            lines += ["  " + line for line in _source(file, "mask,1", chain.width, row, height)]
        lines += ["    </VRTRasterBand>", "  </MaskBand>"]
    lines.append("</VRTDataset>")
    return "\n".join(lines) + "\n"


def export(chain, path, client=None, format=None, options=(), strip_rows=None, nodata=None,
           progress=None):
    """Writes the chain through a Dask cluster, equal cell by cell to `Chain.export`.

    Each task writes one strip of `strip_rows` rows (a multiple of 256; by default enough
    strips for four a worker thread) to its own file in a folder beside `path`, bound once
    per worker process. `format` "VRT" (or a .vrt name) keeps the strips and writes a VRT
    over them, the form made for writes from many workers at once; "GTiff" and "COG" (or a
    .tif name) then copy the strips into one file and remove them. The folder must be one
    that every worker can write, as the output's folder is on one machine. `client` is a
    `distributed.Client` (the default client when absent). `progress(fraction)` is called as
    strips finish.
    """
    from distributed import as_completed, get_client

    if not isinstance(chain, _chain.Chain):
        chain = _chain.open(chain)
    path = os.path.abspath(os.fspath(path))
    extension = os.path.splitext(path)[1].lower()
    if format is None:
        if extension == ".vrt":
            format = "VRT"
        elif extension in (".tif", ".tiff"):
            format = "GTiff"
        else:
            raise ValueError(f"no format for '{path}': give format='GTiff', 'COG' or 'VRT', "
                             f"or a .tif or .vrt name")
    if format.upper() not in ("GTIFF", "COG", "VRT"):
        raise ValueError(f"format '{format}' is not one of GTiff, COG and VRT")
    client = client or get_client()
    threads = max(1, sum(client.nthreads().values()))
    if strip_rows is None:
        strips = max(1, 4 * threads)
        strip_rows = max(BLOCK, math.ceil(chain.height / strips / BLOCK) * BLOCK)
    strip_rows = int(strip_rows)
    if strip_rows < 1:
        raise ValueError(f"strips of {strip_rows} rows are empty")
    value = _strip_nodata(chain, nodata)
    stem = os.path.splitext(os.path.basename(path))[0]
    parent = os.path.dirname(path)
    keep = format.upper() == "VRT"
    folder = os.path.join(parent, stem + ".strips") if keep else \
        tempfile.mkdtemp(prefix="." + stem + ".", dir=parent)
    if keep:
        if os.path.exists(folder):
            shutil.rmtree(folder)
        os.makedirs(folder)
    recipe = chain.recipe()
    try:
        futures, strips = [], []
        for i, row in enumerate(range(0, chain.height, strip_rows)):
            height = min(strip_rows, chain.height - row)
            strip = os.path.join(folder, f"strip_{i:05d}.tif")
            strips.append((strip, row, height))
            futures.append(client.submit(_write_strip, recipe, strip, row, height, value,
                                         pure=False))
        done = 0
        for future in as_completed(futures):
            future.result()
            done += 1
            if progress is not None and progress(done / len(futures)) is False:
                for f in futures:
                    f.cancel()
                raise PixwerkError(f"the export to '{path}' was cancelled; nothing was written")
        if keep:
            with open(path, "w", encoding="utf-8") as f:
                f.write(_vrt(chain, strips, value, os.path.basename(folder)))
            return path
        vrt = os.path.join(folder, "strips.vrt")
        with open(vrt, "w", encoding="utf-8") as f:
            f.write(_vrt(chain, [(os.path.join(folder, os.path.basename(p)), r, h)
                                 for p, r, h in strips], value, "."))
        _chain.open(vrt).export(path, format=format, options=options)
        return path
    finally:
        if not keep:
            shutil.rmtree(folder, ignore_errors=True)
