// The class table's contents and order, and the class index.
#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <map>
#include <set>
#include <thread>

#include "server/class_table.h"
#include "server/entry_points.h"

namespace pw::server {
namespace {

std::string Name(const ClassEntry& e) {
  return ToUtf8(e.name);
}

TEST(ClassTable, HasItsEntriesInTableOrder) {
  const auto entries = ClassEntries();
  ASSERT_EQ(entries.size(), 293u);
  EXPECT_EQ(ClassTable()[293].clsid, nullptr);  // the terminator
  const std::pair<std::size_t, const char*> landmarks[] = {
      {0, "RelativePathManager"},       {5, "MultidimensionalFunctionMemoizer"},
      {6, "FunctionRasterDatasetName"}, {8, "RasterInfo"},
      {23, "IdentityFunction"},         {203, "ContinuumRemovalFunctionArguments"},
      {204, "CompositeBandFunction"},   {292, "ContinuumRemovalFunction"},
  };
  for (const auto& [index, name] : landmarks) EXPECT_EQ(Name(entries[index]), name) << index;
}

TEST(ClassTable, CountsClassesDoubleListingsCategoriesAndSingletons) {
  std::map<std::string, int> listings;
  std::set<std::string> categoryMembers, singletons;
  for (const ClassEntry& e : ClassEntries()) {
    ++listings[Name(e)];
    EXPECT_EQ(*e.clsid, ClassIdFromName(Name(e))) << Name(e);
    EXPECT_EQ(e.threadingModel, kApartment);
    EXPECT_EQ(e.categoryDefinition, 0);
    EXPECT_EQ(e.errorLookup, nullptr);
    EXPECT_EQ(std::count(std::begin(e.categories), std::end(e.categories), nullptr),
              ImplementsCategory(e, CATID_RasterFunctions) ? 4 : 5);
    if (ImplementsCategory(e, CATID_RasterFunctions)) categoryMembers.insert(Name(e));
    if (e.singleton) singletons.insert(Name(e));
  }
  EXPECT_EQ(listings.size(), 276u);
  std::set<std::string> doubles;
  for (const auto& [name, n] : listings)
    if (n == 2) doubles.insert(name);
  const std::set<std::string> expectedDoubles = {"AnomalyDetectionFunction",
                                                 "ComplexDataFilterFunction",
                                                 "ContrastBrightnessFunction",
                                                 "CreateColorCompositeFunction",
                                                 "GenerateInterferogramFunction",
                                                 "LabelBadBandsFunction",
                                                 "MosaicByBandIndicesFunction",
                                                 "OceanWindExtractionFunction",
                                                 "RampAndModulateFunction",
                                                 "RasterCorrelationFunction",
                                                 "RegionPixelCountFunction",
                                                 "RemoveTopographicPhaseFunction",
                                                 "S1RadiometricCalibrationFunction",
                                                 "SARIndicesFunction",
                                                 "SubsetBandsFunction",
                                                 "TOPSARSplitFunction",
                                                 "VectorFieldFunction"};
  EXPECT_EQ(doubles, expectedDoubles);
  EXPECT_EQ(categoryMembers.size(), 89u);
  EXPECT_TRUE(categoryMembers.count("SlopeFunction"));
  EXPECT_FALSE(categoryMembers.count("IdentityFunction"));
  const std::set<std::string> expectedSingletons = {
      "RelativePathManager", "CopyToPathManager",    "PythonAdapterFunctionMemoizer",
      "RasterJSONConverter", "RasterJSONTypeMapper", "MultidimensionalFunctionMemoizer"};
  EXPECT_EQ(singletons, expectedSingletons);
}

TEST(ClassIndex, FindsEveryClassAndTheFirstOfTwoListings) {
  const ClassIndex& index = Index();
  EXPECT_FALSE(index.Linear());
  EXPECT_EQ(index.SlotCount(), 1024u);
  for (const ClassEntry& e : ClassEntries()) {
    const ClassEntry* found = index.Find(*e.clsid);
    ASSERT_NE(found, nullptr) << Name(e);
    EXPECT_EQ(found, FindClassByName(e.name)) << Name(e);  // the first listing
  }
  const ClassEntry* anomaly = index.Find(ClassIdFromName("AnomalyDetectionFunction"));
  EXPECT_FALSE(ImplementsCategory(*anomaly, CATID_RasterFunctions));
}

TEST(ClassIndex, AnIdentifierSharingOnlyTheFirst32BitsIsNotFound) {
  CLSID lookalike = ClassIdFromName("SlopeFunction");
  lookalike.Data4[7] ^= 0x01;
  EXPECT_EQ(Index().Find(lookalike), nullptr);
  void* ppv = reinterpret_cast<void*>(0x1);
  EXPECT_EQ(DllGetClassObject(lookalike, IidOf<IClassFactory>(), &ppv), CLASS_E_CLASSNOTAVAILABLE);
  EXPECT_EQ(ppv, nullptr);
}

// A synthetic table whose identifiers all start at the last slot.
struct SyntheticTable {
  explicit SyntheticTable(std::size_t n, std::uint32_t data1) : ids(n) {
    for (std::size_t i = 0; i < n; ++i) {
      ids[i] = GUID{data1, 0, 0, {0, 0, 0, 0, 0, 0, 0, static_cast<std::uint8_t>(i + 1)}};
      entries.push_back(ClassEntry{&ids[i], u"Synthetic", nullptr, {}, 0, nullptr, 0, 0});
    }
    entries.push_back(ClassEntry{nullptr, nullptr, nullptr, {}, 0, nullptr, 0, 0});
  }
  std::vector<GUID> ids;
  std::vector<ClassEntry> entries;
};

TEST(ClassIndex, ProbingWrapsFromTheLastSlotToSlotZero) {
  SyntheticTable table(8, 0xABCD000F);  // 8 entries: 16 slots, all starting at slot 15
  ClassIndex index;
  index.Build(table.entries.data());
  ASSERT_EQ(index.SlotCount(), 16u);
  EXPECT_EQ(index.Slot(15), &table.entries[0]);
  EXPECT_EQ(index.Slot(0), &table.entries[1]);
  EXPECT_EQ(index.Slot(6), &table.entries[7]);
  for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(index.Find(table.ids[i]), &table.entries[i]);
  // An absent identifier with the same start probes 15, 0, ..., 7 and stops at empty slot 7.
  GUID absent = table.ids[0];
  absent.Data4[7] = 0x77;
  EXPECT_EQ(index.Find(absent), nullptr);
}

TEST(ClassIndex, SmallTablesAreSearchedLinearlySkippingCategoryDefinitions) {
  SyntheticTable table(3, 0x10);
  table.entries[0].categoryDefinition = 1;
  ClassIndex index;
  index.Build(table.entries.data());
  EXPECT_TRUE(index.Linear());
  EXPECT_EQ(index.Find(table.ids[0]), nullptr);
  EXPECT_EQ(index.Find(table.ids[2]), &table.entries[2]);
}

TEST(ClassIndex, IsBuiltOnceWhenManyThreadsStartAtOnce) {
  constexpr int kThreads = 16;
  std::barrier start(kThreads);
  std::vector<std::thread> threads;
  std::atomic<int> found{0};
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      start.arrive_and_wait();
      ComPtr<IClassFactory> factory;
      if (DllGetClassObject(ClassIdFromName("RasterInfo"), IidOf<IClassFactory>(),
                            factory.OutVoid()) == S_OK)
        ++found;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(found.load(), kThreads);
  EXPECT_EQ(IndexBuildCount(), 1);
}

}  // namespace
}  // namespace pw::server
