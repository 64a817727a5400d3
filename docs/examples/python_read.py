"""Reads a slope chain of the sample DEM into NumPy, a window and a band at a time, and
feeds a NumPy array back in as a chain input.

Run: PYTHONPATH=build/release/python python3 docs/examples/python_read.py build/sample
"""
import sys

import numpy as np

import pixwerk

sample = sys.argv[1] if len(sys.argv) > 1 else "build/sample"

slope = pixwerk.open({"function": "SlopeFunction",
                      "arguments": {"DEM": "${SAMPLE}/dem.tif", "ZFactor": 1}},
                     SAMPLE=sample)
print(slope)                                  # <pixwerk.Chain 1 x 1024 x 1024 float32>
print(slope.geotransform, slope.nodata)
window = slope.read(window=(100, 200, 256, 128), bands=1)   # a masked (128, 256) array
print("mean slope of the window:", float(window.mean()), "degrees;",
      int(window.mask.sum()), "cells without a value")

# A NumPy array, with its grid and reference, as the input of another chain.
dem = pixwerk.open(f"{sample}/dem.tif")
heights = dem.read(bands=1)
lifted = pixwerk.array(heights + 100, geotransform=dem.geotransform, crs=dem.crs)
hillshade = pixwerk.open({"function": "HillshadeFunction",
                          "arguments": {"DEM": lifted, "Azimuth": 315}})
shade = hillshade.read(bands=1)
assert shade.dtype == np.uint8
print("hillshade of the lifted DEM:", shade.shape, shade.dtype, "min", shade.min(),
      "max", shade.max())
hillshade.export("/tmp/pixwerk_lifted_hillshade.tif", options=["COMPRESS=DEFLATE"])
print("wrote /tmp/pixwerk_lifted_hillshade.tif")
