// Registration of the class table into a registry file, and its removal.
#include <gtest/gtest.h>

#include <spawn.h>
#include <sys/wait.h>

#include <cstring>
#include <set>

#include "com/registry_hive.h"
#include "server/entry_points.h"
#include "server/registration.h"
#include "tests/test_support.h"

extern char** environ;

namespace pw::server {
namespace {

constexpr const char* kForeign =
    "Windows Registry Editor Version 5.00\n\n"
    "[HKEY_CLASSES_ROOT\\CLSID\\{00000000-1111-2222-3333-444444444444}]\n"
    "@=\"Someone.Else\"\n\n"
    "[HKEY_CLASSES_ROOT\\Someone.Else]\n"
    "@=\"Someone.Else\"\n";

reg::Hive Load(const std::filesystem::path& file) {
  reg::Hive hive;
  std::string error;
  EXPECT_TRUE(reg::Hive::Parse(test::ReadFile(file), &hive, &error)) << error;
  return hive;
}

std::optional<std::u16string> DefaultText(const reg::Hive& hive, const std::u16string& path) {
  const reg::Key* key = hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\" + path));
  if (key == nullptr) return std::nullopt;
  const reg::Value* value = key->FindValue(u"");
  if (value == nullptr) return std::u16string(u"<no default>");
  return reg::ValueText(*value);
}

class Registration : public ::testing::Test {
 protected:
  void SetUp() override { test::WriteFile(file_, kForeign); }
  test::TempDir dir_;
  std::filesystem::path file_ = dir_ / "registry.reg";
  test::ScopedEnv env_{"PIXWERK_REGISTRY", file_.string()};
};

TEST_F(Registration, WritesEveryKeyAndValueOfAClass) {
  ASSERT_EQ(quarnDllRegisterServer(), S_OK) << ToUtf8(TakeErrorDescription());
  const reg::Hive hive = Load(file_);
  const std::u16string clsid =
      u"CLSID\\{F6CFF2B8-ED30-5C13-8A03-0EEEC12BA96A}";  // IdentityFunction
  const std::pair<std::u16string, std::u16string> expected[] = {
      {clsid, u"quarnDataSourcesRaster.IdentityFunction"},
      {clsid + u"\\VersionIndependentProgID", u"quarnDataSourcesRaster.IdentityFunction"},
      {clsid + u"\\ProgID", u"quarnDataSourcesRaster.IdentityFunction.1"},
      {clsid + u"\\TypeLib", u"{41C4E9B6-F92F-4F6E-BA5B-AFC4AD597ABF}"},
      {u"quarnDataSourcesRaster.IdentityFunction", u"quarnDataSourcesRaster.IdentityFunction"},
      {u"quarnDataSourcesRaster.IdentityFunction\\CLSID",
       u"{F6CFF2B8-ED30-5C13-8A03-0EEEC12BA96A}"},
      {u"quarnDataSourcesRaster.IdentityFunction\\CurVer",
       u"quarnDataSourcesRaster.IdentityFunction.1"},
      {u"quarnDataSourcesRaster.IdentityFunction.1", u"quarnDataSourcesRaster.IdentityFunction"},
      {u"quarnDataSourcesRaster.IdentityFunction.1\\CLSID",
       u"{F6CFF2B8-ED30-5C13-8A03-0EEEC12BA96A}"},
  };
  for (const auto& [path, text] : expected)
    EXPECT_EQ(DefaultText(hive, path), text) << ToUtf8(path);

  const reg::Key* inproc =
      hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\" + clsid + u"\\InprocServer32"));
  ASSERT_NE(inproc, nullptr);
  EXPECT_EQ(reg::ValueText(*inproc->FindValue(u"")), ModuleFilePath());
  EXPECT_NE(ToUtf8(ModuleFilePath()).find("libpixwerk.so"), std::string::npos);
  const reg::Value* model = inproc->FindValue(u"ThreadingModel");
  ASSERT_NE(model, nullptr);
  EXPECT_EQ(model->type, reg::kTypeString);
  EXPECT_EQ(model->data.size(), 20u);
  EXPECT_EQ(reg::ValueText(*model), u"Apartment");
  // Identity is creatable but not advertised as a raster function.
  EXPECT_FALSE(DefaultText(hive, clsid + u"\\Implemented Categories"));
  EXPECT_EQ(inproc->Children().size(), 0u);
  EXPECT_EQ(hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\" + clsid))->Children().size(), 4u);
}

TEST_F(Registration, RegistersTheCategoryForItsMembersOnly) {
  ASSERT_EQ(quarnDllRegisterServer(), S_OK);
  const reg::Hive hive = Load(file_);
  const reg::Key* clsids = hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\CLSID"));
  ASSERT_NE(clsids, nullptr);
  EXPECT_EQ(clsids->Children().size(), 276u + 1u);  // and the foreign class
  // A class has the category key exactly when one of its entries names the category;
  // doubly listed classes get it from their second entry.
  std::set<std::u16string> withCategory, all;
  for (const ClassEntry& e : ClassEntries()) {
    all.insert(GuidToU16String(*e.clsid));
    if (ImplementsCategory(e, CATID_RasterFunctions))
      withCategory.insert(GuidToU16String(*e.clsid));
  }
  for (const auto& clsidText : all) {
    const std::u16string path = u"HKEY_CLASSES_ROOT\\CLSID\\" + clsidText +
                                u"\\Implemented Categories\\{01D1412F-EB0F-4CFB-B9E5-F248BE838131}";
    EXPECT_EQ(hive.Find(reg::SplitPath(path)) != nullptr, withCategory.count(clsidText) > 0)
        << ToUtf8(clsidText);
  }
  const std::size_t members = withCategory.size();
  EXPECT_EQ(members, 89u);
  // The category itself is not defined by any entry of the table.
  EXPECT_EQ(hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\Component Categories")), nullptr);
}

TEST_F(Registration, UnregistrationRemovesExactlyWhatWasWritten) {
  const reg::Hive before = Load(file_);
  ASSERT_EQ(quarnDllRegisterServer(), S_OK);
  ASSERT_EQ(quarnDllRegisterServer(), S_OK);  // registering again replaces, never duplicates
  ASSERT_EQ(quarnDllUnregisterServer(), S_OK);
  EXPECT_TRUE(Load(file_) == before) << test::ReadFile(file_);
  ASSERT_EQ(quarnDllUnregisterServer(), S_OK);  // nothing left to remove is not a failure
}

TEST_F(Registration, ACorruptRegistryFailsClearlyAndIsLeftAsItWas) {
  const std::string corrupt = std::string(kForeign) + "\"dangling\"=\"unterminated\n";
  test::WriteFile(file_, corrupt);
  EXPECT_EQ(quarnDllRegisterServer(), E_FAIL);
  const std::string message = ToUtf8(TakeErrorDescription());
  EXPECT_NE(message.find("corrupt"), std::string::npos) << message;
  EXPECT_NE(message.find(file_.string()), std::string::npos) << message;
  EXPECT_EQ(quarnDllUnregisterServer(), E_FAIL);
  EXPECT_EQ(test::ReadFile(file_), corrupt);
}

TEST(RegistrationErrors, AnUnwritableRegistryFailsWithoutWritingAnything) {
  test::TempDir dir;
  test::WriteFile(dir / "file", "x");
  test::ScopedEnv env("PIXWERK_REGISTRY", (dir / "file" / "registry.reg").string());
  EXPECT_EQ(quarnDllRegisterServer(), E_FAIL);
  const std::string message = ToUtf8(TakeErrorDescription());
  EXPECT_NE(message.find("registry file"), std::string::npos) << message;
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), {}), 1);
}

TEST(RegistrationErrors, CategoryDefinitionEntriesDefineTheirCategory) {
  test::TempDir dir;
  test::ScopedEnv env("PIXWERK_REGISTRY", (dir / "registry.reg").string());
  const CATID category = NamedId("TestCategory");
  const std::u16string longName(200, u'd');
  const ClassEntry entries[] = {
      {&category,
       longName.c_str(),
       nullptr,
       {&category, nullptr, nullptr, nullptr, nullptr},
       0,
       nullptr,
       0,
       1},
  };
  ASSERT_EQ(RegisterEntries(entries), S_OK);
  const reg::Hive hive = Load(dir / "registry.reg");
  const reg::Key* key = hive.Find(
      reg::SplitPath(u"HKEY_CLASSES_ROOT\\Component Categories\\" + GuidToU16String(category)));
  ASSERT_NE(key, nullptr);
  ASSERT_NE(key->FindValue(u"409"), nullptr);
  EXPECT_EQ(reg::ValueText(*key->FindValue(u"409")), longName.substr(0, 127));
  ASSERT_EQ(UnregisterEntries(entries), S_OK);
  EXPECT_EQ(Load(dir / "registry.reg")
                .Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\Component Categories\\" +
                                     GuidToU16String(category))),
            nullptr);
}

pid_t Spawn(const std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  EXPECT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ), 0);
  return pid;
}

TEST(RegistrationErrors, ProcessesRegisteringAtOnceLeaveAValidFile) {
  test::TempDir dir;
  const std::string shared = (dir / "shared.reg").string();
  std::vector<pid_t> children;
  for (int i = 0; i < 4; ++i) {
    const char* verb = i == 3 ? "unregister" : "register";
    children.push_back(Spawn({PIXWERK_CLI, verb, "--registry", shared}));
  }
  for (pid_t child : children) {
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  // Whichever order they ran in, the last change is a whole registration or a whole
  // removal; finishing with one more registration must equal a clean registration.
  ASSERT_EQ(waitpid(Spawn({PIXWERK_CLI, "register", "--registry", shared}), nullptr, 0) > 0, true);
  test::ScopedEnv env("PIXWERK_REGISTRY", (dir / "clean.reg").string());
  ASSERT_EQ(quarnDllRegisterServer(), S_OK);
  EXPECT_TRUE(Load(shared) == Load(dir / "clean.reg"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.Path()), {}),
            4);  // 2 files, 2 locks
}

}  // namespace
}  // namespace pw::server
