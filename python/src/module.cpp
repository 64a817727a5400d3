// pixwerk._pixwerk: chains loaded and bound in this process, their raster info as Python
// values, windows read into NumPy arrays (the GIL released), exports with a progress
// callback, NumPy arrays named as chain inputs, and the functions' declared arguments. The
// pure-Python package around it (python/pixwerk) gives the user-facing API.
#include <cpl_conv.h>
#include <ogr_srs_api.h>
#include <pybind11/functional.h>
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "com/platform.h"
#include "framework/argument_declarations.h"
#include "framework/chain_json.h"
#include "framework/function_raster.h"
#include "raster/algorithms/parallel.h"
#include "raster/band_indexes.h"
#include "raster/gdal/export.h"
#include "raster/gdal/gdal_dataset.h"
#include "raster/mask.h"
#include "raster/memory_dataset.h"
#include "raster/opener.h"
#include "raster/persist/json.h"
#include "raster/pixel_type.h"
#include "raster/raster_view.h"
#include "raster/values/spatial_reference.h"
#include "resources/string_table.h"
#include "server/display_names.h"

namespace py = pybind11;

namespace {

using pw::ComPtr;

// Raised for every failure of the library; the message is the chained one.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

[[noreturn]] void Fail(HRESULT hr, const std::string& what) {
  std::string message = pw::ToUtf8(pw::TakeErrorDescription());
  if (message.empty()) message = pw::DescribeResult(hr);
  throw Error(what + ": " + message);
}

// NumPy's name of each pixel type code's storage (codes 0 to 3 share bytes).
const char* DtypeName(LONG type) {
  static constexpr const char* kNames[] = {"uint8", "uint8",   "uint8",  "uint8",
                                           "int8",  "uint16",  "int16",  "uint32",
                                           "int32", "float32", "float64"};
  if (type < 0 || type > 10)
    throw Error("pixel type " + std::to_string(type) + " has no NumPy dtype");
  return kNames[type];
}

// The pixel type code of a NumPy dtype.
LONG TypeOfDtype(const py::dtype& dtype) {
  const std::string name = std::string(py::str(static_cast<const py::handle&>(dtype)));
  static const std::map<std::string, LONG> kCodes = {{"uint8", 3},   {"int8", 4},     {"uint16", 5},
                                                     {"int16", 6},   {"uint32", 7},   {"int32", 8},
                                                     {"float32", 9}, {"float64", 10}, {"bool", 3}};
  const auto it = kCodes.find(name);
  if (it == kCodes.end())
    throw py::type_error("arrays of dtype " + name +
                         " cannot be chain inputs (uint8, int8, uint16, int16, uint32, int32, "
                         "float32 or float64)");
  return it->second;
}

// A chain loaded and bound in this process, with a view of its output to read.
class Chain {
 public:
  Chain(const std::string& text, const std::string& base,
        const std::map<std::string, std::string>& variables) {
    pw::persist::Json json;
    HRESULT hr = pw::persist::ParseJson(text, &json);
    if (FAILED(hr)) Fail(hr, "the chain");
    hr = pw::framework::FillVariables(&json, variables);
    if (FAILED(hr)) Fail(hr, "the chain");
    json_ = json.dump();
    {
      py::gil_scoped_release free;
      hr = pw::framework::LoadChain(json, base, &dataset_);
    }
    if (FAILED(hr)) Fail(hr, "the chain");
    hr = dataset_.As<IRasterDataset>()->CreateDefaultRaster(&raster_);
    if (FAILED(hr)) Fail(hr, "the chain");
    auto source = raster_.As<IRasterSource>();
    if (!source || FAILED(source->GetInfo(&info_))) Fail(E_FAIL, "the chain's raster info");
  }

  const std::string& Json() const { return json_; }
  LONG Width() const { return info_.grid.columns; }
  LONG Height() const { return info_.grid.rows; }
  LONG Bands() const { return info_.bandCount; }

  py::dict Info() const {
    py::dict info;
    const auto& g = info_.grid;
    info["width"] = g.columns;
    info["height"] = g.rows;
    info["band_count"] = info_.bandCount;
    info["pixel_type"] = std::string(pw::raster::PixelTypeName(info_.pixelType));
    info["dtype"] = DtypeName(info_.pixelType);
    info["geotransform"] = py::make_tuple(g.xmin, g.CellX(), 0.0, g.ymax, 0.0, -g.CellY());
    py::object crs = py::none();
    if (info_.reference) {
      BSTR wkt = nullptr;
      if (SUCCEEDED(info_.reference->get_WKT(&wkt)) && wkt != nullptr) {
        const std::string text = pw::ToUtf8(std::u16string_view(wkt, SysStringLen(wkt)));
        if (!text.empty()) crs = py::str(text);
      }
      SysFreeString(wkt);
    }
    info["crs"] = crs;
    py::list noData, names;
    for (LONG b = 0; b < info_.bandCount; ++b) {
      const std::size_t i = static_cast<std::size_t>(b);
      if (i < info_.noData.size() && info_.noData[i]) {
        noData.append(*info_.noData[i]);
      } else {
        noData.append(py::none());
      }
      std::string name;
      if (const auto value = pw::raster::BandKeyProperty(raster_.Get(), b, u"BandName"))
        if (const auto text = value->ToString()) name = pw::ToUtf8(*text);
      names.append(name.empty() ? py::object(py::none()) : py::object(py::str(name)));
    }
    info["nodata"] = noData;
    info["band_names"] = names;
    return info;
  }

  // The window's values (bands x height x width, the output's dtype) and validity. A large
  // window is read in strips of rows on `threads` threads (0: every processor; 1 inside a
  // task of a scheduler that runs tasks in parallel itself).
  py::tuple Read(LONG column, LONG row, LONG width, LONG height, int threads) const {
    if (width <= 0 || height <= 0)
      throw py::value_error("a window of " + std::to_string(width) + " x " +
                            std::to_string(height) + " cells is empty");
    if (column >= Width() || row >= Height() || column + width <= 0 || row + height <= 0)
      throw py::value_error("the window at column " + std::to_string(column) + ", row " +
                            std::to_string(row) + " of " + std::to_string(width) + " x " +
                            std::to_string(height) + " cells lies off the raster of " +
                            std::to_string(Width()) + " x " + std::to_string(Height()));
    const auto bands = static_cast<py::ssize_t>(Bands());
    py::array values(py::dtype(DtypeName(info_.pixelType)),
                     {bands, py::ssize_t{height}, py::ssize_t{width}});
    py::array_t<bool> valid({bands, py::ssize_t{height}, py::ssize_t{width}});
    Target target{static_cast<std::uint8_t*>(values.mutable_data()),
                  reinterpret_cast<std::uint8_t*>(valid.mutable_data()),
                  static_cast<std::size_t>(width) * static_cast<std::size_t>(height),
                  static_cast<std::size_t>(values.itemsize()), width};
    HRESULT hr = S_OK;
    std::string message;
    {
      py::gil_scoped_release free;
      constexpr LONG kStrip = 256;
      const LONG strips = (height + kStrip - 1) / kStrip;
      unsigned team = threads > 0 ? static_cast<unsigned>(threads)
                                  : std::max(1u, std::thread::hardware_concurrency());
      team = std::min(team, static_cast<unsigned>(strips));
      if (team <= 1 || target.cells < (std::size_t{1} << 20)) {
        // One thread asked for: the kernels stay on this one too.
        std::optional<pw::raster::ParallelWorkerScope> mark;
        if (threads == 1) mark.emplace();
        hr = ReadRows(column, row, 0, height, target);
        if (FAILED(hr)) message = pw::ToUtf8(pw::TakeErrorDescription());
      } else {
        std::atomic<LONG> next{0};
        std::mutex failure;
        std::vector<std::thread> workers;
        for (unsigned t = 0; t < team; ++t)
          workers.emplace_back([&] {
            const pw::raster::ParallelWorkerScope worker;
            for (LONG k = next++; k < strips; k = next++) {
              const LONG first = k * kStrip;
              const HRESULT got =
                  ReadRows(column, row, first, std::min(kStrip, height - first), target);
              if (SUCCEEDED(got)) continue;
              std::lock_guard<std::mutex> hold(failure);
              if (SUCCEEDED(hr)) hr = got, message = pw::ToUtf8(pw::TakeErrorDescription());
              next = strips;
            }
          });
        for (std::thread& w : workers) w.join();
      }
    }
    if (FAILED(hr))
      throw Error("the read: " + (message.empty() ? pw::DescribeResult(hr) : message));
    return py::make_tuple(values, valid);
  }

  // A window of the output (whole rows of it, for a cluster's strips) to its own file, its
  // invalid cells holding `noData` or, without one, marked in a mask band, so that the strips
  // of one raster agree.
  void ExportWindow(const std::string& path, LONG column, LONG row, LONG width, LONG height,
                    const std::string& format, const std::vector<std::string>& options, int threads,
                    std::optional<double> noData) const {
    if (width <= 0 || height <= 0 || column < 0 || row < 0 || column + width > Width() ||
        row + height > Height())
      throw py::value_error("the window lies outside the raster");
    const auto& g = info_.grid;
    pw::raster::RasterGrid window;
    window.xmin = g.xmin + column * g.CellX();
    window.xmax = window.xmin + width * g.CellX();
    window.ymax = g.ymax - row * g.CellY();
    window.ymin = window.ymax - height * g.CellY();
    window.columns = width;
    window.rows = height;
    pw::raster::gdal::ExportOptions o;
    o.format = format;
    o.creationOptions = options;
    o.threads = threads;
    o.validity = noData ? pw::raster::gdal::ExportOptions::Validity::kNoData
                        : pw::raster::gdal::ExportOptions::Validity::kMask;
    o.noDataValue = noData.value_or(0);
    HRESULT hr = S_OK;
    {
      py::gil_scoped_release free;
      ComPtr<IRaster> view;
      hr = pw::raster::CreateRasterOnGrid(raster_.Get(), window, nullptr, info_.pixelType, &view);
      if (SUCCEEDED(hr)) hr = pw::raster::gdal::ExportRaster(view.Get(), path, o);
    }
    if (FAILED(hr)) Fail(hr, "the export to '" + path + "'");
  }

  void Export(const std::string& path, const std::string& format,
              const std::vector<std::string>& options, int threads, std::optional<double> noData,
              bool mask, const py::object& progress) const {
    pw::raster::gdal::ExportOptions o;
    o.format = format;
    o.creationOptions = options;
    o.threads = threads;
    if (noData && mask) throw py::value_error("give nodata or mask, not both");
    if (noData) {
      o.validity = pw::raster::gdal::ExportOptions::Validity::kNoData;
      o.noDataValue = *noData;
    }
    if (mask) o.validity = pw::raster::gdal::ExportOptions::Validity::kMask;
    o.metadata.emplace_back("PIXWERK_CHAIN", json_);
    std::atomic<bool> interrupted{false};
    o.progress = [&](double done) {
      py::gil_scoped_acquire hold;
      if (PyErr_CheckSignals() != 0) {
        interrupted = true;
        return false;
      }
      if (progress.is_none()) return true;
      try {
        const py::object answer = progress(done);
        return answer.is_none() || answer.cast<bool>();
      } catch (py::error_already_set&) {
        interrupted = true;
        throw;
      }
    };
    HRESULT hr = S_OK;
    {
      py::gil_scoped_release free;
      try {
        hr = pw::raster::gdal::ExportRaster(raster_.Get(), path, o);
      } catch (...) {
        hr = E_ABORT;
      }
    }
    if (interrupted) {
      pw::ClearErrorInfo();
      if (PyErr_Occurred() != nullptr) throw py::error_already_set();
      throw Error("the export to '" + path + "' was cancelled; nothing was written");
    }
    if (hr == E_ABORT) {
      pw::ClearErrorInfo();
      throw Error("the export to '" + path +
                  "' was cancelled by its progress callback; nothing "
                  "was written");
    }
    if (FAILED(hr)) Fail(hr, "the export to '" + path + "'");
  }

 private:
  // Where a read's rows go: bands one after the other, `cells` values and flags each.
  struct Target {
    std::uint8_t* values;
    std::uint8_t* valid;
    std::size_t cells, itemSize;
    LONG width;
  };

  // Rows first .. first + count - 1 of the window at (column, row) into `target`.
  HRESULT ReadRows(LONG column, LONG row, LONG first, LONG count, const Target& target) const {
    ComPtr<IPixelBlock> block;
    PW_RETURN_IF_FAILED(raster_->CreatePixelBlock(target.width, count, &block));
    PW_RETURN_IF_FAILED(raster_->ReadAt(column, row + first, block.Get()));
    const std::size_t n = static_cast<std::size_t>(target.width) * static_cast<std::size_t>(count);
    const std::size_t at = static_cast<std::size_t>(first) * static_cast<std::size_t>(target.width);
    for (LONG b = 0; b < Bands(); ++b) {
      const std::size_t band = static_cast<std::size_t>(b) * target.cells;
      std::memcpy(target.values + (band + at) * target.itemSize, block->Buffer(b),
                  n * target.itemSize);
      pw::raster::mask::Unpack(block->Mask(b), n, target.valid + band + at);
    }
    return S_OK;
  }

  std::string json_;
  ComPtr<IFunctionRasterDataset> dataset_;
  ComPtr<IRaster> raster_;
  pw::raster::SourceInfo info_;
};

// The WKT of a user's reference: WKT as it is, else anything GDAL's OSR reads ("EPSG:32633").
std::string ReferenceWkt(const std::string& given) {
  OGRSpatialReferenceH srs = OSRNewSpatialReference(nullptr);
  char* wkt = nullptr;
  const bool read = OSRSetFromUserInput(srs, given.c_str()) == OGRERR_NONE &&
                    OSRExportToWkt(srs, &wkt) == OGRERR_NONE;
  std::string text = read && wkt != nullptr ? wkt : "";
  CPLFree(wkt);
  OSRDestroySpatialReference(srs);
  if (text.empty()) throw py::value_error("the crs '" + given + "' is not one GDAL reads");
  return text;
}

std::atomic<long> g_arrays{0};

// Names `array` (bands x rows x columns, or rows x columns) as a dataset of this process and
// returns the name; `valid` (same shape, or None) marks invalid cells.
std::string NameArray(const py::array& array, const std::vector<double>& geotransform,
                      const std::optional<std::string>& crs, std::optional<double> noData,
                      const py::object& valid) {
  if (array.ndim() != 2 && array.ndim() != 3)
    throw py::value_error(
        "a chain input is an array of 2 (rows, columns) or 3 (bands, rows, "
        "columns) dimensions, not " +
        std::to_string(array.ndim()));
  const LONG type = TypeOfDtype(array.dtype());
  const bool three = array.ndim() == 3;
  const auto bands = static_cast<LONG>(three ? array.shape(0) : 1);
  const auto rows = static_cast<LONG>(array.shape(three ? 1 : 0));
  const auto columns = static_cast<LONG>(array.shape(three ? 2 : 1));
  if (bands < 1 || rows < 1 || columns < 1) throw py::value_error("a chain input has no cells");
  if (geotransform.size() != 6)
    throw py::value_error("a geotransform has 6 numbers (x0, cell width, 0, y0, 0, -cell height)");
  if (geotransform[2] != 0 || geotransform[4] != 0 || !(geotransform[1] > 0) ||
      !(geotransform[5] < 0))
    throw py::value_error(
        "the geotransform must be north up: positive cell width, no "
        "rotation, negative cell height");
  pw::raster::RasterGrid grid;
  grid.xmin = geotransform[0];
  grid.ymax = geotransform[3];
  grid.xmax = grid.xmin + geotransform[1] * columns;
  grid.ymin = grid.ymax + geotransform[5] * rows;
  grid.columns = columns;
  grid.rows = rows;
  ComPtr<ISpatialReference> reference;
  if (crs && !crs->empty()) {
    auto object = pw::MakeObject<pw::raster::SpatialReference>();
    const std::string wkt = ReferenceWkt(*crs);
    object->put_WKT(pw::Bstr(std::string_view(wkt)).Get());
    reference = object.As<ISpatialReference>();
  }
  const long id = ++g_arrays;
  const std::string name = "pixwerk-array:" + std::to_string(id);
  auto dataset = pw::MakeObject<pw::raster::MemoryDataset>(pw::ToUtf16(name), grid, bands, type,
                                                           reference.Get());
  const py::array contiguous = py::array::ensure(array, py::array::c_style | py::array::forcecast);
  const std::size_t cells = static_cast<std::size_t>(rows) * static_cast<std::size_t>(columns);
  const std::size_t bytes = cells * static_cast<std::size_t>(array.itemsize());
  std::optional<py::array_t<bool, py::array::c_style | py::array::forcecast>> validity;
  if (!valid.is_none()) {
    validity = py::array_t<bool, py::array::c_style | py::array::forcecast>::ensure(valid);
    if (!validity || validity->size() != array.size())
      throw py::value_error("the validity must have the array's shape");
  }
  for (LONG b = 0; b < bands; ++b) {
    const std::size_t at = static_cast<std::size_t>(b);
    pw::raster::MemoryBand& band = dataset->Band(b);
    std::memcpy(band.Data(), static_cast<const std::uint8_t*>(contiguous.data()) + at * bytes,
                bytes);
    band.SetNoData(noData);
    if (validity)
      pw::raster::mask::Pack(band.Mask(), 0,
                             reinterpret_cast<const std::uint8_t*>(validity->data()) + at * cells,
                             cells);
  }
  pw::raster::NameDataset(pw::ToUtf16(name), dataset.As<IRasterDataset>().Get());
  return name;
}

std::string FunctionText(std::string_view className, bool description) {
  if (const auto texts = pw::server::FindFunctionTexts(pw::ToUtf16(className)))
    return std::string(
        pw::res::Find(description ? texts->descriptionId : texts->nameId).value_or(""));
  return {};
}

py::list Functions() {
  py::list out;
  for (const pw::framework::FunctionDeclaration* decl : pw::framework::FunctionDeclarations()) {
    py::dict function;
    function["name"] = std::string(decl->function);
    function["arguments_class"] = std::string(decl->arguments);
    function["display_name"] = FunctionText(decl->function, false);
    function["description"] = FunctionText(decl->function, true);
    py::list arguments;
    for (const pw::framework::ArgumentDeclaration& item : decl->items) {
      py::dict a;
      a["name"] = std::string(item.name);
      a["kind"] = std::string(pw::framework::KindText(item.kind));
      a["required"] = item.Required();
      a["default"] = item.Required() ? py::object(py::none()) : py::object(py::str(item.Default()));
      py::list aliases;
      for (std::string_view alias : item.aliases) aliases.append(std::string(alias));
      a["aliases"] = aliases;
      py::dict choices;
      for (const pw::framework::Choice& choice : item.choices)
        choices[py::int_(choice.value)] = std::string(choice.name);
      a["choices"] = choices;
      a["minimum"] =
          std::isfinite(item.minimum) ? py::object(py::float_(item.minimum)) : py::none();
      a["maximum"] =
          std::isfinite(item.maximum) ? py::object(py::float_(item.maximum)) : py::none();
      a["help"] = std::string(item.help);
      arguments.append(a);
    }
    function["arguments"] = arguments;
    out.append(function);
  }
  return out;
}

}  // namespace

PYBIND11_MODULE(_pixwerk, m) {
  m.doc() = "Pixwerk's raster functions: the compiled core of the pixwerk package";
  pw::raster::gdal::Initialize();
  py::register_exception<Error>(m, "PixwerkError", PyExc_RuntimeError);

  py::class_<Chain>(m, "Chain")
      .def(py::init<const std::string&, const std::string&,
                    const std::map<std::string, std::string>&>(),
           py::arg("text"), py::arg("base"), py::arg("variables"))
      .def_property_readonly("json", &Chain::Json)
      .def_property_readonly("width", &Chain::Width)
      .def_property_readonly("height", &Chain::Height)
      .def_property_readonly("band_count", &Chain::Bands)
      .def("info", &Chain::Info)
      .def("read", &Chain::Read, py::arg("column"), py::arg("row"), py::arg("width"),
           py::arg("height"), py::arg("threads") = 0)
      .def("export_window", &Chain::ExportWindow, py::arg("path"), py::arg("column"),
           py::arg("row"), py::arg("width"), py::arg("height"), py::arg("format"),
           py::arg("options"), py::arg("threads"), py::arg("nodata"))
      .def("export", &Chain::Export, py::arg("path"), py::arg("format"), py::arg("options"),
           py::arg("threads"), py::arg("nodata"), py::arg("mask"), py::arg("progress"));

  m.def("name_array", &NameArray, py::arg("array"), py::arg("geotransform"), py::arg("crs"),
        py::arg("nodata"), py::arg("valid"));
  m.def("forget_array",
        [](const std::string& name) { pw::raster::ForgetDataset(pw::ToUtf16(name)); });
  m.def("functions", &Functions);
  m.def("suggest_function",
        [](const std::string& name) { return pw::framework::SuggestFunctionName(name); });
}
