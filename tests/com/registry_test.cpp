// The file-backed registry: .reg text, the registry functions, atomic writes.
#include <gtest/gtest.h>

#include <cstring>

#include "com/platform.h"
#include "com/registry_hive.h"
#include "tests/test_support.h"

namespace pw {
namespace {

using reg::Hive;

reg::Value Raw(std::u16string name, DWORD type, std::vector<std::uint8_t> data) {
  reg::Value v;
  v.name = std::move(name);
  v.type = type;
  v.data = std::move(data);
  return v;
}

TEST(RegistryHive, EveryValueKindSurvivesTheTextForm) {
  Hive hive;
  reg::Key& key = hive.Create(reg::SplitPath(u"HKEY_CLASSES_ROOT\\Odd \"keys\"\\Zürich"));
  const reg::Value values[] = {
      reg::StringValue(u"", u"default"),
      reg::StringValue(u"quote\"and\\slash", u"C:\\path \"quoted\""),
      reg::StringValue(u"unicode", u"Größe 東京"),
      reg::StringValue(u"empty", u""),
      reg::StringValue(u"newline", u"two\nlines"),  // not expressible in quotes
      Raw(u"padded", reg::kTypeString, {'F', 0, 'r', 0, 'e', 0, 'e', 0, 0, 0, 0, 0}),
      Raw(u"dword", reg::kTypeDword, {0x78, 0x56, 0x34, 0x12}),
      Raw(u"binary", reg::kTypeBinary, {0x00, 0xFF, 0x10}),
      Raw(u"qword", reg::kTypeQword, {1, 2, 3, 4, 5, 6, 7, 8}),
      Raw(u"nothing", reg::kTypeNone, {}),
  };
  for (const auto& v : values) key.SetValue(v);
  hive.Create(reg::SplitPath(u"HKEY_CURRENT_USER\\Software\\Empty"));

  const std::string text = hive.Format();
  Hive back;
  std::string error;
  ASSERT_TRUE(Hive::Parse(text, &back, &error)) << error << "\n" << text;
  EXPECT_TRUE(back == hive) << text;
  EXPECT_EQ(back.Format(), text);
  EXPECT_NE(text.find("\"dword\"=dword:12345678"), std::string::npos);
  EXPECT_NE(text.find("\"padded\"=hex(1):"), std::string::npos);
  EXPECT_NE(text.find("@=\"default\""), std::string::npos);
}

TEST(RegistryHive, KeyAndValueNamesIgnoreCase) {
  Hive hive;
  hive.Create(reg::SplitPath(u"HKEY_CLASSES_ROOT\\CLSID"))
      .SetValue(reg::StringValue(u"Name", u"a"));
  reg::Key* key = hive.Find(reg::SplitPath(u"hkey_classes_root\\clsid"));
  ASSERT_NE(key, nullptr);
  key->SetValue(reg::StringValue(u"NAME", u"b"));
  EXPECT_EQ(key->Values().size(), 1u);
  EXPECT_EQ(reg::ValueText(*key->FindValue(u"name")), u"b");
}

TEST(RegistryHive, ParseErrorsSayWhereAndWhy) {
  struct Case {
    const char* text;
    const char* where;
  } cases[] = {
      {"", "line 1"},
      {"REGEDIT5\n", "line 1"},
      {"Windows Registry Editor Version 5.00\n\n\"orphan\"=\"x\"\n", "line 3: value outside"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\\A\n", "line 2: key line"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT]\n\"v\"=\"open\n", "line 3"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT]\n\"v\"=dword:xyz\n", "line 3"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT]\n\"v\"=hex:0g\n", "line 3"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT]\n\"v\"=hex:00,\\\n", "line 3"},
      {"Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT]\n\"v\" \"x\"\n", "line 3"},
      {"Windows Registry Editor Version 5.00\n[]\n", "line 2: empty key"},
  };
  for (const auto& c : cases) {
    Hive hive;
    std::string error;
    EXPECT_FALSE(Hive::Parse(c.text, &hive, &error)) << c.text;
    EXPECT_NE(error.find(c.where), std::string::npos) << error;
  }
}

TEST(RegistryHive, DeletionLinesAndContinuationsAreRead) {
  const char* text =
      "Windows Registry Editor Version 5.00\r\n"
      "; a comment\r\n"
      "[HKEY_CLASSES_ROOT\\Keep]\r\n"
      "\"gone\"=\"x\"\r\n"
      "\"bytes\"=hex:01,02,\\\r\n"
      "  03\r\n"
      "\"gone\"=-\r\n"
      "[HKEY_CLASSES_ROOT\\Drop]\r\n"
      "[-HKEY_CLASSES_ROOT\\Drop]\r\n";
  Hive hive;
  std::string error;
  ASSERT_TRUE(Hive::Parse(text, &hive, &error)) << error;
  const reg::Key* keep = hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\Keep"));
  ASSERT_NE(keep, nullptr);
  EXPECT_EQ(keep->FindValue(u"gone"), nullptr);
  EXPECT_EQ(keep->FindValue(u"bytes")->data, (std::vector<std::uint8_t>{1, 2, 3}));
  EXPECT_EQ(hive.Find(reg::SplitPath(u"HKEY_CLASSES_ROOT\\Drop")), nullptr);
}

class RegistryFile : public ::testing::Test {
 protected:
  test::TempDir dir_;
  std::filesystem::path file_ = dir_ / "registry.reg";
  test::ScopedEnv env_{"PIXWERK_REGISTRY", file_.string()};
};

TEST_F(RegistryFile, KeysAndValuesPersistBetweenCalls) {
  RegKey key;
  DWORD disposition = 0;
  ASSERT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", 0, nullptr, REG_OPTION_NON_VOLATILE,
                            KEY_READ | KEY_WRITE, nullptr, key.Out(), &disposition),
            ERROR_SUCCESS);
  EXPECT_EQ(disposition, REG_CREATED_NEW_KEY);
  ASSERT_EQ(RegSetString(key.Get(), u"", u"value"), ERROR_SUCCESS);
  const DWORD number = 7;
  ASSERT_EQ(
      RegSetValueExW(key.Get(), u"Count", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4),
      ERROR_SUCCESS);
  EXPECT_EQ(RegCreateKeyExW(HKEY_CLASSES_ROOT, u"a\\b", 0, nullptr, 0, KEY_READ, nullptr, key.Out(),
                            &disposition),
            ERROR_SUCCESS);
  EXPECT_EQ(disposition, REG_OPENED_EXISTING_KEY);

  std::u16string text;
  ASSERT_TRUE(RegReadString(HKEY_CLASSES_ROOT, u"A\\B\\C", u"", &text));
  EXPECT_EQ(text, u"value");
  RegKey open;
  ASSERT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"A\\B\\C", 0, KEY_READ, open.Out()), ERROR_SUCCESS);
  DWORD type = 0, size = 0;
  ASSERT_EQ(RegQueryValueExW(open.Get(), u"Count", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
  EXPECT_EQ(type, REG_DWORD);
  EXPECT_EQ(size, 4u);
  BYTE small[2];
  size = 2;
  EXPECT_EQ(RegQueryValueExW(open.Get(), u"Count", nullptr, &type, small, &size), ERROR_MORE_DATA);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(RegQueryValueExW(open.Get(), u"Absent", nullptr, &type, nullptr, &size),
            ERROR_FILE_NOT_FOUND);
  EXPECT_NE(test::ReadFile(file_).find("[HKEY_CLASSES_ROOT\\A\\B\\C]"), std::string::npos);
}

TEST_F(RegistryFile, DeletionRemovesWholeTreesOrRefusesParents) {
  RegKey key;
  ASSERT_EQ(RegCreateKey(HKEY_CLASSES_ROOT, u"Top\\Mid\\Leaf", &key), ERROR_SUCCESS);
  EXPECT_EQ(RegDeleteKeyW(HKEY_CLASSES_ROOT, u"Top"), ERROR_ACCESS_DENIED);
  EXPECT_EQ(RegDeleteKeyW(HKEY_CLASSES_ROOT, u"Top\\Mid\\Leaf"), ERROR_SUCCESS);
  EXPECT_EQ(RegSetString(key.Get(), u"", u"x"), ERROR_KEY_DELETED);
  EXPECT_EQ(RegDeleteTreeW(HKEY_CLASSES_ROOT, u"Top"), ERROR_SUCCESS);
  RegKey gone;
  EXPECT_EQ(RegOpenKeyExW(HKEY_CLASSES_ROOT, u"Top", 0, KEY_READ, gone.Out()),
            ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(RegDeleteTreeW(HKEY_CLASSES_ROOT, u"Top"), ERROR_FILE_NOT_FOUND);
}

TEST_F(RegistryFile, TransactionsWriteOnceOnCommitAndNothingOtherwise) {
  {
    RegistryTransaction tx;
    ASSERT_EQ(tx.Begin(), ERROR_SUCCESS);
    RegKey key;
    ASSERT_EQ(RegCreateKey(HKEY_CLASSES_ROOT, u"Pending", &key), ERROR_SUCCESS);
    EXPECT_FALSE(std::filesystem::exists(file_));  // nothing written before the commit
    std::u16string text;
    ASSERT_EQ(RegSetString(key.Get(), u"", u"seen"), ERROR_SUCCESS);
    EXPECT_TRUE(RegReadString(HKEY_CLASSES_ROOT, u"Pending", u"", &text));  // reads see it
  }                                                                         // abandoned
  EXPECT_FALSE(std::filesystem::exists(file_));
  RegistryTransaction tx;
  ASSERT_EQ(tx.Begin(), ERROR_SUCCESS);
  RegKey key;
  ASSERT_EQ(RegCreateKey(HKEY_CLASSES_ROOT, u"Kept", &key), ERROR_SUCCESS);
  ASSERT_EQ(tx.Commit(), ERROR_SUCCESS);
  EXPECT_NE(test::ReadFile(file_).find("[HKEY_CLASSES_ROOT\\Kept]"), std::string::npos);
}

TEST_F(RegistryFile, CorruptFilesAreReportedAndNeverOverwritten) {
  const std::string corrupt = "Windows Registry Editor Version 5.00\n[HKEY_CLASSES_ROOT\n";
  test::WriteFile(file_, corrupt);
  RegKey key;
  EXPECT_EQ(RegCreateKey(HKEY_CLASSES_ROOT, u"New", &key), ERROR_BADDB);
  const std::string why = RegistryLastError();
  EXPECT_NE(why.find(file_.string()), std::string::npos) << why;
  EXPECT_NE(why.find("line 2"), std::string::npos) << why;
  EXPECT_EQ(test::ReadFile(file_), corrupt);
}

TEST(RegistryFileErrors, UnwritableLocationsFailWithTheReason) {
  test::TempDir dir;
  test::WriteFile(dir / "plain-file", "x");
  const std::filesystem::path places[] = {dir / "plain-file" / "registry.reg",  // parent is a file
                                          dir / "missing" / "registry.reg",
                                          dir.Path()};  // a folder, not a file
  for (const auto& place : places) {
    test::ScopedEnv env("PIXWERK_REGISTRY", place.string());
    RegKey key;
    EXPECT_NE(RegCreateKey(HKEY_CLASSES_ROOT, u"Anything", &key), ERROR_SUCCESS) << place;
    EXPECT_NE(RegistryLastError().find("registry file"), std::string::npos) << RegistryLastError();
  }
  EXPECT_EQ(test::ReadFile(dir / "plain-file"), "x");
}

TEST(RegistryFileErrors, TheDefaultLocationIsUnderTheUsersDataFolder) {
  test::TempDir dir;
  test::ScopedEnv registry("PIXWERK_REGISTRY", "");
  test::ScopedEnv data("XDG_DATA_HOME", dir.Path().string());
  EXPECT_EQ(RegistryFilePath(), dir / "pixwerk" / "registry.reg");
  RegKey key;
  ASSERT_EQ(RegCreateKey(HKEY_CLASSES_ROOT, u"Made", &key), ERROR_SUCCESS);
  EXPECT_TRUE(std::filesystem::exists(dir / "pixwerk" / "registry.reg"));
}

}  // namespace
}  // namespace pw
