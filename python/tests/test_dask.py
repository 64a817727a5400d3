"""Chains on Dask: arrays and DataArrays equal to direct reads, chains pickled into other
processes, and exports through a cluster of processes equal to the command line's."""

import json
import multiprocessing
import os
import pickle
import subprocess
import sys

import numpy as np
import pytest

import pixwerk
import pixwerk.dask

dask = pytest.importorskip("dask")
distributed = pytest.importorskip("distributed")


def hillshade(sample):
    return {"function": "HillshadeFunction",
            "arguments": {"DEM": str(sample / "dem.tif"), "Azimuth": 300, "ZFactor": 2}}


def assert_same_cells(a, b):
    np.testing.assert_array_equal(np.ma.getmaskarray(a), np.ma.getmaskarray(b))
    np.testing.assert_array_equal(np.ma.filled(a, 0), np.ma.filled(b, 0))


@pytest.mark.parametrize("chunks", [None, 200, (96, 160)])
def test_a_dask_array_equals_a_direct_read(sample, chunks):
    chain = pixwerk.open({"function": "SlopeFunction",
                          "arguments": {"DEM": str(sample / "dem.tif")}})
    lazy = chain.to_dask(chunks=chunks)
    assert lazy.shape == chain.shape and lazy.dtype == chain.dtype
    if chunks == 200:
        assert lazy.chunks[1] == (200, 200, 112)
    assert_same_cells(lazy.compute(scheduler="threads"), chain.read())
    raw = chain.to_dask(chunks=chunks, masked=False).compute(scheduler="threads")
    np.testing.assert_array_equal(raw, chain.read(masked=False)[0])


def test_an_xarray_has_cell_centre_coordinates_and_the_crs(sample):
    chain = pixwerk.open(sample / "dem.tif")
    data = chain.to_xarray(chunks=256)
    x0, dx, _, y0, _, dy = chain.geotransform
    assert data.dims == ("band", "y", "x")
    assert data.x.values[0] == pytest.approx(x0 + dx / 2)
    assert data.y.values[-1] == pytest.approx(y0 + (chain.height - 0.5) * dy)
    assert "UTM zone 33N" in data.attrs["crs"]
    assert data.attrs["transform"] == tuple(chain.geotransform)
    direct = chain.read()
    values = data.sel(band=1).values
    np.testing.assert_array_equal(np.isnan(values), direct.mask[0])
    np.testing.assert_array_equal(values[~direct.mask[0]], direct.data[0][~direct.mask[0]])
    # Integer outputs become float64 with NaN for invalid cells; raw keeps the dtype.
    classes = pixwerk.open(sample / "landcover.tif")
    assert classes.to_xarray().dtype == np.float64
    assert classes.to_xarray(masked=False).dtype == classes.dtype


def _read_pickled(blob, queue):
    chain = pickle.loads(blob)
    queue.put(chain.read(window=(100, 100, 50, 40)).filled(0).tolist())


def test_a_pickled_chain_rebinds_in_another_process(sample):
    plane = np.tile(np.arange(300, dtype=np.float32), (300, 1))
    dem = pixwerk.array(plane, geotransform=(0, 10, 0, 3000, 0, -10))
    chain = pixwerk.open({"function": "HillshadeFunction",
                          "arguments": {"DEM": dem, "Azimuth": "${AZ}"}}, AZ=200)
    blob = pickle.dumps(chain)
    assert len(blob) < 2 * plane.nbytes  # the array, once
    context = multiprocessing.get_context("spawn")
    queue = context.Queue()
    process = context.Process(target=_read_pickled, args=(blob, queue))
    process.start()
    got = queue.get(timeout=120)
    process.join(timeout=60)
    assert got == chain.read(window=(100, 100, 50, 40)).filled(0).tolist()


@pytest.fixture(scope="module")
def cluster():
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                       dashboard_address=None)
    client = distributed.Client(cluster)
    yield client
    client.close()
    cluster.close()


@pytest.mark.parametrize("name,format", [("hs.tif", None), ("hs_cog.tif", "COG"),
                                         ("hs.vrt", None)])
def test_a_cluster_export_equals_the_command_lines_cell_by_cell(sample, tmp_path, cli,
                                                               cluster, name, format):
    chain_file = tmp_path / "hillshade.json"
    chain_file.write_text(json.dumps(hillshade(sample)))
    single = tmp_path / "single.tif"
    subprocess.run([cli, "run", str(chain_file), "-o", str(single), "--quiet"], check=True)
    seen = []
    out = pixwerk.dask.export(pixwerk.open(chain_file), tmp_path / name, client=cluster,
                              format=format, strip_rows=256, progress=seen.append)
    assert seen[-1] == pytest.approx(1.0)
    assert_same_cells(pixwerk.open(out).read(), pixwerk.open(single).read())
    if name.endswith(".tif"):
        assert not [p for p in os.listdir(tmp_path) if p.startswith(".hs")]


def test_a_lazy_array_computes_on_the_cluster(sample, cluster):
    chain = pixwerk.open(hillshade(sample))
    assert_same_cells(chain.to_dask(chunks=256).compute(), chain.read())


def test_the_module_runs_a_chain_here_and_through_local_workers(sample, tmp_path, cli):
    chain_file = tmp_path / "chain.json"
    chain_file.write_text(json.dumps({"function": "SlopeFunction",
                                      "arguments": {"DEM": "${DIR}/dem.tif"}}))
    reference = tmp_path / "reference.tif"
    subprocess.run([cli, "run", str(chain_file), "-o", str(reference), "--set",
                    f"DIR={sample}", "--quiet"], check=True)
    for extra, name in (([], "here.tif"), (["--workers", "2"], "workers.tif")):
        done = subprocess.run([sys.executable, "-m", "pixwerk", "run", str(chain_file), "-o",
                               str(tmp_path / name), "--set", f"DIR={sample}", *extra],
                              capture_output=True, text=True, env=os.environ)
        assert done.returncode == 0, done.stderr
        assert "100 - done." in done.stderr
        assert_same_cells(pixwerk.open(tmp_path / name).read(), pixwerk.open(reference).read())
    bad = subprocess.run([sys.executable, "-m", "pixwerk", "run", str(chain_file), "-o",
                          str(tmp_path / "bad.tif")], capture_output=True, text=True)
    assert bad.returncode == 1 and "DIR" in bad.stderr
