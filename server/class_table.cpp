// The class table: identifiers, factories and the 293 entries.
#include <type_traits>

#include "framework/arguments.h"
#include "framework/function_raster.h"
#include "framework/raster_info.h"
#include "framework/relative_path_manager.h"
#include "functions/bands/composite_band_function.h"
#include "functions/bands/extract_band_function.h"
#include "functions/elementary/arithmetic_function.h"
#include "functions/elementary/constant_function.h"
#include "functions/elementary/identity_function.h"
#include "functions/elementary/ndvi_function.h"
#include "functions/enhancement/convolution_function.h"
#include "functions/enhancement/mask_function.h"
#include "functions/enhancement/remap_function.h"
#include "functions/enhancement/statistics_function.h"
#include "functions/enhancement/stretch_function.h"
#include "functions/terrain/aspect_function.h"
#include "functions/terrain/hillshade_function.h"
#include "functions/terrain/slope_function.h"
#include "server/class_ids.h"
#include "server/class_table.h"
#include "server/factory.h"

namespace pw::server {
namespace {

// The implementation of each class in this build; void where the class is not built
// yet. Adding a class to the build is one specialisation here.
template <ClassId Id>
struct Implementation {
  using type = void;
};
#define PW_IMPLEMENTED_BY(name, Type)    \
  template <>                            \
  struct Implementation<ClassId::name> { \
    using type = Type;                   \
  };
PW_IMPLEMENTED_BY(RelativePathManager, framework::RelativePathManager)
PW_IMPLEMENTED_BY(RasterInfo, framework::RasterInfo)
PW_IMPLEMENTED_BY(RasterInfos, framework::RasterInfos)
PW_IMPLEMENTED_BY(RasterFunctionArguments, framework::RasterFunctionArguments)
PW_IMPLEMENTED_BY(FunctionRasterDataset, framework::FunctionRasterDataset)
PW_IMPLEMENTED_BY(IdentityFunction, functions::IdentityFunction)
PW_IMPLEMENTED_BY(ConstantFunction, functions::ConstantFunction)
PW_IMPLEMENTED_BY(ConstantFunctionArguments, functions::ConstantFunctionArguments)
PW_IMPLEMENTED_BY(ArithmeticFunction, functions::ArithmeticFunction)
PW_IMPLEMENTED_BY(ArithmeticFunctionArguments, functions::ArithmeticFunctionArguments)
PW_IMPLEMENTED_BY(NDVIFunction, functions::NDVIFunction)
PW_IMPLEMENTED_BY(NDVIFunctionArguments, functions::NDVIFunctionArguments)
PW_IMPLEMENTED_BY(ExtractBandFunction, functions::ExtractBandFunction)
PW_IMPLEMENTED_BY(ExtractBandFunctionArguments, functions::ExtractBandFunctionArguments)
PW_IMPLEMENTED_BY(CompositeBandFunction, functions::CompositeBandFunction)
PW_IMPLEMENTED_BY(CompositeBandFunctionArguments, functions::CompositeBandFunctionArguments)
PW_IMPLEMENTED_BY(SlopeFunction, functions::SlopeFunction)
PW_IMPLEMENTED_BY(SlopeFunctionArguments, functions::SlopeFunctionArguments)
PW_IMPLEMENTED_BY(AspectFunction, functions::AspectFunction)
PW_IMPLEMENTED_BY(HillshadeFunction, functions::HillshadeFunction)
PW_IMPLEMENTED_BY(HillshadeFunctionArguments, functions::HillshadeFunctionArguments)
PW_IMPLEMENTED_BY(MaskFunction, functions::MaskFunction)
PW_IMPLEMENTED_BY(MaskFunctionArguments, functions::MaskFunctionArguments)
PW_IMPLEMENTED_BY(StretchFunction, functions::StretchFunction)
PW_IMPLEMENTED_BY(RemapFunction, functions::RemapFunction)
PW_IMPLEMENTED_BY(RemapFunctionArguments, functions::RemapFunctionArguments)
PW_IMPLEMENTED_BY(StretchFunctionArguments, functions::StretchFunctionArguments)
PW_IMPLEMENTED_BY(ConvolutionFunction, functions::ConvolutionFunction)
PW_IMPLEMENTED_BY(ConvolutionFunctionArguments, functions::ConvolutionFunctionArguments)
PW_IMPLEMENTED_BY(StatisticsFunction, functions::StatisticsFunction)
PW_IMPLEMENTED_BY(StatisticsFunctionArguments, functions::StatisticsFunctionArguments)
#undef PW_IMPLEMENTED_BY

template <ClassId Id>
auto MakeFactory(const char* name) {
  using T = typename Implementation<Id>::type;
  if constexpr (std::is_void_v<T>) {
    return UnavailableClassFactory(name, IsSingletonClass(Id));
  } else if constexpr (IsSingletonClass(Id)) {
    (void)name;
    return SingletonClassFactory<T>();
  } else {
    (void)name;
    return ClassFactory<T>();
  }
}

#define PW_CLASS_ID(name) constexpr CLSID kClsid_##name = ClassIdFromName(#name);
PW_FOR_EACH_CLASS(PW_CLASS_ID)
#undef PW_CLASS_ID

#define PW_CLASS_FACTORY(name) auto g_factory_##name = MakeFactory<ClassId::name>(#name);
PW_FOR_EACH_CLASS(PW_CLASS_FACTORY)
#undef PW_CLASS_FACTORY

#define PW_FIRST_ENTRY(name)                                \
  ClassEntry{&kClsid_##name,                                \
             u"" #name,                                     \
             &g_factory_##name,                             \
             {nullptr, nullptr, nullptr, nullptr, nullptr}, \
             IsSingletonClass(ClassId::name) ? 1 : 0,       \
             nullptr,                                       \
             kApartment,                                    \
             0},
#define PW_CATEGORY_ENTRY(name)                                            \
  ClassEntry{&kClsid_##name,                                               \
             u"" #name,                                                    \
             &g_factory_##name,                                            \
             {&CATID_RasterFunctions, nullptr, nullptr, nullptr, nullptr}, \
             0,                                                            \
             nullptr,                                                      \
             kApartment,                                                   \
             0},

const ClassEntry kTable[] = {
    PW_FOR_EACH_FIRST_LISTED(PW_FIRST_ENTRY) PW_FOR_EACH_CATEGORY_MEMBER(
        PW_CATEGORY_ENTRY) ClassEntry{
        nullptr, nullptr, nullptr, {nullptr, nullptr, nullptr, nullptr, nullptr}, 0, nullptr, 0, 0},
};
#undef PW_FIRST_ENTRY
#undef PW_CATEGORY_ENTRY

static_assert(std::size(kTable) == kClassEntryCount + 1);
static_assert(static_cast<std::size_t>(ClassId::kCount) == kDistinctClassCount);

}  // namespace

const ClassEntry* ClassTable() {
  return kTable;
}

std::span<const ClassEntry> ClassEntries() {
  return {kTable, kClassEntryCount};
}

const ClassEntry* FindClassByName(std::u16string_view name) {
  // The exact name first, then any case (programmatic identifiers are case-insensitive).
  for (const ClassEntry& e : ClassEntries())
    if (!e.categoryDefinition && name == e.name) return &e;
  for (const ClassEntry& e : ClassEntries())
    if (!e.categoryDefinition && EqualsNoCase(name, e.name)) return &e;
  return nullptr;
}

bool ImplementsCategory(const ClassEntry& entry, const CATID& category) {
  for (const CATID* c : entry.categories)
    if (c != nullptr && *c == category) return true;
  return false;
}

}  // namespace pw::server
