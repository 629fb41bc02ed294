#include <gtest/gtest.h>

#include <set>

#include "encoding/naming_engine.h"
#include "test_support.h"

namespace tarnbloom::encoding {
namespace {

NamingFacts facts(const std::string& source = "/photos/IMG_1.HEIC") {
  NamingFacts f;
  f.sourcePath = source;
  f.outputWidth = 4000;
  f.outputHeight = 3000;
  f.method = "exact";
  f.formatToken = "jpeg";
  f.index = 7;
  return f;
}

std::string errorOf(std::string_view templ) {
  try {
    NamingEngine::validateTemplate(templ);
  } catch (const NamingError& error) {
    return error.description();
  }
  return "";
}

TEST(NamingEngine, ValidatesTemplates) {
  EXPECT_EQ(errorOf("{source}_{w}x{h}"), "");
  EXPECT_EQ(errorOf("plain"), "");
  EXPECT_EQ(errorOf("{Source}"), "Unknown template token: {Source}");
  EXPECT_EQ(errorOf("{}"), "Unknown template token: {}");
  EXPECT_EQ(errorOf("{source"), "Malformed naming template.");
  EXPECT_EQ(errorOf("source}"), "Malformed naming template.");
  // Malformed wins over an unknown token earlier in the template.
  EXPECT_EQ(errorOf("{bad}{source"), "Malformed naming template.");
}

TEST(NamingEngine, RendersTokens) {
  NamingFacts f = facts();
  std::tm date{};
  date.tm_year = 2024 - 1900;
  date.tm_mon = 1;
  date.tm_mday = 9;
  f.exportDate = date;
  f.sku = "SKU-9";
  EXPECT_EQ(NamingEngine::firstCandidatePath("/out", "{source}_{w}x{h}", f),
            std::filesystem::path("/out/IMG_1_4000x3000.jpg"));
  EXPECT_EQ(NamingEngine::renderTemplate("{sku}-{method}-{format}-{date}-{index}-{scale}", f),
            "SKU-9-exact-jpg-20240209-7-");
  f.scaleFactor = 3.333;
  EXPECT_EQ(NamingEngine::renderTemplate("{scale}", f), "3.33x");
  f.scaleLabel = "big";
  EXPECT_EQ(NamingEngine::renderTemplate("{scale}", f), "big");
  f.exportDate.reset();
  EXPECT_EQ(NamingEngine::renderTemplate("{date}", f).size(), 8u);
  for (const auto& [factor, label] : std::vector<std::pair<double, std::string>>{
           {2.0, "2x"}, {1.5, "1.5x"}, {2.25, "2.25x"}, {3.333, "3.33x"}, {10.0, "10x"}})
    EXPECT_EQ(NamingEngine::scaleLabel(factor), label);
  f.formatToken = "bmp";
  try {
    NamingEngine::firstCandidatePath("/out", "{source}", f);
    ADD_FAILURE();
  } catch (const NamingError& error) {
    EXPECT_EQ(error.description(), "Unsupported output format: bmp");
  }
}

TEST(NamingEngine, NumbersTakenNamesAndSkipsTheSource) {
  std::set<std::filesystem::path> taken;
  const auto exists = [&](const std::filesystem::path& p) { return taken.contains(p); };
  NamingFacts f = facts("/photos/IMG_1.png");
  f.formatToken = "png";
  auto resolve = [&](std::string_view templ) {
    return NamingEngine::resolveOutputPath("/photos", templ, f, false, exists);
  };
  EXPECT_EQ(resolve("{source}_{n}"), "/photos/IMG_1_.png");
  taken.insert("/photos/IMG_1_.png");
  EXPECT_EQ(resolve("{source}_{n}"), "/photos/IMG_1_2.png");
  taken.insert("/photos/IMG_1_2.png");
  EXPECT_EQ(resolve("{source}_{n}"), "/photos/IMG_1_3.png");
  // The source path is taken even when the caller's predicate says free.
  EXPECT_EQ(resolve("{source}"), "/photos/IMG_1 2.png");

  // Creating the folder: a file in the way is reported, not replaced.
  testing::TempDir dir;
  testing::writeText(dir / "blocker", "x");
  EXPECT_THROW(NamingEngine::resolveOutputPath(dir / "blocker" / "sub", "{source}", f, true, exists),
               Error);
  EXPECT_EQ(NamingEngine::resolveOutputPath(dir / "new", "{source}", f, true, exists),
            dir / "new" / "IMG_1.png");
  EXPECT_TRUE(std::filesystem::is_directory(dir / "new"));
}

}  // namespace
}  // namespace tarnbloom::encoding
