#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>

#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "agent/agent_result.h"
#include "export/export_options.h"
#include "support/utf8.h"

namespace tarnbloom::agent {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using nlohmann::ordered_json;

std::span<const std::byte> bytesOf(const std::string& text) {
  return std::as_bytes(std::span(text.data(), text.size()));
}

WallTime at(std::string_view text) { return *AgentProtocol::parseTimestamp(text); }

const WallTime kNow = at("2026-11-14T21:06:21Z");
constexpr std::string_view kJob = "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5C";

// The error a throwing call gives, or nothing when it returns.
template <typename Call>
std::optional<AgentProtocolError> failureOf(Call&& call) {
  try {
    call();
  } catch (const AgentProtocolError& error) {
    return error;
  }
  return std::nullopt;
}

std::optional<AgentProtocolError> requestFailure(const std::string& text) {
  return failureOf([&] { decodeRequest(bytesOf(text)); });
}

std::vector<std::string> keysOf(const ordered_json& object) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : object.items()) keys.push_back(key);
  return keys;
}

const json kMinimalRequest = {{"schema", "com.tarnbloom.agent.request/1"},
                              {"protocol", 1},
                              {"job", kJob},
                              {"command", "enlarge"},
                              {"created_at", "2026-11-14T21:06:21Z"},
                              {"sources", {{{"path", "/photos/a.jpg"}, {"kind", "file"}}}}};

TEST(AgentProtocolVocabulary, RawValuesAreTheWireFormatAndAreReadCaseSensitively) {
  // A misspelt raw value is invisible to the application's own round trips
  // but breaks every script, so the wire strings are pinned here.
  const auto all = [](auto first, int count) {
    std::vector<std::string> raw;
    for (int i = 0; i < count; ++i) raw.emplace_back(rawValue(static_cast<decltype(first)>(i)));
    return raw;
  };
  using V = std::vector<std::string>;
  EXPECT_EQ(all(AgentCommand{}, 6),
            (V{"enlarge", "recipe_run", "recipe_list", "status", "cancel", "doctor"}));
  EXPECT_EQ(all(AgentSizeMode{}, 8),
            (V{"x2", "x4", "x8", "percent", "long_edge", "width", "height", "box"}));
  EXPECT_EQ(all(AgentMethod{}, 3), (V{"exact", "clarity", "enhance"}));
  EXPECT_EQ(all(AgentFormat{}, 7), (V{"same", "png", "jpeg", "tiff", "webp", "avif", "heic"}));
  EXPECT_EQ(all(AgentIfExists{}, 3), (V{"number", "skip", "overwrite"}));
  EXPECT_EQ(all(AgentItemState{}, 6),
            (V{"pending", "running", "completed", "skipped", "failed", "cancelled"}));
  EXPECT_EQ(all(AgentResultState{}, 6),
            (V{"completed", "partial", "failed", "cancelled", "rejected", "running"}));
  EXPECT_EQ(all(AgentPlanAction{}, 4), (V{"export", "number", "skip", "overwrite"}));
  EXPECT_EQ(all(AgentProgressEventName{}, 7),
            (V{"job_started", "item_started", "item_progress", "item_completed", "item_failed",
               "item_skipped", "job_finished"}));
  EXPECT_EQ(all(AgentErrorCode{}, 18)[5], "out_required_for_folder");

  EXPECT_EQ(fromRawValue<AgentCommand>("recipe_run"), AgentCommand::recipeRun);
  EXPECT_EQ(fromRawValue<AgentPlanAction>("export"), AgentPlanAction::exportItem);
  EXPECT_EQ(fromRawValue<AgentMethod>("Enhance"), std::nullopt);
  EXPECT_EQ(fromRawValue<AgentMethod>("estimate"), std::nullopt) << "the engine's name, not ours";
  EXPECT_EQ(fromRawValue<AgentSizeMode>("longEdge"), std::nullopt);
  EXPECT_EQ(rawValue(static_cast<AgentCommand>(99)), "") << "no neighbour's raw value";

  // The mapping onto the engine's and encoders' types is one to one.
  for (int i = 0; i < 8; ++i) {
    const auto mode = static_cast<AgentSizeMode>(i);
    EXPECT_EQ(toAgentSizeMode(toSizeMode(mode)), mode);
  }
  EXPECT_EQ(toSizeMode(AgentSizeMode::box), SizeMode::boundingBox);
  EXPECT_EQ(toResampleMethod(AgentMethod::enhance), ResampleMethod::estimate);
  EXPECT_EQ(toExportFormat(AgentFormat::same), std::nullopt);
  for (const auto format : encoding::kAllExportFormats)
    EXPECT_EQ(toExportFormat(toAgentFormat(format)), format);
}

TEST(AgentProtocolVocabulary, ErrorCodesLeadToTheirExitCodes) {
  using C = AgentErrorCode;
  using E = AgentExitCode;
  const std::vector<std::pair<C, E>> table = {
      {C::invalidArgument, E::usage},      {C::notAbsolutePath, E::usage},
      {C::sourceMissing, E::failure},      {C::unreadableSource, E::failure},
      {C::unsupportedFormat, E::failure},  {C::outRequiredForFolder, E::usage},
      {C::outputExists, E::failure},       {C::recipeNotFound, E::usage},
      {C::recipeInvalid, E::usage},        {C::onboardingIncomplete, E::appUnavailable},
      {C::appNotFound, E::appUnavailable}, {C::versionMismatch, E::appUnavailable},
      {C::appQuit, E::appUnavailable},     {C::timeout, E::timeout},
      {C::cancelled, E::cancelled},        {C::requestExpired, E::usage},
      {C::exportFailed, E::failure},       {C::internal, E::failure}};
  for (const auto& [code, exit] : table) EXPECT_EQ(exitCode(code), exit) << rawValue(code);
  EXPECT_EQ(rawValue(exitCode(C::cancelled)), 130) << "not 7";
  EXPECT_EQ(exitCode(static_cast<C>(42)), E::failure);

  EXPECT_EQ(exitCodeFromRawValue(130), E::cancelled);
  EXPECT_EQ(exitCodeFromRawValue(6), E::timeout);
  for (const int64_t unknown :
       {int64_t{-1}, int64_t{4}, int64_t{7}, int64_t{129}, int64_t{131}, int64_t{1} << 32})
    EXPECT_EQ(exitCodeFromRawValue(unknown), std::nullopt) << unknown;
}

TEST(AgentProtocolVocabulary, CatalogueTextsCarryTheirCodesAndValues) {
  const std::vector<std::tuple<AgentErrorInfo, AgentErrorCode, std::string>> cases = {
      {AgentErrorInfo::notAbsolutePath("out", "~/Pictures"), AgentErrorCode::notAbsolutePath,
       "out must be an absolute path starting with “/”: ~/Pictures"},
      {AgentErrorInfo::sourceMissing("/p/a.jpg"), AgentErrorCode::sourceMissing,
       "/p/a.jpg does not exist."},
      {AgentErrorInfo::cannotWriteFormat(encoding::ExportFormat::heic),
       AgentErrorCode::unsupportedFormat, "This computer cannot write HEIC files."},
      {AgentErrorInfo::recipeNameAmbiguous("Shop"), AgentErrorCode::recipeNotFound,
       "More than one recipe is named “Shop”; use its id."},
      {AgentErrorInfo::recipeNotFound("Shop"), AgentErrorCode::recipeNotFound,
       "No saved recipe has the id or name “Shop”."},
      {AgentErrorInfo::versionMismatch(), AgentErrorCode::versionMismatch,
       "This app speaks agent protocol 1; the request does not."},
      {AgentErrorInfo::outputFolderIsFile("/o"), AgentErrorCode::invalidArgument,
       "The output folder is a file: /o"},
      {AgentErrorInfo::notAnInformationCommand(AgentCommand::recipeRun), AgentErrorCode::internal,
       "recipe_run is not an information command."},
      {AgentErrorInfo::sizeNeedsPixelValue(AgentSizeMode::longEdge),
       AgentErrorCode::invalidArgument, "size long_edge needs a pixel value of at least 1."},
      {AgentErrorInfo::appQuitBeforeItemFinished(), AgentErrorCode::appQuit,
       "Tarnbloom quit before this item finished. Open Tarnbloom and use the Export Queue to "
       "resume it."},
      {AgentErrorInfo::generic(AgentErrorCode::outputExists), AgentErrorCode::outputExists,
       "The output name is taken and cannot be used."},
      {AgentErrorInfo::generic(AgentErrorCode::onboardingIncomplete),
       AgentErrorCode::onboardingIncomplete, "Open Tarnbloom once to finish setup."},
      {AgentErrorInfo::generic(static_cast<AgentErrorCode>(42)), AgentErrorCode::internal,
       "Unexpected internal error."},
  };
  for (const auto& [info, code, message] : cases) {
    EXPECT_EQ(info.code, code) << message;
    EXPECT_EQ(info.message, message);
  }
  for (int i = 0; i < 18; ++i) {
    const auto code = static_cast<AgentErrorCode>(i);
    EXPECT_EQ(AgentErrorInfo::generic(code).code, code);
    EXPECT_NE(AgentErrorInfo::generic(code).message.find_last_of('.'), std::string::npos);
  }
}

TEST(AgentTimestamps, AreUtcWithZInWholeSecondsAndFractionsAreRead) {
  EXPECT_EQ(AgentProtocol::timestampString(kNow + 750ms), "2026-11-14T21:06:21Z");
  EXPECT_EQ(AgentProtocol::parseTimestamp("2026-11-14T21:06:21.250Z"), kNow + 250ms);
  EXPECT_EQ(AgentProtocol::parseTimestamp("2026-11-14T21:06:21Z"), kNow);
  for (const char* refused :
       {"2026-11-14T21:06:21", "2026-11-14T21:06:21+00:00", "2026-11-14T22:06:21+01:00",
        "2026-11-14T21:06:21z", "2026-11-14 21:06:21Z", "2026-02-30T10:00:00Z",
        "2026-11-14T21:06:21.Z", "", "Z",
        // Years the clock cannot hold would wrap around to another time.
        "1677-11-14T21:06:21Z", "9999-12-31T23:59:59Z", "2200-01-01T00:00:00Z"})
    EXPECT_EQ(AgentProtocol::parseTimestamp(refused), std::nullopt) << refused;
}

TEST(AgentRequestDocument, WritesKeysInProtocolOrderAndReadsBackTheSame) {
  AgentRequest request;
  request.job = kJob;
  request.command = AgentCommand::enlarge;
  request.createdAt = kNow;
  request.targetJob = "other";
  request.sources = {{"/photos/a.jpg", AgentSourceKind::file},
                     {"/photos/set", AgentSourceKind::folder}};
  request.recipe = "Shop";
  request.size = AgentSize{AgentSizeMode::box, std::nullopt, 1200, 800};
  request.method = AgentMethod::enhance;
  request.strength = 0.25;
  request.format = AgentFormat::webp;
  request.quality = 90;
  request.out = "/out";
  request.name = "{source}_big";
  request.recursive = true;
  request.ifExists = AgentIfExists::skip;
  request.useAppSettings = false;
  request.dryRun = true;
  request.notify = false;

  const std::string text = encodeRequest(request);
  EXPECT_EQ(keysOf(ordered_json::parse(text)),
            (std::vector<std::string>{
                "schema",  "protocol", "job",  "command",   "created_at", "target_job",
                "sources", "recipe",   "size", "method",    "strength",   "format",
                "quality", "out",      "name", "recursive", "if_exists",  "use_app_settings",
                "dry_run", "notify"}));
  EXPECT_NE(text.find(R"("created_at": "2026-11-14T21:06:21Z")"), std::string::npos);
  EXPECT_NE(text.find(R"("size": {
    "mode": "box",
    "width": 1200,)"),
            std::string::npos)
      << "absent size numbers are omitted, not null";
  EXPECT_EQ(decodeRequest(bytesOf(text)), request);

  // Absent keys stay absent, and null reads as absent.
  json minimal = kMinimalRequest;
  minimal["recipe"] = nullptr;
  const AgentRequest read = decodeRequest(bytesOf(minimal.dump()));
  EXPECT_FALSE(read.recipe || read.size || read.dryRun || read.ifExists);
  EXPECT_EQ(read.sources, (std::vector<AgentSource>{{"/photos/a.jpg", AgentSourceKind::file}}));
  minimal["protocol"] = 1.0;
  EXPECT_FALSE(requestFailure(minimal.dump())) << "1.0 is the number 1";
}

TEST(AgentRequestDocument, RefusesHostileBytesWithoutCrashing) {
  const std::string valid = kMinimalRequest.dump();
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = valid;
    const size_t at = text.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return text.replace(at, from.size(), to);
  };
  const std::string padded =
      valid + std::string(AgentProtocol::maxRequestBytes - valid.size(), ' ');
  EXPECT_FALSE(requestFailure(padded)) << "exactly the limit is read";

  const std::vector<std::pair<const char*, std::string>> cases = {
      {"a million open brackets", std::string(1'000'000, '[')},
      {"one byte over the size limit", padded + " "},
      {"deep nesting inside a known key",
       replaced("\"/photos/a.jpg\"", std::string(40, '[') + std::string(40, ']'))},
      // A second command after the checked one must not win.
      {"a command twice",
       replaced("\"command\":\"enlarge\"", "\"command\":\"enlarge\",\"command\":\"cancel\"")},
      {"a path twice in one source",
       replaced("\"kind\":\"file\"", "\"kind\":\"file\",\"path\":\"/etc/passwd\"")},
      {"Latin-1 bytes in a path", replaced("a.jpg", "caf\xe9.jpg")},
      {"a lone surrogate escape", replaced("a.jpg", "\\ud800.jpg")},
      // C calls would stop at the NUL and read another file than checked.
      {"a NUL inside a path", replaced("a.jpg", "a.jpg\\u0000/../../etc/passwd")},
      {"an integer past 64 bits", replaced("\"job\"", "\"quality\":9223372036854775808,\"job\"")},
      {"a number beyond a double", replaced("\"job\"", "\"quality\":1e400,\"job\"")},
      {"a fraction for an integer", replaced("\"job\"", "\"quality\":90.5,\"job\"")},
      {"a string for a number", replaced("\"job\"", "\"strength\":\"0.5\",\"job\"")},
      {"a number for a boolean", replaced("\"job\"", "\"dry_run\":1,\"job\"")},
      {"an unknown key", replaced("\"job\"", "\"priority\":1,\"job\"")},
      {"an unknown key in a source", replaced("\"kind\":\"file\"", "\"kind\":\"file\",\"x\":1")},
      {"an unknown key in the size",
       replaced("\"job\"", R"("size":{"mode":"x2","scale":3},"job")")},
      {"an unknown command", replaced("enlarge", "Enlarge")},
      {"a local time", replaced("21:06:21Z", "22:06:21+01:00")},
      {"a source that is a string", replaced("[{", "[\"/a.jpg\",{")},
      {"null for a required key", replaced("\"enlarge\"", "null")},
      {"no job", replaced("\"job\":\"" + std::string(kJob) + "\",", "")},
      {"a top-level array", "[" + valid + "]"},
      {"two documents", valid + valid},
      {"empty", ""},
      {"not JSON", "job=1"},
  };
  for (const auto& [fault, text] : cases) {
    const auto error = requestFailure(text);
    ASSERT_TRUE(error) << fault;
    EXPECT_EQ(error->info(), AgentErrorInfo::generic(AgentErrorCode::invalidArgument)) << fault;
    EXPECT_FALSE(error->details().empty()) << fault;
    EXPECT_TRUE(isValidUtf8(error->details())) << fault << ": details reach logs and JSON";
  }

  // Another schema or protocol is told as such, before keys this version
  // does not know.
  for (const auto& [fault, text] : std::vector<std::pair<const char*, std::string>>{
           {"a newer protocol with new keys",
            replaced("\"protocol\":1", "\"protocol\":2,\"priority\":\"high\"")},
           {"a newer schema", replaced("request/1", "request/2")},
           {"a protocol written as text", replaced("\"protocol\":1", "\"protocol\":\"1\"")},
           {"no protocol", replaced("\"protocol\":1,", "")},
           {"no schema", replaced("\"schema\":\"com.tarnbloom.agent.request/1\",", "")}}) {
    const auto error = requestFailure(text);
    ASSERT_TRUE(error) << fault;
    EXPECT_EQ(error->info(), AgentErrorInfo::versionMismatch()) << fault;
  }
}

TEST(AgentRequestDocument, ArbitraryBytesOnlyEverGiveARefusal) {
  // Mutations of a valid request and plain noise: every outcome is a
  // request or an AgentProtocolError, never a crash or another exception.
  std::mt19937 random(20261114);
  const std::string valid = kMinimalRequest.dump();
  constexpr std::string_view kAlphabet("{}[]\",:0-.e\\u\xff\x00 1", 17);
  for (int round = 0; round < 4000; ++round) {
    std::string text = valid;
    if (round % 4 == 0) {
      text.assign(random() % 200, '\0');
      for (char& c : text) c = static_cast<char>(random());
    } else {
      for (int edits = 1 + random() % 4; edits > 0; --edits)
        text[random() % text.size()] = kAlphabet[random() % kAlphabet.size()];
    }
    try {
      decodeRequest(bytesOf(text));
    } catch (const AgentProtocolError&) {
    }
  }
}

TEST(AgentRequestRules, HeaderIsCheckedInOrderWithFiveMinutesOfClockTolerance) {
  AgentRequest request = decodeRequest(bytesOf(kMinimalRequest.dump()));
  const auto headerFailure = [&](WallTime createdAt, std::string job = std::string(kJob)) {
    request.createdAt = createdAt;
    request.job = std::move(job);
    const auto error = failureOf([&] { validateRequestHeader(request, kNow); });
    return error ? error->description() : "";
  };
  EXPECT_EQ(headerFailure(kNow), "");
  EXPECT_EQ(headerFailure(kNow, "0f8a3c2e-5b1d-4e7a-9c6b-2d4f8e1a3b5c"), "") << "either case";
  EXPECT_EQ(headerFailure(kNow - 24h), "");
  EXPECT_EQ(headerFailure(kNow - 24h - 1s),
            "This request is more than 24 hours old and was ignored. Send it again.");
  EXPECT_EQ(headerFailure(kNow + 299s), "");
  EXPECT_EQ(headerFailure(kNow + 300s), "");
  EXPECT_EQ(headerFailure(kNow + 301s),
            "This request is dated in the future; check the clock and send it again.");
  // The job id is judged before the date.
  for (const char* job :
       {"", "0F8A3C2E5B1D4E7A9C6B2D4F8E1A3B5C", "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5",
        "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5G"})
    EXPECT_EQ(headerFailure(kNow - 48h, job), "The job id is not a UUID.") << job;

  const auto expired = failureOf([&] {
    request.job = kJob;
    request.createdAt = kNow - 25h;
    validateRequestHeader(request, kNow);
  });
  ASSERT_TRUE(expired);
  EXPECT_EQ(exitCode(expired->code()), AgentExitCode::usage);
  EXPECT_EQ(expired->code(), AgentErrorCode::requestExpired);
}

TEST(AgentRequestRules, SettingsAreRefusedWithTheirOwnSentences) {
  const auto message = [](auto&& call) {
    const auto error = failureOf(call);
    return error ? error->description() : "";
  };
  const auto size = [&](AgentSizeMode mode, std::optional<double> value,
                        std::optional<int64_t> w = {}, std::optional<int64_t> h = {}) {
    return message([&] { validateSize({mode, value, w, h}); });
  };
  using M = AgentSizeMode;
  EXPECT_EQ(size(M::x4, {}), "");
  EXPECT_EQ(size(M::percent, 150.5), "");
  EXPECT_EQ(size(M::percent, 0), "size percent needs a value greater than 0.");
  EXPECT_EQ(size(M::percent, {}), "size percent needs a value greater than 0.");
  EXPECT_EQ(size(M::longEdge, 0.5), "size long_edge needs a pixel value of at least 1.");
  EXPECT_EQ(size(M::height, {}), "size height needs a pixel value of at least 1.");
  EXPECT_EQ(size(M::width, 1), "");
  EXPECT_EQ(size(M::box, {}, 1200, 0), "size box needs a width and a height of at least 1.");
  EXPECT_EQ(size(M::box, {}, 1200, {}), "size box needs a width and a height of at least 1.");
  // A number the mode ignores would be a silent substitution.
  EXPECT_EQ(size(M::x2, 3), "A request field is missing, malformed or out of range.");
  EXPECT_EQ(size(M::box, 3, 10, 10), "A request field is missing, malformed or out of range.");
  EXPECT_EQ(size(M::width, 3000, 10), "A request field is missing, malformed or out of range.");

  exporting::ExportOptions options;
  applySize({M::box, std::nullopt, 1200, 800}, options);
  EXPECT_EQ(options.sizeMode, SizeMode::boundingBox);
  EXPECT_EQ(options.resolvedSize(600, 300, 8, encoding::ExportFormat::png),
            (ResolvedSize{1200, 600, 2.0, false}));

  const auto enhance = ResampleMethod::estimate;
  EXPECT_EQ(message([&] { validateStrength(0.0, enhance); }), "");
  EXPECT_EQ(message([&] { validateStrength(1.01, enhance); }),
            "strength must be between 0.0 and 1.0.");
  EXPECT_EQ(message([&] { validateStrength(2.0, ResampleMethod::exact); }),
            "strength must be between 0.0 and 1.0.")
      << "the range is judged before the method";
  EXPECT_EQ(message([&] { validateStrength(0.5, ResampleMethod::clarity); }),
            "strength applies to the enhance method only.");

  using encoding::ExportFormat;
  EXPECT_EQ(message([&] { validateQuality(100, ExportFormat::webp); }), "");
  EXPECT_EQ(message([&] { validateQuality(0, ExportFormat::jpeg); }),
            "quality must be between 1 and 100.");
  EXPECT_EQ(message([&] { validateQuality(101, ExportFormat::png); }),
            "quality must be between 1 and 100.");
  EXPECT_EQ(message([&] { validateQuality(100, ExportFormat::png); }),
            "quality applies to jpeg and webp only.");
  EXPECT_EQ(message([&] { validateQuality(90, std::nullopt); }),
            "quality applies to jpeg and webp only.");

  EXPECT_EQ(message([&] { validateNameTemplate("{source}_{w}x{h}"); }), "");
  EXPECT_EQ(message([&] { validateNameTemplate(""); }), "name must not be empty.");
  EXPECT_EQ(message([&] { validateNameTemplate("sub/{source}"); }),
            "name is a file name template; it cannot contain “/”.");

  for (const char* path : {"~/Pictures", "Pictures", "", "./a.jpg"}) {
    const auto error = failureOf([&] { requireAbsolute(path, "source"); });
    ASSERT_TRUE(error) << path;
    EXPECT_EQ(error->info(), AgentErrorInfo::notAbsolutePath("source", path));
  }

  AgentRequest run;
  run.command = AgentCommand::recipeRun;
  EXPECT_EQ(message([&] { validateRecipeRunRequest(run); }),
            "recipe_run needs a recipe id or name.");
  run.recipe = "Shop";
  EXPECT_EQ(message([&] { validateRecipeRunRequest(run); }), "");
  run.quality = 90;
  EXPECT_EQ(message([&] { validateRecipeRunRequest(run); }),
            "recipe_run takes a recipe and sources only; the recipe decides size, method, format "
            "and naming.");
}

AgentResult finishedResult() {
  AgentResult result;
  result.job = kJob;
  result.state = AgentResultState::partial;
  result.app = {"1.3", "130", "com.tarnbloom.app"};
  result.startedAt = kNow;
  result.finishedAt = kNow + 5s;
  result.updatedAt = kNow + 5s;
  AgentRequest request = decodeRequest(bytesOf(kMinimalRequest.dump()));
  request.size = AgentSize{AgentSizeMode::longEdge, 3000, {}, {}};
  request.method = AgentMethod::enhance;
  result.request = AgentResultRequest::echoing(request);
  result.dryRun = true;
  AgentItem done{"/photos/a.jpg",
                 AgentItemState::completed,
                 "/out/a_big.jpg",
                 3000,
                 2000,
                 AgentFormat::jpeg,
                 AgentMethod::enhance,
                 true,
                 "/out/a_big.jpg.tarnbloomreceipt",
                 std::nullopt};
  AgentItem failed{"/photos/b.jpg",      AgentItemState::failed,
                   std::nullopt,         std::nullopt,
                   std::nullopt,         AgentFormat::jpeg,
                   AgentMethod::enhance, true,
                   std::nullopt,         AgentErrorInfo::exportFailed()};
  result.items = {done, failed};
  result.counts = {1, 0, 1, 0};
  result.error = AgentErrorInfo::generic(AgentErrorCode::exportFailed);
  result.plan = AgentPlan{{{"/photos/a.jpg", "/out/a_big.jpg", 3000, 2000, AgentFormat::jpeg,
                            AgentMethod::enhance, true, AgentPlanAction::number},
                           {"/photos/b.jpg", "/out/b_big.jpg", 3000, 2000, AgentFormat::jpeg,
                            AgentMethod::enhance, true, AgentPlanAction::skip}}};
  result.recipes = std::vector<AgentRecipeInfo>{{"R1", "Shop", true, std::nullopt},
                                                {"R2", "Crop", false, "“Crop” has no outputs."}};
  return result;
}

TEST(AgentResultDocument, RoundTripsEveryPartInProtocolOrder) {
  const AgentResult result = finishedResult();
  const std::string text = encodeResult(result);
  EXPECT_EQ(decodeResult(bytesOf(text)), result);

  const ordered_json document = ordered_json::parse(text);
  EXPECT_EQ(keysOf(document),
            (std::vector<std::string>{"schema", "job", "state", "app", "started_at", "finished_at",
                                      "updated_at", "request", "dry_run", "items", "counts",
                                      "error", "plan", "recipes"}));
  EXPECT_EQ(keysOf(document["items"][0]),
            (std::vector<std::string>{"source", "state", "output", "width", "height", "format",
                                      "method", "ai_detail", "receipt", "error"}));
  EXPECT_EQ(keysOf(document["request"]), (std::vector<std::string>{"command", "size", "method"}));
  EXPECT_EQ(document["app"]["bundle_id"], "com.tarnbloom.app");
  EXPECT_EQ(document["plan"]["will_export"], 1);
  EXPECT_EQ(document["plan"]["will_skip"], 1);
  EXPECT_EQ(document["recipes"][0].contains("reason"), false);

  // An item without a file yet has explicit nulls, so a reader can tell it
  // from a document that lacks the keys; unknown sizes are omitted.
  const ordered_json& pending = document["items"][1];
  EXPECT_TRUE(pending.contains("output") && pending["output"].is_null());
  EXPECT_TRUE(document["items"][0].contains("error") && document["items"][0]["error"].is_null());
  EXPECT_FALSE(pending.contains("width") || pending.contains("receipt"));

  AgentResult running = result;
  running.state = AgentResultState::running;
  running.finishedAt.reset();
  running.request.reset();
  running.dryRun.reset();
  running.error.reset();
  running.plan.reset();
  running.recipes.reset();
  const ordered_json runningDocument = ordered_json::parse(encodeResult(running));
  EXPECT_TRUE(runningDocument["finished_at"].is_null());
  EXPECT_TRUE(runningDocument["request"].is_null()) << "a request that could not be read";
  EXPECT_FALSE(runningDocument.contains("dry_run") || runningDocument.contains("plan"));
  EXPECT_EQ(decodeResult(bytesOf(runningDocument.dump())), running);
}

TEST(AgentResultDocument, ReaderSkipsNewKeysButRefusesWhatItCannotTrust) {
  const json valid = json::parse(encodeResult(finishedResult()));
  const auto failure = [](const json& document) {
    const auto error = failureOf([&] { decodeResult(bytesOf(document.dump())); });
    return error ? std::optional(error->info()) : std::nullopt;
  };
  json newer = valid;
  newer["warnings"] = json::array({"a later key"});
  newer["items"][0]["colour"] = "srgb";
  EXPECT_EQ(failure(newer), std::nullopt);

  json local = valid;
  local["updated_at"] = "2026-11-14T22:06:26+01:00";
  EXPECT_EQ(failure(local),
            (AgentErrorInfo{AgentErrorCode::internal,
                            "Not an ISO-8601 UTC timestamp: 2026-11-14T22:06:26+01:00"}));

  json schema = valid;
  schema["schema"] = "com.tarnbloom.agent.result/2";
  ASSERT_TRUE(failure(schema));
  EXPECT_EQ(failure(schema)->code, AgentErrorCode::versionMismatch);

  json noOutput = valid;
  noOutput["items"][1].erase("output");
  json tallies = valid;
  tallies["plan"]["will_skip"] = 0;
  json negative = valid;
  negative["counts"]["failed"] = -1;
  json unknownState = valid;
  unknownState["state"] = "done";
  for (const json& broken : {noOutput, tallies, negative, unknownState}) {
    ASSERT_TRUE(failure(broken)) << broken.dump();
    EXPECT_EQ(failure(broken)->code, AgentErrorCode::internal);
  }

  // Text that JSON cannot hold is refused by the writer, not replaced.
  AgentResult latin1 = finishedResult();
  latin1.items[0].source = "/photos/caf\xe9.jpg";
  const auto error = failureOf([&] { encodeResult(latin1); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), AgentErrorCode::internal);
}

TEST(AgentResultDocument, ExitCodeFollowsTheState) {
  AgentResult result = finishedResult();
  const auto exitFor = [&](AgentResultState state, std::optional<AgentErrorInfo> error) {
    result.state = state;
    result.error = std::move(error);
    return exitCode(result);
  };
  using S = AgentResultState;
  EXPECT_EQ(exitFor(S::running, std::nullopt), std::nullopt);
  EXPECT_EQ(exitFor(S::rejected, std::nullopt), AgentExitCode::usage);
  EXPECT_EQ(exitFor(S::rejected, AgentErrorInfo::versionMismatch()), AgentExitCode::appUnavailable);
  EXPECT_EQ(exitFor(S::rejected, AgentErrorInfo::sourceMissing("/a")), AgentExitCode::failure);
  EXPECT_EQ(exitFor(S::completed, std::nullopt), AgentExitCode::success);
  EXPECT_EQ(exitFor(S::partial, AgentErrorInfo::exportFailed()), AgentExitCode::partial);
  EXPECT_EQ(exitFor(S::failed, AgentErrorInfo::exportFailed()), AgentExitCode::failure);
  EXPECT_EQ(exitFor(S::cancelled, AgentErrorInfo::jobCancelled()), AgentExitCode::cancelled);
}

TEST(AgentProgressEvents, AreOneLineEachWithOnlyTheKeysTheyHave) {
  const AgentProgressEvent progress{AgentProgressEventName::itemProgress,
                                    std::string(kJob),
                                    kNow,
                                    std::nullopt,
                                    2,
                                    "/photos/a.jpg",
                                    std::nullopt,
                                    0.5,
                                    std::nullopt,
                                    std::nullopt};
  const std::string line = encodeProgressEvent(progress);
  EXPECT_EQ(
      line,
      "{\"schema\":\"com.tarnbloom.agent.progress/1\",\"event\":\"item_progress\",\"job\":\"" +
          std::string(kJob) +
          "\",\"ts\":\"2026-11-14T21:06:21Z\",\"index\":2,\"source\":\"/photos/a.jpg\","
          "\"fraction\":0.5}\n");
  EXPECT_EQ(decodeProgressEvent(bytesOf(line)), progress);

  AgentProgressEvent finished;
  finished.event = AgentProgressEventName::jobFinished;
  finished.job = kJob;
  finished.ts = kNow;
  finished.error = AgentErrorInfo::exportFailed();
  finished.state = AgentResultState::failed;
  const std::string finishedLine = encodeProgressEvent(finished);
  EXPECT_EQ(std::count(finishedLine.begin(), finishedLine.end(), '\n'), 1);
  EXPECT_EQ(decodeProgressEvent(bytesOf(finishedLine)), finished);

  json outOfRange = json::parse(line);
  outOfRange["fraction"] = 1.5;
  const auto error = failureOf([&] { decodeProgressEvent(bytesOf(outOfRange.dump())); });
  ASSERT_TRUE(error);
  EXPECT_EQ(error->code(), AgentErrorCode::internal);
  json asResult = json::parse(line);
  asResult["schema"] = AgentProtocol::resultSchema;
  EXPECT_EQ(failureOf([&] { decodeProgressEvent(bytesOf(asResult.dump())); })->code(),
            AgentErrorCode::versionMismatch);
}

}  // namespace
}  // namespace tarnbloom::agent
