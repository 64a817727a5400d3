"""A hillshade chain as a Dask array and an xarray DataArray, computed on a local cluster of
two worker processes, and exported through the cluster.

Run: PYTHONPATH=build/release/python python3 docs/examples/python_dask.py build/sample
"""
import sys

from distributed import Client, LocalCluster

import pixwerk
import pixwerk.dask

if __name__ == "__main__":
    sample = sys.argv[1] if len(sys.argv) > 1 else "build/sample"
    chain = pixwerk.open({"function": "HillshadeFunction",
                          "arguments": {"DEM": f"{sample}/dem.tif", "Azimuth": 300,
                                        "ZFactor": 2}})
    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                      dashboard_address=None) as cluster, Client(cluster) as client:
        lazy = chain.to_dask(chunks=512)          # one task a chunk, bound once a worker
        print(lazy)
        print("mean shade:", float(lazy.mean().compute()))
        data = chain.to_xarray(chunks=512)        # (band, y, x) with coordinates and the CRS
        print(data.sel(x=data.x[200], y=data.y[300], method="nearest").values)
        out = pixwerk.dask.export(chain, "/tmp/pixwerk_hillshade_cluster.tif", client=client,
                                  options=["COMPRESS=DEFLATE"])
        print("wrote", out)
