#include "recipes/recipe.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "encoding/naming_engine.h"
#include "support/files.h"
#include "support/utf8.h"
#include "test_support.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using testing::readBytes;
using testing::TempDir;
using testing::writeText;

std::span<const std::byte> bytesOf(const std::string& text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

const json kValid = json::parse(R"({
  "schema": "com.tarnbloom.recipe", "version": 1, "id": "R1", "name": "Shop",
  "created": "2026-01-31T09:15:00Z",
  "outputs": [{
    "method": "exact",
    "dimensions": {"mode": "long_edge", "value": 3000},
    "format": "jpeg", "quality": {"value": 85, "floor": 60},
    "colour": {"profile_policy": "srgb", "flatten_colour": "white"},
    "metadata": {"icc": "keep", "exif": "strip", "xmp": "keep", "gps": "strip"},
    "naming": {"template": "{source}_{w}x{h}", "destination": null}
  }]
})");

// The valid document with a merge patch applied to it, or to its only output.
json patched(const std::string& patch, bool toOutput = false) {
  json document = kValid;
  (toOutput ? document["outputs"][0] : document).merge_patch(json::parse(patch));
  return document;
}

// The description of the error reading gives, or "" when the text reads.
std::string failureOf(const std::string& text, const AvailableMethods& methods = allMethods()) {
  try {
    Recipe::decode(bytesOf(text), methods);
    return "";
  } catch (const RecipeError& error) {
    return error.description();
  }
}

TEST(RecipeDocument, ReadsEverySettingDropsAnnotationsAndWritesBackTheSame) {
  json document = patched(R"({"annotations": {"note": "for the shop", "deep": [[1]]}})");
  document["outputs"][0]["annotations"] = "anything";
  document["outputs"].push_back(patched(R"({
    "method": "estimate", "model": {"name": "Real-ESRGAN", "version": "v3"},
    "estimate_strength": 0.1, "format": "webp", "quality": {"mode": "lossless", "effort": 6},
    "dimensions": {"mode": "bounding_box", "width": 1200, "height": 800},
    "canvas": {"mode": "crop", "width": 1000, "height": 1000,
               "fill": {"kind": "colour", "value": "#a0B0c0"},
               "crop_rect": {"x": 0, "y": 10, "w": 500, "h": 600}},
    "naming": {"destination": "/Volumes/Shop/out"}})",
                                        true)["outputs"][0]);

  const auto recipe = Recipe::decode(bytesOf(document.dump()), allMethods());
  ASSERT_EQ(recipe.outputs.size(), 2u);
  const auto& out = recipe.outputs[1];
  EXPECT_EQ(out.estimateStrength, 0.1);
  EXPECT_EQ(out.dimensions.width, 1200);
  EXPECT_EQ(out.quality->effort, 6);
  const canvas::Canvas canvas = out.canvas->toCanvas();
  EXPECT_EQ(canvas.mode, canvas::CanvasMode::crop);
  EXPECT_EQ(canvas.cropRect, (canvas::CropRect{0, 10, 500, 600}));
  EXPECT_EQ(Recipe::Canvas::from(canvas), *out.canvas);

  const std::string text = Recipe::encode(recipe);
  EXPECT_EQ(Recipe::decode(bytesOf(text), allMethods()), recipe);
  EXPECT_EQ(text.find("annotations"), std::string::npos);
  EXPECT_NE(text.find("\"/Volumes/Shop/out\""), std::string::npos) << "slashes stay unescaped";
  EXPECT_NE(text.find("\n  \"created\""), std::string::npos) << "pretty-printed";
  const json written = json::parse(text);
  const json& exact = written["outputs"][0];
  EXPECT_TRUE(exact.at("model").is_null() && exact.at("canvas").is_null());
  EXPECT_TRUE(exact.at("naming").at("destination").is_null());
  EXPECT_FALSE(exact.contains("estimate_strength"));
  // Every object's keys in ascending order as written, at every level.
  const std::function<void(const nlohmann::ordered_json&)> expectSorted =
      [&](const nlohmann::ordered_json& value) {
        if (!value.is_structured()) return;
        std::string previous;
        for (const auto& [key, child] : value.items()) {
          if (value.is_object()) {
            EXPECT_LT(previous, key);
          }
          previous = key;
          expectSorted(child);
        }
      };
  expectSorted(nlohmann::ordered_json::parse(text));
}

TEST(RecipeDocument, ReportsTheFirstUnknownKeyBySortedPathBeforeAnythingElse) {
  json twoOutputs = kValid;
  twoOutputs["outputs"].push_back(
      patched(R"({"quality": {"zeta": 1, "alpha": 1}})", true)["outputs"][0]);
  const std::vector<std::pair<json, std::string>> cases = {
      {patched(R"({"zzz": 1, "tags": ["a"]})"), "tags"},
      {twoOutputs, "outputs[1].quality.alpha"},
      {patched(R"({"canvas": {"mode": "exact", "width": 1, "height": 1, "bleed": 3}})", true),
       "outputs[0].canvas.bleed"},
      {patched(R"({"canvas": {"fill": {"kind": "x", "a": 1}, "crop_rect": {"q": 1}}})", true),
       "outputs[0].canvas.fill.a"},
      // Annotations are allowed only at the top and in an output.
      {patched(R"({"naming": {"annotations": "x"}})", true), "outputs[0].naming.annotations"},
      // A newer file's key is what gets reported, not the version or the
      // section of the wrong type that come with it.
      {patched(R"({"version": 2, "outputs": [{"dimensions": "big", "metadata": {"c2pa": 1}}]})"),
       "outputs[0].metadata.c2pa"},
  };
  for (const auto& [document, path] : cases) {
    EXPECT_EQ(failureOf(document.dump()), RecipeError::unknownField(path).description()) << path;
    EXPECT_THROW(Recipe::assertNoUnknownFields(bytesOf(document.dump())), RecipeError);
  }
  EXPECT_EQ(RecipeError::unknownField("outputs[0].canvas.bleed").description(),
            "This recipe sets outputs[0].canvas.bleed, which this version of Tarnbloom does not "
            "understand. Opening it here would quietly drop that setting, so it is not opened. "
            "Its file is unchanged.");
  // Annotation contents are never looked at; a non-object is left to the reader.
  EXPECT_EQ(failureOf(patched(R"({"annotations": {"bleed": {"deep": 1}}})").dump()), "");
  EXPECT_NO_THROW(Recipe::assertNoUnknownFields(bytesOf("[1, {\"x\": 2}]")));
}

TEST(RecipeDocument, ReportsTheFirstBrokenRuleInOrder) {
  const std::string model = R"("method": "estimate", "model": {"name": "m", "version": "1"})";
  const std::string canvas = R"("canvas": {"mode": "exact", "width": 9, "height": 9, )";
  const std::string crop = R"("canvas": {"mode": "crop", "width": 9, "height": 9, "crop_rect": )";
  const std::string unknownToken = [] {
    try {
      encoding::NamingEngine::validateTemplate("{bogus}");
    } catch (const Error& error) {
      return error.description();
    }
    return std::string("{bogus} was accepted");
  }();
  struct Case {
    bool toOutput;
    std::string patch;
    std::string reason;  // "" when the document reads
  };
  const std::vector<Case> cases = {
      {false, R"({"version": 2})", "unsupported recipe version"},
      {false, R"({"schema": "com.other.recipe"})", "unsupported recipe version"},
      {false, R"({"outputs": []})", "required recipe fields are missing"},
      {true, R"({"method": "lanczos"})", "unknown method lanczos"},
      // The format comes before the method's rules.
      {true, R"({"format": "gif", "model": {"name": "m", "version": "1"}})",
       "unknown output format"},
      {true, R"({"model": {"name": "m", "version": "1"}})", "non-AI method has model metadata"},
      {true, R"({"method": "clarity", "estimate_strength": 0.5})",
       "non-AI method has estimate_strength"},
      {true, R"({"method": "estimate"})", "Estimate requires a model name and version"},
      {true, "{" + model + R"(, "estimate_strength": 0.09})",
       "estimate_strength must be a number from 0.10 to 1.00"},
      {true, "{" + model + R"(, "estimate_strength": 1.0})", ""},
      {true, R"({"dimensions": {"mode": "width", "value": 0}})", "invalid dimensions"},
      {true, R"({"dimensions": {"mode": "diagonal"}})", "invalid dimensions"},
      {true, R"({"dimensions": {"mode": "width", "value": 1e300}})",
       "dimension value is out of the representable range"},
      {true, R"({"dimensions": {"mode": "percent", "value": 150.5}})", ""},
      {true, R"({"dimensions": {"mode": "bounding_box", "value": null, "width": 10}})",
       "invalid bounding box"},
      {true, R"({"canvas": {"mode": "exact", "width": 0, "height": 5}})", "invalid canvas"},
      {true, R"({"canvas": {"mode": "crop", "width": 5, "height": 5}})",
       "crop canvas requires crop_rect"},
      {true, "{" + canvas + R"("crop_rect": {"x": 0, "y": 0, "w": 1, "h": 1}}})",
       "crop_rect is only valid for crop canvas"},
      // Size before origin.
      {true, "{" + crop + R"({"x": -1, "y": 0, "w": 0, "h": 4}}})",
       "crop_rect width and height must be greater than 0"},
      {true, "{" + crop + R"({"x": -1, "y": 0, "w": 4, "h": 4}}})",
       "crop_rect origin must not be negative"},
      {true, "{" + canvas + R"("fill": {"kind": "transparent", "value": "#000000"}}})",
       "transparent fill cannot have a value"},
      {true, "{" + canvas + R"("fill": {"kind": "colour", "value": "#FFF"}}})",
       "colour fill requires #RRGGBB"},
      {true, "{" + canvas + R"("fill": {"kind": "pattern"}}})", "invalid canvas fill"},
      {true, "{" + canvas + R"("fill": {"kind": "transparent"}}})",
       "JPEG canvas cannot be transparent"},
      {true, R"({"quality": null})", "quality is required for jpeg"},
      {true, R"({"quality": {"floor": null}})", "invalid JPEG quality"},
      {true, R"({"quality": {"floor": 90}})", "invalid JPEG quality"},
      {true, R"({"quality": {"subsampling": "4:2:2", "max_bytes": 0}})",
       "subsampling must be 4:4:4, 4:2:0 or absent"},
      {true, R"({"quality": {"max_bytes": 0}})", "max_bytes must be greater than 0"},
      {true, R"({"format": "png", "quality": {"value": null, "floor": null}})",
       "quality is not valid for png"},
      {true, R"({"format": "webp", "quality": {"mode": "lossy", "value": 101}})",
       "invalid WebP quality"},
      {true, R"({"colour": {"flatten_colour": "#ffffff"}})", ""},
      {true, R"({"colour": {"flatten_colour": "black"}})", "invalid colour policy"},
      {true, R"({"metadata": {"gps": "maybe"}})", "invalid metadata policy"},
      {true, R"({"naming": {"template": ""}})", "missing naming template"},
      {true, R"({"naming": {"template": "{bogus}"}})", unknownToken},
      {true, R"({"naming": {"destination": ""}})", "destination must be null or a path"},
  };
  for (const auto& c : cases) {
    const std::string expected =
        c.reason.empty() ? "" : RecipeError::invalid(c.reason).description();
    EXPECT_EQ(failureOf(patched(c.patch, c.toOutput).dump()), expected) << c.patch;
  }
  // Only the first failing output is reported.
  json two = kValid;
  two["outputs"].push_back(patched(R"({"format": "gif"})", true)["outputs"][0]);
  two["outputs"].push_back(patched(R"({"method": "x"})", true)["outputs"][0]);
  EXPECT_EQ(failureOf(two.dump()), "This recipe is invalid: unknown output format");
}

TEST(RecipeDocument, RefusesAMethodThisComputerCannotRunInsteadOfSubstituting) {
  json document = kValid;
  document["outputs"].push_back(patched(
      R"({"method": "estimate", "model": {"name": "m", "version": "1"}})", true)["outputs"][0]);
  EXPECT_EQ(failureOf(document.dump(), {"exact", "clarity"}),
            "This recipe needs the unavailable estimate step. It will not be substituted.");
  EXPECT_EQ(failureOf(document.dump()), "");
  document["outputs"][1]["method"] = "magic";
  EXPECT_EQ(failureOf(document.dump(), {"exact"}), "This recipe is invalid: unknown method magic");
}

TEST(RecipeDocument, RefusesHostileJsonWithAClearMessage) {
  const std::string valid = kValid.dump();
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = valid;
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  const std::vector<std::tuple<const char*, std::string, std::string>> cases = {
      {"a million open brackets", std::string(1'000'000, '['), "nests deeper than 64 levels"},
      {"deep annotations",
       replaced("\"created\"",
                "\"annotations\":" + std::string(70, '[') + std::string(70, ']') + ",\"created\""),
       "nests deeper than 64 levels"},
      {"a second name after the first", replaced("\"id\"", "\"name\":\"Other\",\"id\""),
       "the key “name” twice"},
      {"a second method in an output",
       replaced("\"method\":\"exact\"", "\"method\":\"exact\",\"method\":\"estimate\""),
       "the key “method” twice"},
      {"Latin-1 bytes in a string", replaced("Shop", "Caf\xe9"), "UTF-8"},
      {"a lone surrogate escape", replaced("Shop", "\\ud800"), "surrogate"},
      {"an integer past 64 bits", replaced("\"floor\":60", "\"floor\":9223372036854775808"),
       "The number at outputs[0].quality.floor does not fit a 64-bit integer."},
      {"a 30-digit integer", replaced("\"floor\":60", "\"floor\":-123456789012345678901234567890"),
       "does not fit a 64-bit integer"},
      {"a number beyond a double", replaced("\"floor\":60", "\"floor\":1e400"), "number overflow"},
      {"a fraction for an integer", replaced("\"floor\":60", "\"floor\":60.5"),
       "Expected an integer at outputs[0].quality.floor, found a number with a fraction."},
      {"a string version", replaced("\"version\":1", "\"version\":\"1\""),
       "Expected an integer at version, found a string."},
      {"a missing section",
       replaced("\"colour\":{\"flatten_colour\":\"white\",\"profile_policy\":\"srgb\"},", ""),
       "The required key outputs[0].colour is missing."},
      {"null for a required string", replaced("\"format\":\"jpeg\"", "\"format\":null"),
       "Expected a string at outputs[0].format, found null."},
      {"an output that is a string", replaced("\"outputs\":[", "\"outputs\":[\"x\","),
       "Expected an object at outputs[0], found a string."},
      {"a top-level array", "[" + valid + "]",
       "Expected an object at the top level, found an array."},
      {"not JSON", "name = Shop", "[json.exception.parse_error.101]"},
      {"two documents", valid + valid, "parse error"},
  };
  for (const auto& [fault, text, expected] : cases) {
    const std::string description = failureOf(text);
    EXPECT_NE(description.find(expected), std::string::npos)
        << fault << ": got “" << description << "”";
    EXPECT_TRUE(isValidUtf8(description)) << fault << ": messages reach windows and JSON";
  }
  EXPECT_EQ(failureOf(replaced("\"floor\":60", "\"floor\":60.0")), "")
      << "an integral number reads as the integer it is";
}

TEST(RecipeFile, RefusesLinksDevicesAndHugeFilesAndLeavesThemAsTheyAre) {
  TempDir dir;
  const fs::path real = dir / "real.tarnbloomrecipe";
  writeText(real, kValid.dump());
  EXPECT_EQ(Recipe::load(real, allMethods()).name, "Shop");
  const auto before = readBytes(real);
  const auto failureAt = [](const fs::path& path) {
    try {
      Recipe::load(path, allMethods());
      return std::string("read");
    } catch (const Error& error) {
      return error.description();
    }
  };

  const fs::path link = dir / "link.tarnbloomrecipe";
  fs::create_symlink(real, link);
  EXPECT_EQ(failureAt(link),
            "“link.tarnbloomrecipe” is a symbolic link. Recipes are read only from the file "
            "itself, so it was not opened.");
  EXPECT_FALSE(Recipe::peekName(link).has_value());

  // A sparse gigabyte: refused from its size, without reading it.
  const fs::path huge = dir / "huge.tarnbloomrecipe";
  fs::copy_file(real, huge);
  fs::resize_file(huge, uint64_t{1} << 30);
  EXPECT_EQ(failureAt(huge),
            "“huge.tarnbloomrecipe” is larger than 1 MB, too large to be a recipe. It was not "
            "read.");

  // A FIFO would hold a plain open until someone writes to it.
  const fs::path fifo = dir / "fifo.tarnbloomrecipe";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  EXPECT_THROW(Recipe::load(fifo, allMethods()), FileError);
  EXPECT_EQ(failureAt(dir / "missing.tarnbloomrecipe"),
            FileError("missing.tarnbloomrecipe", "open", ENOENT).description())
      << "the system's own reason is passed on";

  EXPECT_EQ(readBytes(real), before);
  EXPECT_EQ(fs::file_size(huge), uint64_t{1} << 30);
}

}  // namespace
}  // namespace tarnbloom::recipes
