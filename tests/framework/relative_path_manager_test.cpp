// The per-thread base folder for relative dataset paths.
#include <gtest/gtest.h>

#include "framework/relative_path_manager.h"

namespace pw::framework {
namespace {

std::u16string Apply(IRelativePathManager* m, bool absolute, const char16_t* path) {
  Bstr in(path), out;
  const HRESULT hr = absolute ? m->MakeAbsolute(in.Get(), &out) : m->MakeRelative(in.Get(), &out);
  EXPECT_EQ(hr, S_OK);
  return out.Str();
}

TEST(RelativePathManager, RebasesOnlyPlainRelativePaths) {
  auto manager = MakeObject<RelativePathManager>();
  IRelativePathManager* m = manager.Get();
  EXPECT_EQ(Apply(m, true, u"dem.tif"), u"dem.tif");  // no base yet
  ASSERT_EQ(m->put_BasePath(Bstr(u"/data/chains").Get()), S_OK);
  Bstr base;
  ASSERT_EQ(m->get_BasePath(&base), S_OK);
  EXPECT_EQ(base.View(), u"/data/chains");
  struct Case {
    bool absolute;
    const char16_t* in;
    const char16_t* out;
  } cases[] = {
      {true, u"dem.tif", u"/data/chains/dem.tif"},
      {true, u"../rasters/./dem.tif", u"/data/rasters/dem.tif"},
      {true, u"/abs/dem.tif", u"/abs/dem.tif"},
      {true, u"/vsizip/archive.zip/dem.tif", u"/vsizip/archive.zip/dem.tif"},
      {true, u"NETCDF:file.nc:var", u"NETCDF:file.nc:var"},
      {false, u"/data/chains/sub/dem.tif", u"sub/dem.tif"},
      {false, u"/elsewhere/dem.tif", u"/elsewhere/dem.tif"},
      {false, u"relative.tif", u"relative.tif"},
  };
  for (const auto& c : cases) EXPECT_EQ(Apply(m, c.absolute, c.in), c.out);
  EXPECT_EQ(m->MakeAbsolute(nullptr, nullptr), E_POINTER);
}

}  // namespace
}  // namespace pw::framework
