// The argument tables of docs/functions.md are the functions' declarations: each section
// between "<!-- arguments: NAME -->" and "<!-- end of arguments -->" must read as the table
// the declaration gives. With PIXWERK_UPDATE_DOCS set, the test writes them instead.
#include <gtest/gtest.h>

#include <cstdlib>

#include "framework/argument_declarations.h"
#include "tests/test_support.h"

namespace pw::framework {
namespace {

constexpr std::string_view kEnd = "<!-- end of arguments -->";

TEST(DocsTables, FunctionsMdShowsEveryDeclarationAsItIs) {
  const std::filesystem::path file =
      std::filesystem::path(PIXWERK_SOURCE_DIR) / "docs/functions.md";
  std::string text = test::ReadFile(file);
  ASSERT_FALSE(text.empty()) << file;
  const bool update = std::getenv("PIXWERK_UPDATE_DOCS") != nullptr;
  for (const FunctionDeclaration* decl : FunctionDeclarations()) {
    const std::string start = "<!-- arguments: " + std::string(decl->function) + " -->\n";
    const auto open = text.find(start);
    ASSERT_NE(open, std::string::npos) << decl->function << " has no table in " << file;
    const auto body = open + start.size();
    const auto close = text.find(kEnd, body);
    ASSERT_NE(close, std::string::npos) << decl->function;
    const std::string expected = ArgumentsTable(*decl);
    if (update) {
      text.replace(body, close - body, expected);
    } else {
      EXPECT_EQ(text.substr(body, close - body), expected)
          << "docs/functions.md differs from the declaration of " << decl->function
          << " (PIXWERK_UPDATE_DOCS=1 ctest -R DocsTables rewrites it)";
    }
  }
  if (update) test::WriteFile(file, text);
}

}  // namespace
}  // namespace pw::framework
