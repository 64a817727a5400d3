// Function chains as JSON:
//
//   { "function": "IdentityFunction",
//     "arguments": { "Raster": "dem.tif" },
//     "pixelType": 9, "name": "DEM as float" }
//
// "function" is a bare class name or a programmatic identifier; "arguments" is read by the
// arguments class's own JSON reader ("type" may name the class, else the function's
// companion class is used, else the general one). A dataset-valued argument is a dataset
// name (relative paths are taken from the chain file's folder while the chain binds), a
// nested chain object, or an array of these; which arguments hold datasets is for the
// arguments class and the function to say. Loading binds the chain; a bound chain saves
// back to the same form.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <string_view>

#include "framework/function_interfaces.h"
#include "raster/persist/json.h"

namespace pw::framework {

// Loads and binds a chain; relative dataset names are resolved against `baseFolder`.
HRESULT LoadChain(const persist::Json& chain, const std::filesystem::path& baseFolder,
                  IFunctionRasterDataset** dataset);
HRESULT LoadChainText(std::string_view text, const std::filesystem::path& baseFolder,
                      IFunctionRasterDataset** dataset);
// Reads the file and loads it with its folder as the base.
HRESULT LoadChainFile(const std::filesystem::path& file, IFunctionRasterDataset** dataset);

// Values for the chain's "${NAME}" placeholders (`pixwerk run --set NAME=VALUE`, keyword
// arguments in Python). A text that is one whole placeholder takes the value as JSON when it
// reads as a number, true or false ("ZFactor": "${Z}" with Z=2 gives the number 2), else as a
// text; placeholders inside a text are replaced in it ("${DIR}/dem.tif").
using ChainVariables = std::map<std::string, std::string>;

// Fills every placeholder of `chain`; a placeholder without a value fails, naming it.
HRESULT FillVariables(persist::Json* chain, const ChainVariables& variables);
HRESULT LoadChainFile(const std::filesystem::path& file, const ChainVariables& variables,
                      IFunctionRasterDataset** dataset);

// The chain of a function raster dataset in the form above.
HRESULT SaveChain(IFunctionRasterDataset* dataset, persist::Json* chain);

}  // namespace pw::framework
