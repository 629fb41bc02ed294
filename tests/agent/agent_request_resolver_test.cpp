// Resolving agent requests over real photos on disk and a real recipe
// library: the order of refusals, names that never land on a source or on
// each other, recipes found by id or name, and the dry-run document.

#include "agent/agent_request_resolver.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <span>

#include "fixtures.h"
#include "support/uuid.h"
#include "test_support.h"

namespace tarnbloom::agent {
namespace {

namespace fs = std::filesystem;
using Code = AgentErrorCode;

class AgentResolverTest : public ::testing::Test {
 protected:
  AgentResolverTest() : root(fs::canonical(dir.path())) {
    fs::create_directories(root / "in");
    fs::create_directories(root / "out");
    photo("in/a.png");
    photo("in/b.png");
    environment.app = {"1.0", "7", "com.tarnbloom.app"};
    // Documents carry whole seconds.
    environment.now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  }

  void photo(const std::string& name) {
    fs::create_directories((root / name).parent_path());
    testing::writePng(root / name, 8, 6, 3, 8, std::vector<uint16_t>(8 * 6 * 3, 90));
  }

  AgentRequest request(std::vector<AgentSource> sources) const {
    AgentRequest r;
    r.job = makeUuid();
    r.createdAt = environment.now;
    r.sources = std::move(sources);
    r.size.emplace().mode = AgentSizeMode::x2;
    r.method = AgentMethod::exact;
    return r;
  }
  AgentSource file(const std::string& name) const { return {(root / name).string()}; }
  AgentSource folder(const std::string& name) const {
    return {(root / name).string(), AgentSourceKind::folder};
  }

  AgentResolvedPlan plan(const AgentRequest& r) const {
    auto resolution = AgentRequestResolver::resolve(r, environment);
    if (auto* failure = std::get_if<AgentResolveFailure>(&resolution))
      ADD_FAILURE() << failure->message;
    return std::get<AgentResolvedPlan>(std::move(resolution));
  }
  AgentErrorInfo refusal(const AgentRequest& r) const {
    const auto resolution = AgentRequestResolver::resolve(r, environment);
    EXPECT_TRUE(std::holds_alternative<AgentResolveFailure>(resolution));
    if (const auto* failure = std::get_if<AgentResolveFailure>(&resolution))
      return static_cast<const AgentErrorInfo&>(*failure);
    return AgentErrorInfo{};
  }

  testing::TempDir dir;
  fs::path root;
  AgentResolverEnvironment environment;
};

TEST_F(AgentResolverTest, ValueRulesRefuseInOrderAndStrengthZeroIsTheWeakestBlend) {
  auto r = request({file("in/a.png")});
  r.method = AgentMethod::enhance;
  r.strength = 0.0;
  const auto weakest = plan(r);
  EXPECT_DOUBLE_EQ(weakest.units.at(0).options().estimateStrength, 0.10);
  EXPECT_TRUE(weakest.items().at(0).aiDetail);
  r.strength = 1.01;
  EXPECT_EQ(refusal(r), AgentErrorInfo::strengthOutOfRange());

  r = request({file("in/a.png")});
  r.format = AgentFormat::png;
  r.quality = 100;
  EXPECT_EQ(refusal(r), AgentErrorInfo::qualityNeedsJpegOrWebp());
  r.format = AgentFormat::jpeg;
  r.quality = 70;
  EXPECT_EQ(plan(r).units.at(0).options().jpeg.quality, 70);
  r.quality.reset();
  EXPECT_EQ(plan(r).units.at(0).options().jpeg.quality, 85);
  r.name = "{colour}";  // a token the naming engine does not know
  EXPECT_EQ(refusal(r).code, Code::invalidArgument);

  // A format this computer cannot write, asked for or kept from a source.
  environment.canWriteFormat = [](encoding::ExportFormat f) {
    return f != encoding::ExportFormat::heic;
  };
  r = request({file("in/a.png")});
  r.format = AgentFormat::heic;
  EXPECT_EQ(refusal(r).message, "This computer cannot write HEIC files.");
  fs::copy_file(root / "in/a.png", root / "in/c.heic");
  r = request({file("in/a.png"), file("in/c.heic")});
  r.format = AgentFormat::same;
  EXPECT_EQ(refusal(r), AgentErrorInfo::cannotWriteFormat(encoding::ExportFormat::heic));

  environment.savedOptions.method = ResampleMethod::clarity;
  r = request({file("in/a.png")});
  r.method.reset();
  r.useAppSettings = true;
  EXPECT_EQ(plan(r).items().at(0).method, AgentMethod::clarity);
}

TEST_F(AgentResolverTest, SourcesAndTheOutputFolderAreRefusedWithWhatIsWrong) {
  EXPECT_EQ(refusal(request({})), AgentErrorInfo::sourcesRequired());
  EXPECT_EQ(refusal(request({{"in/a.png"}})),
            AgentErrorInfo::notAbsolutePath("source", "in/a.png"));
  EXPECT_EQ(refusal(request({file("in/gone.png")})),
            AgentErrorInfo::sourceMissing((root / "in/gone.png").string()));
  EXPECT_EQ(refusal(request({{(root / "in").string()}})).message,
            "A source " + (root / "in").string() + " is a folder, but the request says file");

  // A link to itself is there, but nothing can be read through it.
  fs::create_symlink("loop", root / "loop");
  const auto loop = refusal(request({file("loop")}));
  EXPECT_EQ(loop.code, Code::unreadableSource);
  EXPECT_NE(loop.message.find(std::strerror(ELOOP)), std::string::npos) << loop.message;

  auto r = request({folder("in")});
  r.dryRun = true;
  EXPECT_EQ(refusal(r), AgentErrorInfo::outRequiredForFolder());
  r.out = "out";
  EXPECT_EQ(refusal(r), AgentErrorInfo::notAbsolutePath("out", "out"));
  r.out = (root / "in/a.png").string();
  EXPECT_EQ(refusal(r), AgentErrorInfo::outputFolderIsFile(*r.out));
  r.out = (root / "nowhere").string();
  EXPECT_EQ(refusal(r).message, "The output folder " + *r.out + " does not exist.");
  r.out = (root / "in").string();  // a re-run would read its own output
  EXPECT_NE(refusal(r).message.find("is the folder you are enlarging"), std::string::npos);

  fs::create_directories(root / "notes");
  testing::writeText(root / "notes/readme.txt", "not a photo");
  r = request({folder("notes")});
  r.out = (root / "out").string();
  EXPECT_EQ(refusal(r), AgentErrorInfo::noImagesFound());
  // The refusal still says what each file was, so the caller can tell.
  const auto refused = AgentRequestResolver::rejectedResult(
      r, std::get<AgentResolveFailure>(AgentRequestResolver::resolve(r, environment)), environment);
  ASSERT_EQ(refused.items.size(), 1u);
  EXPECT_EQ(refused.items[0].state, AgentItemState::skipped);  // a note beside photos
  EXPECT_EQ(refused.items[0].error->code, Code::unreadableSource);
  testing::writeText(root / "named.png", "not a photo");  // named on its own, it fails
  const auto named = AgentRequestResolver::rejectedResult(
      request({file("named.png")}),
      std::get<AgentResolveFailure>(
          AgentRequestResolver::resolve(request({file("named.png")}), environment)),
      environment);
  EXPECT_EQ(named.counts.failed, 1);

  // ".." is resolved before anything is named from the path.
  const auto dotted = plan(request({{(root / "in/../in/./a.png").string()}}));
  EXPECT_EQ(dotted.items().at(0).source, root / "in/a.png");
  EXPECT_EQ(dotted.items().at(0).output, root / "in/a_16x12.png");
}

TEST_F(AgentResolverTest, OutputsNeverLandOnASourceOrOnEachOther) {
  photo("x/a.png");
  auto r = request({file("in/a.png"), file("x/a.png")});
  r.out = (root / "out").string();
  auto items = plan(r).items();
  ASSERT_EQ(items.size(), 2u);
  EXPECT_EQ(items[0].action, AgentPlanAction::exportItem);
  EXPECT_EQ(items[0].output, root / "out/a_16x12.png");
  EXPECT_EQ(items[1].action, AgentPlanAction::number);
  EXPECT_EQ(items[1].output, root / "out/a_16x12 2.png");
  for (const auto& item : items) {
    ASSERT_TRUE(item.planned);  // what the controller runs says the same
    EXPECT_EQ(item.planned->assignedOutput, item.output);
    EXPECT_EQ(item.planned->plannedSize, (std::pair<int64_t, int64_t>{16, 12}));
  }

  // Named twice and reached through its folder too: one photo, one output.
  r = request({file("in/a.png"), folder("in"), {(root / "in/./a.png").string()}});
  r.out = (root / "out").string();
  ASSERT_EQ(plan(r).items().size(), 2u);

  // A name another unfinished export holds is taken.
  environment.reservedOutputs = {root / "out/a_16x12.png"};
  r = request({file("in/a.png")});
  r.out = (root / "out").string();
  EXPECT_EQ(plan(r).items().at(0).output, root / "out/a_16x12 2.png");
  environment.reservedOutputs.clear();

  testing::writeText(root / "out/a_16x12.png", "an earlier export");
  r.ifExists = AgentIfExists::skip;
  auto skipped = plan(r);
  EXPECT_EQ(skipped.items().at(0).action, AgentPlanAction::skip);
  EXPECT_EQ(skipped.items().at(0).output, root / "out/a_16x12.png");
  EXPECT_TRUE(skipped.units.at(0).plannedItems().empty());
  r.ifExists = AgentIfExists::overwrite;
  auto replaced = plan(r);
  EXPECT_EQ(replaced.items().at(0).action, AgentPlanAction::overwrite);
  EXPECT_TRUE(replaced.units.at(0).description.replaceExisting());

  // Even "overwrite" never replaces a source: b's name is a's file.
  r = request({file("in/a.png"), file("in/b.png")});
  r.name = "a";
  r.format = AgentFormat::png;
  r.ifExists = AgentIfExists::overwrite;
  for (const auto& item : plan(r).items()) {
    EXPECT_EQ(item.action, AgentPlanAction::number) << item.output;
    EXPECT_NE(item.output, root / "in/a.png");
  }
}

TEST_F(AgentResolverTest, RecipesRunByIdOrNameOnlyWhenNobodyHasToConfirmAnything) {
  const recipes::RecipeStore store(root / "state/Recipes");
  const auto save = [&](const std::string& name, auto edit) {
    recipes::RecipeDraft draft;
    draft.id = makeUuid();
    draft.name = name;
    draft.outputs.resize(1);
    edit(draft);
    return store.save(draft);
  };
  const auto twoSizes = save("Web and print", [](recipes::RecipeDraft& d) {
    d.outputs.push_back(d.outputs[0]);
    d.outputs[1].sizeMode = SizeMode::x4;
    d.outputs[1].namingTemplate = "{source}_print";
  });
  save("Twins", [](auto&) {});
  save("Twins", [](auto&) {});
  save("Crop", [](recipes::RecipeDraft& d) {
    d.outputs[0].canvas =
        canvas::Canvas{canvas::CanvasMode::crop, 4, 4, {}, canvas::CropRect{0, 0, 4, 4}};
  });
  save("Relative", [](recipes::RecipeDraft& d) { d.outputs[0].destination = "Enlarged"; });
  save("Estimate", [](recipes::RecipeDraft& d) {
    d.outputs[0].method = ResampleMethod::estimate;
    d.outputs[0].model = recipes::RecipeOutputDraft::installedEstimateModel();
  });
  environment.recipeEntries = store.entries({"exact", "clarity"});

  AgentRequest r = request({file("in/a.png"), file("in/b.png")});
  r.command = AgentCommand::recipeRun;
  r.recipe = twoSizes.id;
  EXPECT_EQ(refusal(r), AgentErrorInfo::recipeRunTakesRecipeAndSourcesOnly());
  r.size.reset();
  r.method.reset();
  r.settings.emplace().receipts = AgentReceipts::beside;
  const auto byID = plan(r);
  ASSERT_EQ(byID.units.size(), 2u);
  EXPECT_EQ(byID.recipeName, "Web and print");
  EXPECT_EQ(byID.units[1].items.at(0).output, root / "in/a_print.png");
  EXPECT_EQ(byID.units[1].items.at(0).width, 32);
  EXPECT_TRUE(byID.units[1].description.receiptsBesideExports);
  r.recipe = "Web and print";
  EXPECT_EQ(plan(r).items().size(), 4u);
  r.settings->gps = encoding::MetadataToggle::keep;
  EXPECT_EQ(refusal(r), AgentErrorInfo::recipeRunTakesRecipeAndSourcesOnly());
  r.settings.reset();

  const auto expect = [&](const std::string& key, Code code, const std::string& message) {
    r.recipe = key;
    EXPECT_EQ(refusal(r), (AgentErrorInfo{code, message})) << key;
  };
  expect("Twins", Code::recipeNotFound, "More than one recipe is named “Twins”; use its id.");
  expect("Nope", Code::recipeNotFound, "No saved recipe has the id or name “Nope”.");
  const std::string crop =
      "“Crop” has a crop step that must be confirmed per image, so it cannot run from the "
      "command line.";
  expect("Crop", Code::recipeInvalid, crop);
  expect("Relative", Code::recipeInvalid,
         "“Relative” has a destination folder that is not an absolute path.");
  expect("Estimate", Code::recipeInvalid, "This recipe cannot be used on this computer.");

  for (const auto& info : AgentRequestResolver::recipeList(environment)) {
    EXPECT_EQ(info.usable, !info.reason) << info.name;
    if (info.name == "Crop") {
      EXPECT_EQ(info.reason, crop);
    }
    if (info.name == "Web and print") {
      EXPECT_EQ(info.id, twoSizes.id);
    }
  }
}

// Shards of one batch: each plans the whole batch (names and {index} as an
// unsharded run gives them) and keeps its own part; together they are the
// batch, once.
TEST_F(AgentResolverTest, ShardsSplitTheWholePlanWithoutOverlap) {
  for (int i = 0; i < 12; ++i) photo("in/sub/p" + std::to_string(i) + ".png");
  auto r = request({folder("in")});
  r.out = (root / "out").string();
  r.recursive = true;
  r.name = "{index}_{source}";
  const auto whole = plan(r).items();
  std::map<fs::path, fs::path> seen;
  for (int k = 0; k < 3; ++k) {
    r.settings.emplace().shard = std::to_string(k) + "/3";
    const auto resolution = AgentRequestResolver::resolve(r, environment);
    ASSERT_TRUE(std::holds_alternative<AgentResolvedPlan>(resolution)) << k;
    for (const auto& item : std::get<AgentResolvedPlan>(resolution).items())
      EXPECT_TRUE(seen.emplace(item.source, item.output).second) << item.source;
  }
  ASSERT_EQ(seen.size(), whole.size());
  for (const auto& item : whole) EXPECT_EQ(seen[item.source], item.output);
  r.settings->shard = "3/3";
  EXPECT_EQ(refusal(r).code, Code::invalidArgument);
}

TEST_F(AgentResolverTest, DryRunListsThePlanAndWhatWasLeftOut) {
  testing::writeText(root / "in/notes.txt", "not a photo");
  auto r = request({folder("in")});
  r.out = (root / "out").string();
  r.dryRun = true;
  const AgentResult result = plan(r).dryRunResult(environment);
  EXPECT_EQ(result.state, AgentResultState::completed);
  EXPECT_EQ(result.dryRun, true);
  EXPECT_EQ(exitCode(result), AgentExitCode::success);
  ASSERT_TRUE(result.plan);
  EXPECT_EQ(result.plan->willExport(), 2);
  EXPECT_EQ(
      result.plan->items.at(1),
      (AgentPlanItem{(root / "in/b.png").string(), (root / "out/b_16x12.png").string(), 16, 12,
                     AgentFormat::png, AgentMethod::exact, false, AgentPlanAction::exportItem}));
  ASSERT_EQ(result.items.size(), 1u);
  EXPECT_EQ(result.items[0].source, (root / "in/notes.txt").string());
  EXPECT_EQ(result.items[0].state, AgentItemState::skipped);
  EXPECT_EQ(result.items[0].error->code, Code::unreadableSource);
  EXPECT_EQ(result.counts.skipped, 1);
  const std::string document = encodeResult(result);
  EXPECT_EQ(decodeResult(std::as_bytes(std::span(document))), result);
  EXPECT_FALSE(fs::exists(root / "out/a_16x12.png")) << "planning writes nothing";

  r.out.reset();
  const AgentResult rejected =
      AgentRequestResolver::rejectedResult(r, AgentErrorInfo::outRequiredForFolder(), environment);
  EXPECT_EQ(rejected.state, AgentResultState::rejected);
  EXPECT_EQ(exitCode(rejected), AgentExitCode::usage);
}

TEST_F(AgentResolverTest, SettingsReadStrictlyAndApplyTheCommandLinesRules) {
  AgentRequest r = request({file("in/a.png")});
  r.format = AgentFormat::jpeg;
  AgentExportSettings& settings = r.settings.emplace();
  settings.maxKB = 300;
  settings.gps = encoding::MetadataToggle::keep;
  settings.flatten = "black";
  settings.canvas = canvas::Canvas{canvas::CanvasMode::exact, 40, 30, {}, {}};
  settings.receipts = AgentReceipts::beside;
  settings.allow8Bit = true;
  const std::string text = encodeRequest(r);
  EXPECT_EQ(decodeRequest(std::as_bytes(std::span(text))), r);
  std::string unknown = text;
  unknown.replace(unknown.find("\"max_kb\""), 8, "\"max_mb\"");
  EXPECT_THROW(decodeRequest(std::as_bytes(std::span(unknown))), AgentProtocolError);
  unknown = text;
  unknown.replace(unknown.find("\"crop_rect\""), 11, "\"crop_rekt\"");
  EXPECT_THROW(decodeRequest(std::as_bytes(std::span(unknown))), AgentProtocolError);

  const auto applied = plan(r);
  const auto& unit = applied.units.at(0);
  EXPECT_EQ(unit.options().jpeg.maxBytes, 300'000);
  EXPECT_EQ(unit.options().colourPolicy.gps, encoding::MetadataToggle::keep);
  EXPECT_EQ(unit.options().colourPolicy.flatten, "#000000");
  EXPECT_TRUE(unit.description.receiptsBesideExports);
  EXPECT_TRUE(unit.description.confirmed16BitReduction);
  EXPECT_EQ(unit.items.at(0).width, 40);  // the output is the canvas

  r.settings->maxKB = 0;
  EXPECT_EQ(refusal(r).code, Code::invalidArgument);
  r.settings->maxKB.reset();
  r.settings->flatten = "mauve";
  EXPECT_NE(refusal(r).message.find("mauve"), std::string::npos);
  r.settings->flatten.reset();
  r.settings->canvas =
      canvas::Canvas{canvas::CanvasMode::crop, 4, 4, {}, canvas::CropRect{0, 0, 4, 4}};
  r.sources.push_back(file("in/b.png"));  // one photo's crop never goes to another
  EXPECT_NE(refusal(r).message.find("can’t run on a batch"), std::string::npos);
}

}  // namespace
}  // namespace tarnbloom::agent
