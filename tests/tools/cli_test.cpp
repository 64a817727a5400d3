// The pixwerk command line: output and exit status.
#include <gtest/gtest.h>

#include <gdal.h>
#include <gdal_alg.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "tests/test_support.h"

namespace {

using pw::test::RunCli;
using Result = pw::test::CliResult;

TEST(Cli, ListsTheFunctionsOfThisBuildAndEveryAdvertisedOne) {
  Result r = RunCli("functions");
  EXPECT_EQ(r.status, 0);
  for (const char* expected :
       {"IdentityFunction", "SlopeFunction", "Slope Function", "14 functions in this build"})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
  EXPECT_EQ(r.out.find("ContinuumRemovalFunction"), std::string::npos);  // not in this build
  r = RunCli("functions --all");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("ContinuumRemovalFunction"), std::string::npos);
  EXPECT_NE(r.out.find("(not in this build)"), std::string::npos);
  EXPECT_NE(r.out.find("IdentityFunction"), std::string::npos);
}

TEST(Cli, DescribesAFunctionsArgumentsByAnyName) {
  for (const char* name : {"SlopeFunction", "slope", "quarnDataSourcesRaster.SlopeFunction"}) {
    const Result r = RunCli(std::string("functions ") + name);
    EXPECT_EQ(r.status, 0) << name;
    for (const char* expected : {"SlopeFunction (Slope Function)", "DEM", "required", "ZFactor",
                                 "default 1", "one of 1 (degrees)"})
      EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
  }
  Result r = RunCli("functions hillshade --markdown");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("| \"Altitude\" | a number | 45 | -90 to 90 |"), std::string::npos) << r.out;
  r = RunCli("functions slpoe");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("did you mean 'SlopeFunction'"), std::string::npos) << r.out;
}

TEST(Cli, VersionHelpAndBadUsage) {
  Result r = RunCli("--version");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("pixwerk 0.", 0), 0u) << r.out;
  EXPECT_NE(r.out.find("GDAL 3."), std::string::npos) << r.out;
  for (const char* help : {"help", "--help", "-h"}) {
    r = RunCli(help);
    EXPECT_EQ(r.status, 0) << help;
    EXPECT_NE(r.out.find("run         bind a chain"), std::string::npos) << help;
  }
  for (const char* help : {"help run", "run --help", "run x.json -h", "info --help",
                           "functions --help", "register --help"}) {
    r = RunCli(help);
    EXPECT_EQ(r.status, 0) << help;
    EXPECT_EQ(r.out.rfind("usage: pixwerk ", 0), 0u) << help << ": " << r.out;
  }
  const char* cases[] = {"",
                         "frobnicate",
                         "functions a b",
                         "register --registry",
                         "register --verbose",
                         "help frobnicate",
                         "info a.json --frob"};
  for (const char* args : cases) {
    r = RunCli(args);
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
  r = RunCli("info " + Path("chain.json") + " --json");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("\"PixelType\": \"F32\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"WKID\": 32633"), std::string::npos) << r.out;
  r = RunCli("info " + Path("image.tif"));  // a raster describes itself
  EXPECT_EQ(r.status, 0) << r.out;
  for (const char* expected : {"size: 64 x 64 cells of", "reference: EPSG:32633",
                               "blocks: ", "bands: 4 of U16", "band 3 \"Red\": no-data 0"})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
}

TEST_F(CliRun, InfoShowsAChainsTreeWithGivenAndDefaultArguments) {
  pw::test::WriteFile(dir_ / "tree.json", R"({"function": "composite", "arguments": {"Rasters": [
      "dem.tif", {"function": "Slope", "arguments": {"DEM": "${DEM}", "ZFactor": "${Z}"},
                  "name": "steepness"}]}})");
  const Result r = RunCli("info " + Path("tree.json") + " --set DEM=dem.tif --set Z=2");
  EXPECT_EQ(r.status, 0) << r.out;
  for (const char* expected :
       {"CompositeBandFunction\n  Rasters = [\n    \"dem.tif\"\n    SlopeFunction \"steepness\"",
        "      DEM = \"dem.tif\"\n      ZFactor = 2\n      SlopeType = 1 (default)",
        // The slope has no no-data value and the DEM's -9999 could be a slope: both bands take
        // NaN, which no valid cell of either holds.
        "output\nsize: 64 x 64", "band 1 \"Elevation\": no-data nan",
        "band 2 \"Slope\": no-data nan"})
    EXPECT_NE(r.out.find(expected), std::string::npos) << expected << "\n" << r.out;
}

TEST_F(CliRun, GdalConventionsAndPlaceholders) {
  pw::test::WriteFile(dir_ / "z.json", R"({"function": "SlopeFunction",
      "arguments": {"DEM": "${FOLDER}/dem.tif", "ZFactor": "${Z}"}, "name": "slope ${Z}"})");
  // A positional output, -of in any case, -co and -q.
  Result r =
      RunCli("run " + Path("z.json") + " " + Path("out.tif") + " -of cog -co COMPRESS=LZW -q" +
             " --set FOLDER=" + dir_.Path().string() + " --set Z=3");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "");
  GDALAllRegister();
  GDALDatasetH ds = GDALOpen(Path("out.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  EXPECT_STREQ(GDALGetMetadataItem(ds, "LAYOUT", "IMAGE_STRUCTURE"), "COG");
  EXPECT_STREQ(GDALGetMetadataItem(ds, "COMPRESSION", "IMAGE_STRUCTURE"), "LZW");
  EXPECT_STREQ(GDALGetMetadataItem(ds, "PIXWERK_CHAIN_NAME", nullptr), "slope 3");
  GDALClose(ds);
  // A placeholder without a value, an output GDAL would write in another format.
  r = RunCli("run " + Path("z.json") + " " + Path("x.tif") +
             " --set FOLDER=" + dir_.Path().string());
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("uses ${Z} and no value was given for it (--set Z=VALUE)"),
            std::string::npos)
      << r.out;
  for (const char* name : {"x.vrt", "x.bmp", "x"}) {
    r = RunCli("run " + Path("chain.json") + " " + Path(name));
    EXPECT_EQ(r.status, 2) << name;
    EXPECT_NE(r.out.find(".tif, .tiff, .png or .jpg"), std::string::npos) << r.out;
  }
  // GDAL's own warnings reach standard error.
  r = RunCli("run " + Path("chain.json") + " " + Path("w.tif") + " -q -co NO_SUCH_OPTION=1");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("NO_SUCH_OPTION"), std::string::npos) << r.out;
}

TEST_F(CliRun, ProgressRunsThroughTheWholeExportWhenNotOnATerminal) {
  for (const char* format : {"GTiff", "COG"}) {
    const Result r = RunCli("run " + Path("chain.json") + " " + Path("p.tif") + " -of " + format);
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_NE(r.out.find("0...10...20...30...40...50...60...70...80...90...100 - done."),
              std::string::npos)
        << format << ": " << r.out;
  }
}

TEST_F(CliRun, OutputsThatAreNotRegularFilesAreRefusedAndNeverReplaced) {
  namespace fs = std::filesystem;
  fs::create_directory(dir_ / "folder.tif");
  ASSERT_EQ(mkfifo((dir_ / "fifo.tif").c_str(), 0600), 0);
  fs::create_symlink(dir_ / "folder.tif", dir_ / "to-folder.tif");
  fs::create_symlink(dir_ / "fifo.tif", dir_ / "to-fifo.tif");
  fs::create_symlink(dir_ / "target.tif", dir_ / "to-file.tif");
  for (const char* name : {"folder.tif", "fifo.tif", "to-folder.tif", "to-fifo.tif"}) {
    const Result r = RunCli("run " + Path("chain.json") + " " + Path(name) + " -q");
    EXPECT_EQ(r.status, 1) << name << ": " << r.out;
    EXPECT_NE(r.out.find("give the path of a file to write"), std::string::npos) << r.out;
  }
  EXPECT_TRUE(fs::is_directory(dir_ / "folder.tif"));
  EXPECT_TRUE(fs::is_fifo(dir_ / "fifo.tif"));
  EXPECT_TRUE(fs::is_symlink(dir_ / "to-folder.tif") && fs::is_symlink(dir_ / "to-fifo.tif"));
  // A link to a file (even one not written yet) is followed: the link stays a link.
  const Result r = RunCli("run " + Path("chain.json") + " " + Path("to-file.tif") + " -q");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(fs::is_symlink(dir_ / "to-file.tif"));
  EXPECT_TRUE(fs::is_regular_file(dir_ / "target.tif"));
}

TEST_F(CliRun, ChainErrorsSayWhereAndWhy) {
  const struct {
    const char* chain;
    const char* says;
  } cases[] = {
      {"{\"function\": \"SlopeFunction\",\n \"arguments\": {\"DEM\": \"dem.tif\",}}",
       "not well-formed JSON at line 2, column 33"},
      {R"({"function": "SlopeFunction", "arguments": {"DEM": "dem.tif", "ZFactr": 2}})",
       "SlopeFunction: unknown argument \"ZFactr\" (did you mean \"ZFactor\"?)"},
      {R"({"function": "SlopeFunction", "arguments": {"DEM": "dem.tif"}, "pixeltype": 3})",
       "unknown chain member \"pixeltype\" (did you mean \"pixelType\"?)"},
      {R"({"function": "ArithmeticFunction", "arguments": {"Raster": "dem.tif", "Raster2": 2,
           "Operation": "sqrt"}})",
       "argument \"Operation\" must be one of 1 (plus, +, add)"},
      {R"({"function": "StatisticsFunction", "arguments": {"Raster": "dem.tif",
           "StatisticsType": "majorty"}})",
       "; given \"majorty\" (did you mean \"Majority\"?)"},
      {R"({"function": "CompositeBandFunction", "arguments": {"Rasters": ["dem.tif",
           {"function": "Hillshade", "arguments": {"DEM": "dem.tif", "Altitude": 120}}]}})",
       "CompositeBandFunction argument \"Rasters[1]\": HillshadeFunction: argument \"Altitude\" "
       "must be from -90 to 90; given 120"},
  };
  for (const auto& c : cases) {
    pw::test::WriteFile(dir_ / "bad.json", c.chain);
    const Result r = RunCli("info " + Path("bad.json"));
    EXPECT_EQ(r.status, 1) << c.chain;
    EXPECT_NE(r.out.find(c.says), std::string::npos) << c.says << "\n" << r.out;
  }
  Result r = RunCli("info " + Path("absent.json"));
  EXPECT_NE(r.out.find("absent.json': it does not exist"), std::string::npos) << r.out;
  r = RunCli("info " + dir_.Path().string() + ".json");
  EXPECT_EQ(r.status, 1);
}

TEST_F(CliRun, AChainTenThousandDeepIsRefusedWithoutACrash) {
  std::string chain = R"("dem.tif")";
  for (int i = 0; i < 10000; ++i)
    chain = R"({"function": "IdentityFunction", "arguments": {"Raster": )" + chain + "}}";
  pw::test::WriteFile(dir_ / "deep.json", chain);
  for (const char* command : {"info ", "run "}) {
    const Result r = RunCli(command + Path("deep.json") +
                            (std::string(command) == "run " ? " " + Path("d.tif") : ""));
    EXPECT_EQ(r.status, 1) << r.out;
    EXPECT_NE(r.out.find("nest more than 256 deep"), std::string::npos) << r.out;
  }
  // Within the JSON limit, the chain's own limit speaks.
  chain = R"("dem.tif")";
  for (int i = 0; i < 70; ++i)
    chain = R"({"function": "IdentityFunction", "arguments": {"Raster": )" + chain + "}}";
  pw::test::WriteFile(dir_ / "deep.json", chain);
  const Result r = RunCli("info " + Path("deep.json"));
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("nests more than 64 functions deep"), std::string::npos) << r.out;
}

TEST_F(CliRun, AnInterruptedRunExitsWith130AndWritesNothing) {
  pw::test::WriteFile(dir_ / "big.json", R"({"function": "ConstantFunction", "arguments": {
      "Constant": 1, "RasterInfo": {"Extent": {"XMin": 0, "YMin": 0, "XMax": 30000, "YMax": 30000},
      "PixelSizeX": 1, "PixelSizeY": 1, "BandCount": 1, "PixelType": "U8"}}})");
  const std::string chain = Path("big.json"), output = Path("big.tif");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    execl(PIXWERK_CLI, PIXWERK_CLI, "run", chain.c_str(), output.c_str(), "-co", "COMPRESS=DEFLATE",
          "--threads", "1", static_cast<char*>(nullptr));
    _exit(127);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  kill(child, SIGINT);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 130);
  EXPECT_FALSE(std::filesystem::exists(output));
  for (const auto& entry : std::filesystem::directory_iterator(dir_.Path()))
    EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
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

// --- the export's own robustness ------------------------------------------------------------

// A DEM big enough that exporting its slope takes a while: SIZE x SIZE float cells in tiles,
// compressed, and a slope chain over it.
class CliLargeRun : public CliRun {
 protected:
  void SetUp() override {
    CliRun::SetUp();
    GDALAllRegister();
    const char* options[] = {"TILED=YES", "COMPRESS=DEFLATE", nullptr};
    GDALDatasetH ds = GDALCreate(GDALGetDriverByName("GTiff"), Path("large.tif").c_str(), kSize,
                                 kSize, 1, GDT_Float32, const_cast<char**>(options));
    ASSERT_NE(ds, nullptr);
    double t[6] = {500000, 30, 0, 4600000, 0, -30};
    GDALSetGeoTransform(ds, t);
    std::vector<float> row(kSize);
    for (int r = 0; r < kSize; ++r) {
      for (int c = 0; c < kSize; ++c)
        row[c] = static_cast<float>(500 + 200 * std::sin(c * 0.01) * std::cos(r * 0.013) +
                                    ((c * 7919 + r * 104729) % 97) * 0.1);
      ASSERT_EQ(GDALRasterIO(GDALGetRasterBand(ds, 1), GF_Write, 0, r, kSize, 1, row.data(), kSize,
                             1, GDT_Float32, 0, 0),
                CE_None);
    }
    GDALClose(ds);
    pw::test::WriteFile(dir_ / "slope.json",
                        R"({"function": "SlopeFunction", "arguments": {"DEM": "large.tif"},
                            "name": "slope of the large DEM"})");
  }
  static constexpr int kSize = 3000;

  // The hidden files in the folder (temporaries and locks).
  std::vector<std::string> Hidden(const std::filesystem::path& folder) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
      if (entry.path().filename().string()[0] == '.') names.push_back(entry.path().filename());
    return names;
  }
};

TEST_F(CliLargeRun, TemporariesOfAKilledRunAreRemovedByTheNextExport) {
  const std::filesystem::path out = dir_ / "out";
  std::filesystem::create_directory(out);
  const std::string output = (out / "slope.tif").string(), chain = Path("slope.json");
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    execl(PIXWERK_CLI, PIXWERK_CLI, "run", chain.c_str(), "-o", output.c_str(), "--quiet",
          "--threads", "1", "--co", "COMPRESS=DEFLATE", "--co", "ZLEVEL=9",
          static_cast<char*>(nullptr));
    _exit(127);
  }
  // Killed once its temporary holds data.
  bool writing = false;
  for (int i = 0; i < 20000 && !writing; ++i) {
    for (const std::string& name : Hidden(out))
      if (name.size() > 4 && name.substr(name.size() - 4) == ".tif" &&
          std::filesystem::file_size(out / name) > 0)
        writing = true;
    if (!writing) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  kill(child, SIGKILL);
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(writing) << "the export ended before it could be killed";
  EXPECT_FALSE(Hidden(out).empty());
  EXPECT_FALSE(std::filesystem::exists(output));
  const Result r = RunCli("run " + Path("chain.json") + " -o " + (out / "other.tif").string());
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_TRUE(Hidden(out).empty()) << Hidden(out).front();
}

// A file system of a given size, made for one command in a mount namespace of its own.
// Returns the command's output with its exit status and what the folder held afterwards, or
// nothing when this machine cannot make one.
std::optional<std::string> OnSmallDisk(const std::filesystem::path& folder, long kilobytes,
                                       const std::string& command) {
  if (std::system("unshare -rm true > /dev/null 2>&1") != 0) return std::nullopt;
  std::filesystem::create_directories(folder);
  const std::string script = "mount -t tmpfs -o size=" + std::to_string(kilobytes) + "k tmpfs '" +
                             folder.string() + "' && { " + command +
                             "; echo \"status=\\$?\"; ls -A '" + folder.string() + "'; }";
  const std::string shell = "unshare -rm sh -c \"" + script + "\" 2>&1";
  FILE* pipe = popen(shell.c_str(), "r");
  std::string out;
  char buffer[4096];
  std::size_t n = 0;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) out.append(buffer, n);
  pclose(pipe);
  return out;
}

TEST_F(CliLargeRun, AFullDiskIsNamedAndACogThatFitsItsDiskIsWritten) {
  const std::string cli = std::string(PIXWERK_CLI) + " run " + Path("slope.json");
  const std::filesystem::path small = dir_ / "small";
  const struct {
    const char* options;
    const char* says;
  } cases[] = {
      {"", "needs 36000000 bytes"},  // known before the first cell: uncompressed
      {" --co COMPRESS=DEFLATE", "no space left on the device"},
      {" --format COG", "no space left on the device"},
  };
  for (const auto& c : cases) {
    const auto out =
        OnSmallDisk(small, 2048, cli + " -o " + (small / "out.tif").string() + c.options);
    if (!out) GTEST_SKIP() << "this machine cannot mount a file system of a given size";
    EXPECT_NE(out->find("status=1"), std::string::npos) << *out;
    EXPECT_NE(out->find(c.says), std::string::npos) << *out;
    EXPECT_NE(out->find((small / "out.tif").string()), std::string::npos) << *out;
    EXPECT_EQ(out->substr(out->find("status=1")), "status=1\n") << "files were left: " << *out;
  }
  // A COG needs room for itself (and its overviews while it is made), not for a copy more.
  Result r =
      RunCli("run " + Path("slope.json") + " -o " + Path("cog.tif") + " --format COG --quiet");
  ASSERT_EQ(r.status, 0) << r.out;
  const long size = static_cast<long>(std::filesystem::file_size(Path("cog.tif")));
  const auto out =
      OnSmallDisk(small, size * 13 / 10 / 1024,
                  cli + " -o " + (small / "out.tif").string() + " --format COG --quiet");
  ASSERT_TRUE(out);
  EXPECT_EQ(*out, "status=0\nout.tif\n");
}

TEST_F(CliLargeRun, ExportsOfOneChainAreByteIdenticalUnderLoad) {
  // Other threads keep the machine busy and a small block cache makes GDAL evict blocks while
  // the export writes.
  std::atomic<bool> stop{false};
  std::vector<std::thread> load;
  for (int i = 0; i < 3; ++i)
    load.emplace_back([&] {
      std::atomic<unsigned long> spin{0};
      while (!stop) spin.fetch_add(1, std::memory_order_relaxed);
    });
  pw::test::ScopedEnv cache("GDAL_CACHEMAX", "1");
  std::string bytes[2];
  for (const char* format : {"GTiff", "COG"}) {
    for (int i = 0; i < 2; ++i) {
      const std::string out = Path("same" + std::to_string(i) + ".tif");
      const Result r = RunCli("run " + Path("slope.json") + " -o " + out + " --quiet --format " +
                              format + " --co COMPRESS=DEFLATE");
      ASSERT_EQ(r.status, 0) << r.out;
      bytes[i] = pw::test::ReadFile(out);
    }
    EXPECT_TRUE(bytes[0] == bytes[1]) << format;
  }
  stop = true;
  for (auto& t : load) t.join();
}

TEST_F(CliRun, AChainOfManyInputsKeepsItsOpenFilesBoundedAndStoresBandsApart) {
  // Sixty inputs read by two workers would hold three times as many files as a limit of 64
  // allows, were open handles not bounded.
  constexpr int kInputs = 60;
  std::string rasters;
  for (int i = 0; i < kInputs; ++i) {
    const std::string copy = "dem" + std::to_string(i) + ".tif";
    std::filesystem::copy_file(Path("dem.tif"), Path(copy));
    rasters += (i == 0 ? "\"" : ", \"") + copy + "\"";
  }
  pw::test::WriteFile(
      dir_ / "stack.json",
      R"({"function": "CompositeBandFunction", "arguments": {"Rasters": [)" + rasters + "]}}");
  Result r = RunCli("run " + Path("stack.json") + " -o " + Path("stack.tif") + " --threads 2 -q",
                    "ulimit -n 64 && ");
  ASSERT_EQ(r.status, 0) << r.out;
  GDALAllRegister();
  GDALDatasetH stack = GDALOpen(Path("stack.tif").c_str(), GA_ReadOnly);
  GDALDatasetH dem = GDALOpen(Path("dem.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(stack, nullptr);
  ASSERT_NE(dem, nullptr);
  EXPECT_EQ(GDALGetRasterCount(stack), kInputs);
  // More than four bands are stored band after band unless -co INTERLEAVE says otherwise.
  EXPECT_STREQ(GDALGetMetadataItem(stack, "INTERLEAVE", "IMAGE_STRUCTURE"), "BAND");
  for (int band : {1, kInputs}) {
    const int a = GDALChecksumImage(GDALGetRasterBand(stack, band), 0, 0, 64, 64);
    const int b = GDALChecksumImage(GDALGetRasterBand(dem, 1), 0, 0, 64, 64);
    EXPECT_EQ(a, b) << "band " << band;
  }
  GDALClose(stack);
  GDALClose(dem);
  r = RunCli("run " + Path("stack.json") + " -o " + Path("pixel.tif") +
             " -q -co INTERLEAVE=PIXEL --cache 64");
  ASSERT_EQ(r.status, 0) << r.out;
  GDALDatasetH pixel = GDALOpen(Path("pixel.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(pixel, nullptr);
  EXPECT_STREQ(GDALGetMetadataItem(pixel, "INTERLEAVE", "IMAGE_STRUCTURE"), "PIXEL");
  GDALClose(pixel);
  for (const char* bad : {"--cache", "--cache 0", "--cache 12x"}) {
    r = RunCli("run " + Path("stack.json") + " -o " + Path("bad.tif") + " " + bad);
    EXPECT_EQ(r.status, 2) << bad;
    EXPECT_NE(r.out.find("--cache needs a size in MB"), std::string::npos) << r.out;
  }
}

TEST_F(CliRun, NoDataAndMaskOptionsChooseHowInvalidCellsAreWritten) {
  pw::test::WriteFile(dir_ / "identity.json",
                      R"({"function": "IdentityFunction", "arguments": {"Raster": "dem.tif"},
                          "name": "the DEM"})");
  Result r = RunCli("run " + Path("identity.json") + " -o " + Path("v.tif") + " --nodata -1");
  ASSERT_EQ(r.status, 0) << r.out;
  GDALAllRegister();
  GDALDatasetH ds = GDALOpen(Path("v.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  int has = 0;
  EXPECT_EQ(GDALGetRasterNoDataValue(GDALGetRasterBand(ds, 1), &has), -1);
  EXPECT_TRUE(has);
  EXPECT_STREQ(GDALGetMetadataItem(ds, "PIXWERK_CHAIN_NAME", nullptr), "the DEM");
  const char* chain = GDALGetMetadataItem(ds, "PIXWERK_CHAIN", nullptr);
  ASSERT_NE(chain, nullptr);
  EXPECT_NE(std::string(chain).find("\"IdentityFunction\""), std::string::npos) << chain;
  GDALClose(ds);
  r = RunCli("run " + Path("identity.json") + " -o " + Path("m.tif") + " --mask");
  ASSERT_EQ(r.status, 0) << r.out;
  ds = GDALOpen(Path("m.tif").c_str(), GA_ReadOnly);
  ASSERT_NE(ds, nullptr);
  GDALGetRasterNoDataValue(GDALGetRasterBand(ds, 1), &has);
  EXPECT_FALSE(has);
  EXPECT_EQ(GDALGetMaskFlags(GDALGetRasterBand(ds, 1)), GMF_PER_DATASET);
  GDALClose(ds);
  // The sample DEM holds values near 500: a no-data value among them is refused.
  r = RunCli("run " + Path("identity.json") + " -o " + Path("x.tif") + " --nodata 1e40");
  EXPECT_EQ(r.status, 1) << r.out;
  EXPECT_NE(r.out.find("cannot be held by a F32 band"), std::string::npos) << r.out;
  for (const char* bad : {"--nodata", "--nodata x", "--nodata 1 --mask", "--mask --nodata 1"}) {
    r = RunCli("run " + Path("identity.json") + " -o " + Path("x.tif") + " " + bad);
    EXPECT_EQ(r.status, 2) << bad << ": " << r.out;
  }
  EXPECT_FALSE(std::filesystem::exists(Path("x.tif")));
}

}  // namespace

namespace {

// The bands of a picture file as GDAL reads them: bands x height x width bytes.
struct PictureFile {
  int width = 0, height = 0, bands = 0;
  std::vector<std::uint8_t> v;
  std::uint8_t At(int band, int column, int row) const {
    return v[static_cast<std::size_t>((band * height + row) * width + column)];
  }
};

PictureFile ReadPicture(const std::string& path) {
  PictureFile p;
  GDALDatasetH ds = GDALOpen(path.c_str(), GA_ReadOnly);
  if (ds == nullptr) return p;
  p.width = GDALGetRasterXSize(ds);
  p.height = GDALGetRasterYSize(ds);
  p.bands = GDALGetRasterCount(ds);
  p.v.resize(static_cast<std::size_t>(p.width * p.height * p.bands));
  if (GDALDatasetRasterIO(ds, GF_Read, 0, 0, p.width, p.height, p.v.data(), p.width, p.height,
                          GDT_Byte, p.bands, nullptr, 0, 0, 0) != CE_None)
    p.bands = 0;
  GDALClose(ds);
  return p;
}

}  // namespace

TEST_F(CliRun, QuicklooksShowTheChainInGreyOrColourWithTheLakeTransparent) {
  GDALAllRegister();
  // The sample DEM (64 x 64) has a no-data lake.
  Result r = RunCli("run " + Path("chain.json") + " " + Path("dem.png") + " --size 32");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_NE(r.out.find("(32 x 32 pixels)"), std::string::npos) << r.out;
  const PictureFile dem = ReadPicture(Path("dem.png"));
  ASSERT_EQ(dem.bands, 4);
  ASSERT_EQ(dem.width, 32);
  int transparent = 0, dark = 0, bright = 0;
  for (int row = 0; row < dem.height; ++row)
    for (int column = 0; column < dem.width; ++column) {
      const int a = dem.At(3, column, row), g = dem.At(0, column, row);
      EXPECT_TRUE(a == 0 || a == 255);
      if (a == 0) {
        ++transparent;
        continue;
      }
      EXPECT_EQ(dem.At(1, column, row), g);  // grey
      EXPECT_EQ(dem.At(2, column, row), g);
      dark += g<16, bright += g> 239;
    }
  EXPECT_GT(transparent, 0);  // the lake
  EXPECT_GT(dark, 0);         // stretched across the scale
  EXPECT_GT(bright, 0);
  // The image's first three bands as RGB, in a JPEG (no transparency), and a ramp.
  const std::string image =
      "{\"function\": \"IdentityFunction\", \"arguments\": {\"Raster\": \"image.tif\"}}";
  { std::ofstream(Path("image.json")) << image; }
  r = RunCli("run " + Path("image.json") + " -o " + Path("image.jpg") + " --quiet");
  ASSERT_EQ(r.status, 0) << r.out;
  const PictureFile rgb = ReadPicture(Path("image.jpg"));
  EXPECT_EQ(rgb.bands, 3);
  EXPECT_EQ(rgb.width, 64);
  r = RunCli("run " + Path("chain.json") + " " + Path("terrain.png") + " --ramp terrain -q");
  ASSERT_EQ(r.status, 0) << r.out;
  const PictureFile terrain = ReadPicture(Path("terrain.png"));
  bool coloured = false;
  for (int column = 0; column < terrain.width; ++column)
    coloured |= terrain.At(0, column, 10) != terrain.At(1, column, 10);
  EXPECT_TRUE(coloured);
}

TEST_F(CliRun, QuicklookOptionsAreCheckedAgainstTheOutput) {
  const std::string chain = Path("chain.json");
  const struct {
    std::string args, message;
  } cases[] = {
      {chain + " " + Path("a.png") + " --size 0", "--size needs a number of pixels"},
      {chain + " " + Path("a.png") + " --size big", "not 'big'"},
      {chain + " " + Path("a.png") + " --ramp rainbow", "grey, terrain, viridis, spectral"},
      {chain + " " + Path("a.png") + " -co COMPRESS=DEFLATE", "not to the quicklook"},
      {chain + " " + Path("a.tif") + " --size 100", "apply to .png and .jpg quicklooks"},
      {chain + " " + Path("a.bmp"), ".png or .jpg"},
  };
  for (const auto& c : cases) {
    const Result r = RunCli("run " + c.args);
    EXPECT_EQ(r.status, 2) << c.args;
    EXPECT_NE(r.out.find(c.message), std::string::npos) << c.args << ": " << r.out;
  }
}
