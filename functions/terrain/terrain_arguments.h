// The arguments that slope and hillshade share: the elevation ("DEM", else "Raster"), the
// z-factor, the slope type with its power-scaled factor, and edge removal. `Itf` is the
// function's typed accessor interface, which declares these accessors among its own.
#pragma once

#include "framework/argument_declarations.h"
#include "framework/arguments.h"

namespace pw::functions {

// The declarations of the arguments the terrain functions share.
namespace terrain {
inline constexpr std::string_view kDemAliases[] = {"Raster"};
inline constexpr framework::ArgumentDeclaration kDem =
    framework::Required("DEM", framework::ArgumentKind::kRaster, "the elevation raster")
        .Also(kDemAliases);
inline constexpr framework::ArgumentDeclaration kZFactor =
    framework::Number("ZFactor", 1, "vertical exaggeration and unit conversion");
inline constexpr framework::ArgumentDeclaration kPSPower =
    framework::Number("PSPower", 0.664, "slope type 3: the power of the cell size in the z-factor");
inline constexpr framework::ArgumentDeclaration kPSZFactor =
    framework::Number("PSZFactor", 0.024, "slope type 3: the multiplier of the powered cell size");
inline constexpr framework::ArgumentDeclaration kRemoveEdgeEffect = framework::Boolean(
    "RemoveEdgeEffect", false, "true: edge cells are computed from the nearest edge cell repeated");
inline constexpr framework::Choice kDevices[] = {
    {1, "the GPU when there is one, else the CPU"}, {2, "the CPU"}, {3, "the GPU only"}};
inline constexpr framework::ArgumentDeclaration kAnalysisTargetDevice =
    framework::Integer("AnalysisTargetDevice", 1,
                       "where the surface is computed (this build has the CPU only)")
        .OneOf(kDevices)
        .Unresolved();
inline constexpr framework::ArgumentDeclaration kDeviceId =
    framework::Integer("DeviceId", -1, "the GPU device (-1: the service's choice)").Unresolved();
}  // namespace terrain

// The z-factor settings of slope and hillshade, with their declared defaults (both
// functions declare "SlopeType" with default 1).
struct ZFactors {
  double z = terrain::kZFactor.number, psZFactor = terrain::kPSZFactor.number,
         psPower = terrain::kPSPower.number;
  LONG slopeType = 1;  // 3 selects the power-scaled factor
};

template <class Itf>
class TerrainArguments : public framework::BasicFunctionArguments, public Itf {
 public:
  using Interfaces =
      ConcatInterfacesT<framework::BasicFunctionArguments::Interfaces, InterfaceList<Itf>>;

  HRESULT STDMETHODCALLTYPE get_DEM(VARIANT* value) override {
    return Has(u"DEM") ? GetNamedValue(u"DEM", value) : GetNamedValue(u"Raster", value);
  }
  HRESULT STDMETHODCALLTYPE put_DEM(VARIANT value) override { return PutNamedValue(u"DEM", value); }
  HRESULT STDMETHODCALLTYPE get_ZFactor(double* factor) override {
    return HandOut(GetDouble(u"ZFactor", ZFactors{}.z), factor);
  }
  HRESULT STDMETHODCALLTYPE put_ZFactor(double factor) override {
    return PutNamedValue(u"ZFactor", Variant(factor));
  }
  HRESULT STDMETHODCALLTYPE get_SlopeType(LONG* type) override {
    return HandOut(GetLong(u"SlopeType", ZFactors{}.slopeType), type);
  }
  HRESULT STDMETHODCALLTYPE put_SlopeType(LONG type) override {
    return PutNamedValue(u"SlopeType", Variant(std::int32_t{type}));
  }
  HRESULT STDMETHODCALLTYPE get_PSPower(double* power) override {
    return HandOut(GetDouble(u"PSPower", ZFactors{}.psPower), power);
  }
  HRESULT STDMETHODCALLTYPE put_PSPower(double power) override {
    return PutNamedValue(u"PSPower", Variant(power));
  }
  HRESULT STDMETHODCALLTYPE get_PSZFactor(double* factor) override {
    return HandOut(GetDouble(u"PSZFactor", ZFactors{}.psZFactor), factor);
  }
  HRESULT STDMETHODCALLTYPE put_PSZFactor(double factor) override {
    return PutNamedValue(u"PSZFactor", Variant(factor));
  }
  HRESULT STDMETHODCALLTYPE get_RemoveEdgeEffect(VARIANT_BOOL* remove) override {
    return HandOut(GetBool(u"RemoveEdgeEffect", terrain::kRemoveEdgeEffect.number != 0)
                       ? VARIANT_TRUE
                       : VARIANT_FALSE,
                   remove);
  }
  HRESULT STDMETHODCALLTYPE put_RemoveEdgeEffect(VARIANT_BOOL remove) override {
    return PutNamedValue(u"RemoveEdgeEffect", Variant(remove != VARIANT_FALSE));
  }

  // The elevation value as bound: "DEM", else "Raster".
  const Variant* Elevation() const {
    const Variant* dem = Find(u"DEM");
    return dem == nullptr || dem->IsEmpty() ? Find(u"Raster") : dem;
  }
  ZFactors Factors() const {
    const ZFactors defaults;
    return {GetDouble(u"ZFactor", defaults.z), GetDouble(u"PSZFactor", defaults.psZFactor),
            GetDouble(u"PSPower", defaults.psPower), GetLong(u"SlopeType", defaults.slopeType)};
  }
};

}  // namespace pw::functions
