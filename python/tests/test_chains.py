"""The pixwerk package in this process: chains from every source, reads of every pixel type,
masks, windows, array inputs, threads, exports and the errors users meet."""

import json
import threading

import numpy as np
import pytest

import pixwerk

# Every pixel type a chain can give, with the dtype it reads as and the extremes it holds.
PIXEL_TYPES = [
    ("U1", "uint8", 0, 1),
    ("U2", "uint8", 0, 3),
    ("U4", "uint8", 0, 15),
    ("U8", "uint8", 0, 255),
    ("S8", "int8", -128, 127),
    ("U16", "uint16", 0, 65535),
    ("S16", "int16", -32768, 32767),
    ("U32", "uint32", 0, 4294967295),
    ("S32", "int32", -2147483648, 2147483647),
    ("F32", "float32", float(np.finfo(np.float32).min), float(np.finfo(np.float32).max)),
    ("F64", "float64", float(np.finfo(np.float64).min), float(np.finfo(np.float64).max)),
]

GRID = (1000.0, 10.0, 0.0, 2000.0, 0.0, -10.0)


def identity(raster, pixel_type=None):
    chain = {"function": "IdentityFunction", "arguments": {"Raster": raster}}
    if pixel_type:
        chain["pixelType"] = pixel_type
    return chain


@pytest.mark.parametrize("code,dtype,low,high", PIXEL_TYPES)
def test_every_pixel_type_reads_back_its_extremes_in_its_exact_dtype(code, dtype, low, high):
    storage = np.dtype(dtype)
    values = np.array([[low, high, low], [high, low, high]], dtype=storage)
    if code in ("U1", "U2", "U4"):
        values = values.astype(np.uint8)
    source = pixwerk.array(values, geotransform=GRID)
    chain = pixwerk.open(identity(source, code))
    assert chain.dtype == storage
    assert chain.info["pixel_type"] == code
    got = chain.read()
    assert got.dtype == storage
    assert not got.mask.any()
    np.testing.assert_array_equal(got.data[0], values)


def test_raster_info_is_plain_python_values(sample):
    chain = pixwerk.open(sample / "dem.tif")
    info = chain.info
    assert (info["width"], info["height"], info["band_count"]) == (512, 512, 1)
    assert info["dtype"] == "float32"
    assert info["geotransform"][1] > 0 > info["geotransform"][5]
    assert "UTM zone 33N" in info["crs"]
    assert info["nodata"] == [-9999.0]
    assert info["band_names"] == ["Elevation"]
    json.dumps(info)  # nothing but plain values


def test_masks_come_from_masked_arrays_and_from_no_data():
    values = np.arange(12, dtype=np.int16).reshape(3, 4)
    masked = np.ma.masked_array(values, mask=values % 5 == 0)
    got = pixwerk.open(identity(pixwerk.array(masked, GRID))).read()
    np.testing.assert_array_equal(got.mask[0], values % 5 == 0)
    got = pixwerk.open(identity(pixwerk.array(values, GRID, nodata=7))).read()
    np.testing.assert_array_equal(got.mask[0], values == 7)
    assert pixwerk.open(identity(pixwerk.array(values, GRID, nodata=7))).nodata == [7.0]
    plain, valid = pixwerk.open(identity(pixwerk.array(masked, GRID))).read(masked=False)
    assert plain.dtype == np.int16 and valid.dtype == np.bool_
    np.testing.assert_array_equal(valid[0], values % 5 != 0)


@pytest.mark.parametrize("window,inside", [
    ((0, 0, 4, 3), (slice(0, 3), slice(0, 4))),     # the whole raster
    ((-2, -1, 4, 3), (slice(1, 3), slice(2, 4))),   # over the top-left corner
    ((2, 1, 5, 5), (slice(0, 2), slice(0, 2))),     # over the bottom-right corner
    ((-3, -3, 10, 9), (slice(3, 6), slice(3, 7))),  # around the whole raster
])
def test_windows_at_and_beyond_the_edges_are_invalid_outside(window, inside):
    values = np.arange(1, 13, dtype=np.float32).reshape(3, 4)
    got = pixwerk.open(identity(pixwerk.array(values, GRID))).read(window=window)
    assert got.shape == (1, window[3], window[2])
    expected_valid = np.zeros((window[3], window[2]), bool)
    expected_valid[inside] = True
    np.testing.assert_array_equal(~got.mask[0], expected_valid)
    column, row = window[0], window[1]
    rows, columns = np.nonzero(expected_valid)
    np.testing.assert_array_equal(got.data[0][rows, columns], values[rows + row, columns + column])


def test_bands_are_chosen_by_number_from_one(sample):
    image = pixwerk.open(sample / "image.tif")
    whole = image.read(window=(10, 20, 30, 40))
    np.testing.assert_array_equal(image.read(window=(10, 20, 30, 40), bands=3), whole[2])
    np.testing.assert_array_equal(image.read(window=(10, 20, 30, 40), bands=[4, 1]),
                                  whole[[3, 0]])
    with pytest.raises(ValueError, match="band 5"):
        image.read(bands=5)


def test_chains_open_from_a_dict_a_text_and_a_file_with_placeholders(sample, tmp_path):
    chain = {"function": "HillshadeFunction",
             "arguments": {"DEM": "${DIR}/dem.tif", "Azimuth": "${AZ}", "ZFactor": 2}}
    from_dict = pixwerk.open(chain, DIR=sample, AZ=300).read()
    from_text = pixwerk.open(json.dumps(chain), DIR=sample, AZ=300).read()
    file = tmp_path / "hillshade.json"
    file.write_text(json.dumps({"function": "HillshadeFunction",
                                "arguments": {"DEM": "dem.tif", "Azimuth": "${AZ}",
                                              "ZFactor": 2}}))
    # Relative names are read from the chain file's folder.
    (tmp_path / "dem.tif").symlink_to(sample / "dem.tif")
    from_file = pixwerk.open(file, AZ=300).read()
    for got in (from_text, from_file):
        np.testing.assert_array_equal(got.mask, from_dict.mask)
        np.testing.assert_array_equal(got.data, from_dict.data)
    other = pixwerk.open(chain, DIR=sample, AZ=30).read()
    assert not np.array_equal(other.data, from_dict.data)


def test_numpy_arrays_are_chain_inputs_with_their_grid():
    # A plane rising 1 m per 10 m cell eastwards: 45 / 10 of a degree... the slope's tangent
    # is 0.1 inside, and the border cells lack neighbours.
    columns = np.arange(6, dtype=np.float32)
    plane = np.tile(columns, (5, 1))
    dem = pixwerk.array(plane, geotransform=GRID, crs="EPSG:32633")
    slope = pixwerk.open({"function": "SlopeFunction", "arguments": {"DEM": dem}})
    assert "UTM zone 33N" in slope.crs
    got = slope.read()
    inner = got[0, 1:-1, 1:-1]
    assert not inner.mask.any()
    np.testing.assert_allclose(inner.data, np.degrees(np.arctan(0.1)), rtol=1e-5)
    # A chain nests in another, its array travelling with it.
    doubled = pixwerk.open({"function": "ArithmeticFunction",
                            "arguments": {"Raster": slope, "Raster2": slope, "Operation": 1}})
    np.testing.assert_allclose(doubled.read()[0, 1:-1, 1:-1], 2 * inner, rtol=1e-6)


def test_concurrent_reads_from_threads_equal_serial_ones(sample):
    chain = pixwerk.open({"function": "SlopeFunction",
                          "arguments": {"DEM": str(sample / "dem.tif")}})
    windows = [(c, r, 128, 96) for c in range(-64, 512, 128) for r in range(0, 512, 96)]
    serial = [chain.read(window=w) for w in windows]
    results = [None] * len(windows)

    def work(k):
        for i in range(k, len(windows), 4):
            results[i] = chain.read(window=windows[i])

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for a, b in zip(serial, results):
        np.testing.assert_array_equal(a.mask, b.mask)
        np.testing.assert_array_equal(a.filled(0), b.filled(0))


@pytest.mark.parametrize("make,error,message", [
    (lambda s: pixwerk.open({"function": "SlopFunction", "arguments": {}}),
     pixwerk.PixwerkError, "SlopeFunction"),
    (lambda s: pixwerk.open({"function": "SlopeFunction",
                             "arguments": {"DEM": str(s / "dem.tif"), "ZFacter": 2}}),
     pixwerk.PixwerkError, "ZFactor"),
    (lambda s: pixwerk.open({"function": "SlopeFunction",
                             "arguments": {"DEM": str(s / "dem.tif"), "ZFactor": "steep"}}),
     pixwerk.PixwerkError, "ZFactor"),
    (lambda s: pixwerk.open({"function": "SlopeFunction", "arguments": {"DEM": "${WHERE}"}}),
     pixwerk.PixwerkError, "WHERE"),
    (lambda s: pixwerk.open(str(s / "missing.tif")), pixwerk.PixwerkError, "missing.tif"),
    (lambda s: pixwerk.open(str(s / "missing.json")), pixwerk.PixwerkError, "missing.json"),
    (lambda s: pixwerk.open(str(s / "dem.tif")).read(window=(512, 0, 10, 10)),
     ValueError, "off the raster"),
    (lambda s: pixwerk.open(str(s / "dem.tif")).read(window=(0, 0, 0, 10)),
     ValueError, "empty"),
    (lambda s: pixwerk.open(str(s / "dem.tif")).read(window=(0, 0)),
     ValueError, "column, row, width, height"),
    (lambda s: pixwerk.array(np.zeros((4, 4), np.complex64)), TypeError, "complex64"),
    (lambda s: pixwerk.array(np.zeros(4, np.float32)), ValueError, "dimensions"),
    (lambda s: pixwerk.open({"function": "IdentityFunction",
                             "arguments": {"Raster": np.zeros((2, 2))}}),
     TypeError, "pixwerk.array"),
    (lambda s: pixwerk.array(np.zeros((2, 2)), geotransform=(0, 1, 0, 0, 0, 1)),
     ValueError, "north up"),
    (lambda s: pixwerk.array(np.zeros((2, 2)), crs="EPSG:nonsense"), ValueError, "crs"),
    (lambda s: pixwerk.open(42), TypeError, "int"),
    (lambda s: pixwerk.function("Slop"), pixwerk.PixwerkError, "SlopeFunction"),
])
def test_bad_input_raises_clear_exceptions(sample, make, error, message):
    with pytest.raises(error, match=message):
        make(sample)


def test_functions_and_their_declared_arguments():
    names = {f["name"] for f in pixwerk.functions()}
    assert {"SlopeFunction", "StretchFunction", "RemapFunction", "StatisticsFunction"} <= names
    slope = pixwerk.function("quarnDataSourcesRaster.SlopeFunction")
    arguments = {a["name"]: a for a in slope["arguments"]}
    assert arguments["DEM"]["required"]
    assert arguments["ZFactor"]["default"] == "1"
    statistics = pixwerk.function("statisticsfunction")
    kinds = {a["name"]: a for a in statistics["arguments"]}
    assert kinds["Type"]["choices"][5] == "Median"
    assert "StatisticsType" in kinds["Type"]["aliases"]


def test_export_writes_what_reads_give_and_reports_progress(sample, tmp_path):
    chain = pixwerk.open({"function": "HillshadeFunction",
                          "arguments": {"DEM": str(sample / "dem.tif")}})
    seen = []
    path = chain.export(tmp_path / "hs.tif", options=["COMPRESS=DEFLATE"], progress=seen.append)
    assert seen and seen[-1] == pytest.approx(1.0)
    assert seen == sorted(seen)
    back = pixwerk.open(path).read()
    expected = chain.read()
    np.testing.assert_array_equal(back.mask, expected.mask)
    np.testing.assert_array_equal(back.filled(0), expected.filled(0))
    # Cancelling leaves nothing behind.
    with pytest.raises(pixwerk.PixwerkError, match="cancelled"):
        chain.export(tmp_path / "cancelled.tif", progress=lambda f: False)
    assert not (tmp_path / "cancelled.tif").exists()
    with pytest.raises(ValueError, match="format"):
        chain.export(tmp_path / "hs.png")


def test_a_large_window_read_in_strips_equals_a_read_on_one_thread(sample):
    chain = pixwerk.open({"function": "AspectFunction",
                          "arguments": {"Raster": str(sample / "dem.tif")}})
    window = (-300, -260, 1100, 1000)  # over a million cells, reaching past every edge
    parallel = chain._core.read(*window)
    single = chain._core.read(*window, 1)
    np.testing.assert_array_equal(parallel[1], single[1])
    np.testing.assert_array_equal(parallel[0][single[1]], single[0][single[1]])
    assert parallel[1][0, 260:772, 300:812].any()
    assert not parallel[1][0, :260].any()
