// The pixwerk command line: output and exit status.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "tests/test_support.h"

namespace {

using pw::test::RunCli;
using Result = pw::test::CliResult;

TEST(Cli, ListsTheAdvertisedFunctionsWithDisplayNames) {
  const Result r = RunCli("functions");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("SlopeFunction"), std::string::npos);
  EXPECT_NE(r.out.find("Slope Function"), std::string::npos);
  EXPECT_NE(r.out.find("ContinuumRemovalFunction"), std::string::npos);
  EXPECT_EQ(r.out.find("IdentityFunction"), std::string::npos);  // not advertised
  EXPECT_NE(r.out.find("89 raster functions advertised"), std::string::npos);
}

TEST(Cli, BadUsageExitsWithTwo) {
  const char* cases[] = {"", "frobnicate", "functions extra", "register --registry",
                         "register --verbose"};
  for (const char* args : cases) {
    const Result r = RunCli(args);
    EXPECT_EQ(r.status, 2) << args;
    EXPECT_NE(r.out.find("usage: pixwerk"), std::string::npos) << args;
  }
}

TEST(Cli, RegistersAndUnregistersIntoTheGivenFile) {
  pw::test::TempDir dir;
  const std::string file = (dir / "registry.reg").string();
  Result r = RunCli("register --registry " + file);
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("Registered 293 class entries in " + file), std::string::npos) << r.out;
  r = RunCli("unregister --registry " + file);
  EXPECT_EQ(r.status, 0) << r.out;
}

TEST(Cli, FailuresExitWithOneAndOneLineSayingWhy) {
  pw::test::TempDir dir;
  pw::test::WriteFile(dir / "corrupt.reg", "not a registry\n");
  const Result r = RunCli("register --registry " + (dir / "corrupt.reg").string());
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("pixwerk: registration failed:"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("corrupt"), std::string::npos) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
}

// A small generated sample: dem.tif, image.tif and chain.json.
class CliRun : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string command =
        std::string(PIXWERK_SAMPLE) + " " + dir_.Path().string() + " 64 > /dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }
  std::string Path(const std::string& name) const { return (dir_ / name).string(); }
  pw::test::TempDir dir_;
};

TEST_F(CliRun, RunsTheSampleChainAndDescribesIt) {
  Result r = RunCli("run " + Path("chain.json") + " -o " + Path("out.tif") + " --threads 2");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("wrote " + Path("out.tif") + " (64 x 64, 1 band, F32)"), std::string::npos)
      << r.out;
  EXPECT_TRUE(std::filesystem::exists(Path("out.tif")));
  r = RunCli("run " + Path("chain.json") + " -o " + Path("out.cog.tif") + " --format COG --quiet");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "");
  r = RunCli("info " + Path("chain.json"));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\"PixelType\": \"F32\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"WKID\": 32633"), std::string::npos) << r.out;
  r = RunCli("info " + Path("image.tif"));  // a raster describes itself
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\"BandCount\": 4"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"PixelType\": \"U16\""), std::string::npos) << r.out;
}

TEST_F(CliRun, FailuresSayWhyOnOneLineAndLeaveNoOutput) {
  pw::test::WriteFile(dir_ / "broken.json", "{ \"function\": ");
  pw::test::WriteFile(dir_ / "unknown.json", R"({ "function": "NoSuchFunction" })");
  pw::test::WriteFile(dir_ / "kind.json",
                      R"({ "function": "IdentityFunction", "arguments": { "Raster": 1 } })");
  pw::test::WriteFile(
      dir_ / "missing.json",
      R"({ "function": "IdentityFunction", "arguments": { "Raster": "nowhere.tif" } })");
  pw::test::WriteFile(dir_ / "text.tif", "not a raster");
  pw::test::WriteFile(
      dir_ / "text.json",
      R"({ "function": "IdentityFunction", "arguments": { "Raster": "text.tif" } })");
  const struct {
    std::string chain, output, expected;
  } cases[] = {
      {Path("absent.json"), Path("out.tif"), "absent.json"},
      {Path("broken.json"), Path("out.tif"), "not well-formed JSON"},
      {Path("unknown.json"), Path("out.tif"), "unknown function 'NoSuchFunction'"},
      {Path("kind.json"), Path("out.tif"), "Raster"},
      {Path("missing.json"), Path("out.tif"), "nowhere.tif"},
      {Path("text.json"), Path("out.tif"), "text.tif"},
      {Path("chain.json"), Path("no/such/folder/out.tif"), "no/such/folder' does not exist"},
  };
  for (const auto& c : cases) {
    const Result r = RunCli("run " + c.chain + " -o " + c.output);
    EXPECT_EQ(r.status, 1) << c.chain << ": " << r.out;
    EXPECT_EQ(r.out.rfind("pixwerk: ", 0), 0u) << r.out;
    EXPECT_NE(r.out.find(c.expected), std::string::npos) << r.out;
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 1) << r.out;
    EXPECT_FALSE(std::filesystem::exists(c.output)) << c.output;
  }
  const char* usage[] = {"run",
                         "run x.json",
                         "run x.json -o",
                         "run x.json -o y.tif --format PNG",
                         "run x.json -o y.tif --threads 0",
                         "run x.json -o y.tif --co NOEQUALS",
                         "info"};
  for (const char* args : usage) EXPECT_EQ(RunCli(args).status, 2) << args;
}

}  // namespace
