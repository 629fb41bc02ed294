#include "recipes/recipe_store.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "support/files.h"
#include "support/uuid.h"
#include "test_support.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;
using encoding::ExportFormat;
using testing::readBytes;
using testing::TempDir;
using testing::writeText;

RecipeDraft draftNamed(const std::string& id, const std::string& name,
                       ResampleMethod method = ResampleMethod::exact) {
  RecipeDraft draft;
  draft.id = id;
  draft.name = name;
  RecipeOutputDraft output;
  output.method = method;
  if (method == ResampleMethod::estimate)
    output.model = RecipeOutputDraft::installedEstimateModel();
  draft.outputs.push_back(output);
  return draft;
}

// Sets a file's own modification time (a link's, not its target's).
void setModified(const fs::path& path, time_t seconds) {
  const timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

TEST(RecipeStore, ListsEveryRecipeFileNewestFirstAndNeverRewritesBrokenOnes) {
  TempDir home;
  const RecipeStore store(home / "State" / "Recipes");
  const fs::path folder = store.directory();
  EXPECT_TRUE(fs::is_directory(folder));

  store.save(draftNamed("old", "Oldest"));
  store.save(draftNamed("new", "Newest"));
  // A recipe from a newer version: listed under its own name, unusable.
  nlohmann::json tagged =
      nlohmann::json::parse(Recipe::encode(draftNamed("t", "Tagged").toDocument()));
  tagged["tags"] = {"print"};
  writeText(folder / "tagged.tarnbloomrecipe", tagged.dump());
  writeText(folder / "garbage.tarnbloomrecipe", "this is not JSON");
  fs::create_symlink(folder / "old.tarnbloomrecipe", folder / "link.tarnbloomrecipe");
  writeText(folder / "notes.txt", "not a recipe");
  fs::create_directory(folder / "folder.tarnbloomrecipe");

  setModified(folder / "old.tarnbloomrecipe", 1'000);
  setModified(folder / "garbage.tarnbloomrecipe", 2'000);
  setModified(folder / "tagged.tarnbloomrecipe", 3'000);
  setModified(folder / "link.tarnbloomrecipe", 3'000);
  setModified(folder / "new.tarnbloomrecipe", 4'000);
  const auto taggedBytes = readBytes(folder / "tagged.tarnbloomrecipe");
  const auto garbageBytes = readBytes(folder / "garbage.tarnbloomrecipe");

  const auto entries = store.entries(allMethods());
  ASSERT_EQ(entries.size(), 5u) << "the text file and the folder are not recipes";
  EXPECT_EQ(entries.front().name, "Newest");
  EXPECT_EQ(entries.back().name, "Oldest");
  EXPECT_EQ(entries[3].name, "garbage") << "no name to peek: the file name stands in";

  for (const auto& entry : entries) {
    EXPECT_EQ(entry.isUsable(), !entry.refusal.has_value()) << entry.name;
    if (entry.url.filename() == "tagged.tarnbloomrecipe") {
      EXPECT_EQ(entry.name, "Tagged");
      EXPECT_EQ(entry.refusal, RecipeError::unknownField("tags").description());
      EXPECT_EQ(entry.id(), entry.url.string());
    }
    if (entry.url.filename() == "link.tarnbloomrecipe") {
      EXPECT_EQ(entry.name, "link");
      EXPECT_NE(entry.refusal->find("symbolic link"), std::string::npos);
    }
  }
  EXPECT_EQ(readBytes(folder / "tagged.tarnbloomrecipe"), taggedBytes);
  EXPECT_EQ(readBytes(folder / "garbage.tarnbloomrecipe"), garbageBytes);

  const auto drafts = store.all(allMethods());
  ASSERT_EQ(drafts.size(), 2u);
  EXPECT_EQ(drafts[0].id, "new");
  EXPECT_EQ(drafts[1].id, "old");

  // A broken file is removed by the file it was listed from.
  store.remove(entries[3]);
  EXPECT_FALSE(fs::exists(folder / "garbage.tarnbloomrecipe"));
  store.remove("old");
  EXPECT_TRUE(fs::exists(folder / "new.tarnbloomrecipe"));
  EXPECT_FALSE(fs::exists(folder / "old.tarnbloomrecipe"));
  EXPECT_THROW(store.remove("old"), FileError);
}

TEST(RecipeStore, KeepsARecipeThisComputerCannotRunAndSaysWhy) {
  TempDir home;
  const RecipeStore store(home / "Recipes");
  const RecipeDraft saved = store.save(draftNamed("ai", "Enhance 4x", ResampleMethod::estimate));
  EXPECT_FALSE(saved.created.empty());

  const std::string unavailable =
      "This recipe needs the unavailable estimate step. It will not be substituted.";
  const auto entries = store.entries({"exact", "clarity"});
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_FALSE(entries[0].isUsable());
  EXPECT_EQ(entries[0].name, "Enhance 4x");
  EXPECT_EQ(entries[0].refusal, unavailable);
  try {
    RecipeStore::find(entries, "ai");
    ADD_FAILURE();
  } catch (const RecipeLookupError& error) {
    EXPECT_EQ(error.description(), unavailable);
  }
  EXPECT_EQ(RecipeStore::find(store.entries(allMethods()), "ai").draft->created, saved.created);
}

TEST(RecipeStore, ImportsUnderAFreshIdEachTimeAndOnlyReadsTheChosenFile) {
  TempDir home;
  const RecipeStore store(home / "Recipes");
  const fs::path shared = home / "shared.tarnbloomrecipe";
  RecipeStore::exportFile(draftNamed("theirs", "Catalogue"), shared);
  const auto sharedBytes = readBytes(shared);

  const RecipeDraft first = store.importFile(shared, allMethods());
  const RecipeDraft second = store.importFile(shared, allMethods());
  EXPECT_NE(first.id, second.id);
  EXPECT_TRUE(isUuid(first.id) && first.id.find_first_of("abcdef") == std::string::npos);
  EXPECT_EQ(first.name, "Catalogue");
  EXPECT_EQ(store.entries(allMethods()).size(), 2u);
  EXPECT_EQ(readBytes(shared), sharedBytes);

  // Refusals save nothing and leave the shared file as it came.
  const fs::path newer = home / "newer.tarnbloomrecipe";
  auto json = nlohmann::json::parse(Recipe::encode(draftNamed("x", "Newer").toDocument()));
  json["outputs"][0]["bleed"] = 3;
  writeText(newer, json.dump());
  const auto newerBytes = readBytes(newer);
  const fs::path ai = home / "ai.tarnbloomrecipe";
  RecipeStore::exportFile(draftNamed("ai", "AI", ResampleMethod::estimate), ai);
  EXPECT_THROW(store.importFile(newer, allMethods()), RecipeError);
  EXPECT_THROW(store.importFile(ai, {"exact"}), RecipeError);
  EXPECT_EQ(store.entries(allMethods()).size(), 2u);
  EXPECT_EQ(readBytes(newer), newerBytes);
  EXPECT_EQ(testing::filesIn(store.directory()).size(), 2u) << "no temporary file left behind";
}

TEST(RecipeStore, RefusesIdsThatWouldNameAFileOutsideTheLibrary) {
  TempDir home;
  const RecipeStore store(home / "Recipes");
  writeText(home / "keep.tarnbloomrecipe", "precious");
  for (const std::string& id :
       std::vector<std::string>{"../keep", "a/b", ".", "..", std::string("a\0b", 3)}) {
    try {
      store.save(draftNamed(id, "Escape"));
      ADD_FAILURE() << "saved under " << id;
    } catch (const RecipeError& error) {
      EXPECT_EQ(error.description(),
                "This recipe is invalid: its id cannot be used as a file name");
    }
    EXPECT_THROW(store.remove(id), RecipeError) << id;
  }
  EXPECT_EQ(readBytes(home / "keep.tarnbloomrecipe").size(), 8u);
  EXPECT_TRUE(testing::filesIn(store.directory()).empty());

  // A draft that fails the recipe check writes nothing either.
  RecipeDraft bad = draftNamed("bad", "Bad");
  bad.outputs[0].namingTemplate = "{bogus}";
  EXPECT_THROW(store.save(bad), RecipeError);
  bad.outputs[0].format = ExportFormat::heic;
  bad.outputs[0].namingTemplate = "{source}";
  EXPECT_THROW(store.save(bad), RecipeError) << "recipes write four formats only";
  EXPECT_TRUE(testing::filesIn(store.directory()).empty());
}

TEST(RecipeStore, FindsByIdBeforeNameAndRefusesAmbiguousNames) {
  TempDir home;
  const RecipeStore store(home / "Recipes");
  store.save(draftNamed("P1", "Portraits"));
  store.save(draftNamed("P2", "Portraits"));
  store.save(draftNamed("Shop", "Web shop"));
  store.save(draftNamed("S2", "Shop"));
  writeText(store.directory() / "broken.tarnbloomrecipe", "{");
  const auto entries = store.entries(allMethods());

  const auto described = [&](const std::string& key) {
    try {
      return "found " + RecipeStore::find(entries, key).draft->id;
    } catch (const RecipeLookupError& error) {
      return error.description();
    }
  };
  EXPECT_EQ(described("Portraits"), "More than one recipe is named “Portraits”; use its id.");
  EXPECT_EQ(described("P2"), "found P2");
  EXPECT_EQ(described("Shop"), "found Shop") << "an id wins over another recipe's name";
  EXPECT_EQ(described("Web shop"), "found Shop");
  EXPECT_EQ(described("portraits"), "No saved recipe has the id or name “portraits”.");
  EXPECT_NE(described("broken").find("parse error"), std::string::npos)
      << "an unusable match gives its refusal";
}

TEST(RecipeOutputDraft, MapsRecipeSettingsOntoExportOptionsAndBack) {
  const auto outputWith = [](const std::string& dimensions, const std::string& extra) {
    const std::string text = R"({"schema":"com.tarnbloom.recipe","version":1,"id":"i","name":"n",
      "created":"2026-01-31T09:15:00Z","outputs":[{"method":"estimate",
      "model":{"name":"m","version":"v"},"dimensions":)" +
                             dimensions + R"(,"format":"jpeg",
      "quality":{"value":88,"floor":50,"subsampling":"4:4:4","max_bytes":500000},
      "colour":{"profile_policy":"keep","flatten_colour":"#ffffff"},
      "metadata":{"icc":"keep","exif":"strip","xmp":"keep","gps":"keep"},
      "naming":{"template":"{source}","destination":"/out"})" +
                             extra + "}]}";
    return Recipe::decode(std::as_bytes(std::span(text)), allMethods()).outputs.at(0);
  };
  struct Case {
    std::string dimensions;
    SizeMode mode;
    double value;
  };
  for (const auto& c : std::vector<Case>{
           {R"({"mode":"scale_factor","value":2})", SizeMode::x2, 0},
           {R"({"mode":"scale_factor","value":8})", SizeMode::x8, 0},
           {R"({"mode":"scale_factor","value":3})", SizeMode::percent, 300},
           {R"({"mode":"scale_factor","value":1.5})", SizeMode::percent, 150},
           {R"({"mode":"long_edge","value":3000})", SizeMode::longEdge, 3000},
           {R"({"mode":"percent","value":150.5})", SizeMode::percent, 150.5},
       }) {
    const auto options = RecipeOutputDraft::from(outputWith(c.dimensions, "")).exportOptions();
    EXPECT_EQ(options.sizeMode, c.mode) << c.dimensions;
    EXPECT_DOUBLE_EQ(options.sizeValue, c.value) << c.dimensions;
  }

  const auto output = outputWith(
      R"({"mode":"bounding_box","width":1200,"height":800})",
      R"(,"canvas":{"mode":"exact","width":1300,"height":900,"fill":{"kind":"colour","value":"#102030"}})");
  const RecipeOutputDraft draft = RecipeOutputDraft::from(output);
  const auto options = draft.exportOptions();
  EXPECT_EQ(options.sizeMode, SizeMode::boundingBox);
  EXPECT_EQ(options.boxWidth, 1200);
  EXPECT_EQ(options.method, ResampleMethod::estimate);
  EXPECT_EQ(options.estimateStrength, 0.5) << "absent: the estimate's default";
  EXPECT_EQ(options.jpeg.quality, 88);
  EXPECT_EQ(options.jpeg.subsampling, encoding::JPEGSubsampling::s444);
  EXPECT_EQ(options.jpeg.maxBytes, 500000);
  EXPECT_EQ(options.colourPolicy.gps, encoding::MetadataToggle::keep);
  EXPECT_EQ(options.canvas->fill->value, "#102030");
  EXPECT_EQ(draft.toOutput(), output) << "a draft gives back the output it came from";

  RecipeOutputDraft webp;
  webp.format = ExportFormat::webp;
  webp.webp.lossless = true;
  webp.webp.effort = 6;
  webp.colourPolicy.flatten = "black";
  webp.model = RecipeOutputDraft::installedEstimateModel();  // not an estimate: left out
  const Recipe::Output written = webp.toOutput();
  EXPECT_NO_THROW(written.validate());
  EXPECT_EQ(written.quality->mode, "lossless");
  EXPECT_EQ(written.colour.flattenColour, "#000000");
  EXPECT_FALSE(written.model.has_value());
  EXPECT_EQ(RecipeOutputDraft::from(written).webp.effort, 6);
}

}  // namespace
}  // namespace tarnbloom::recipes
