// Example: create functions by programmatic identifier, chain them, and read pixels.
// A constant raster feeds an identity function that reads it back as bytes.
#include <cstdio>

#include "framework/function_raster.h"
#include "functions/elementary/constant_function.h"
#include "raster/pixel_block.h"
#include "raster/values/arrays.h"
#include "raster/values/geometry.h"
#include "server/entry_points.h"

int main() {
  using namespace pw;
  // The raster to produce: 64 x 32 cells of 10 m, two 16-bit bands.
  ComPtr<IRasterInfo> info;
  server::CreateInstance(u"quarnDataSourcesRaster.RasterInfo", &info);
  auto extent = MakeObject<raster::Envelope>();
  extent->PutCoords(0, 0, 640, 320);
  info->put_Extent(extent.As<IEnvelope>().Get());
  info->put_PixelSizeX(10);
  info->put_PixelSizeY(10);
  info->put_BandCount(2);
  info->put_PixelType(6);

  ComPtr<IRasterFunction> constant;
  ComPtr<IConstantFunctionArguments> constantArgs;
  server::CreateInstance(u"quarnDataSourcesRaster.ConstantFunction", &constant);
  server::CreateInstance(u"quarnDataSourcesRaster.ConstantFunctionArguments", &constantArgs);
  constantArgs->put_RasterInfo(info.Get());
  auto values = MakeObject<raster::DoubleArray>();
  values->Items() = {-3.7, 300};
  constantArgs->put_Constant(Variant(values->AsUnknown()));

  // The bound constant becomes the input of an identity function through a function
  // raster dataset; nothing is computed until a block is read.
  ComPtr<IFunctionRasterDataset> constantRaster;
  if (FAILED(framework::CreateFunctionRasterDataset(constant.Get(), constantArgs.Get(), true,
                                                    &constantRaster))) {
    std::fprintf(stderr, "%s\n", ToUtf8(TakeErrorDescription()).c_str());
    return 1;
  }
  ComPtr<IRasterFunction> identity;
  ComPtr<IRasterFunctionArguments> identityArgs;
  server::CreateInstance(u"quarnDataSourcesRaster.IdentityFunction", &identity);
  server::CreateInstance(u"quarnDataSourcesRaster.RasterFunctionArguments", &identityArgs);
  identityArgs->PutValue(Bstr(u"Raster").Get(), Variant(constantRaster.Get()));
  identity->put_PixelType(3);  // read the chain as unsigned bytes
  if (FAILED(identity->Bind(identityArgs.Get()))) {
    std::fprintf(stderr, "%s\n", ToUtf8(TakeErrorDescription()).c_str());
    return 1;
  }

  ComPtr<IPixelBlock> block;
  raster::CreatePixelBlock(4, 4, 2, 3, &block);
  auto origin = MakeObject<raster::Pnt>();
  origin->PutCoords(10, 5);
  identity->Read(origin.As<IPnt>().Get(), nullptr, block.Get());
  // -3.7 is stored as -3 in 16 bits and clamps to 0 as a byte; 300 clamps to 255.
  std::printf("band 1: %g, band 2: %g\n", raster::PixelValue(block.Get(), 0, 0),
              raster::PixelValue(block.Get(), 1, 0));
  return raster::PixelValue(block.Get(), 0, 0) == 0 && raster::PixelValue(block.Get(), 1, 0) == 255
             ? 0
             : 1;
}
