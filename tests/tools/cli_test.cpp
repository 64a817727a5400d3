// The pixwerk command line: output and exit status.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cstdio>

#include "tests/test_support.h"

namespace {

struct Result {
  int status;
  std::string out;  // standard output and standard error together
};

Result RunCli(const std::string& arguments) {
  const std::string command = std::string(PIXWERK_CLI) + " " + arguments + " 2>&1";
  Result r{-1, {}};
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return r;
  char buffer[4096];
  std::size_t n = 0;
  while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) r.out.append(buffer, n);
  const int status = pclose(pipe);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

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

}  // namespace
