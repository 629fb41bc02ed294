#include "agent/agent_protocol.h"

#include <algorithm>
#include <array>

#include "support/uuid.h"

namespace tarnbloom::agent {
namespace {

// Raw values in declaration order, so a case's index is its position.
template <typename Enumeration>
struct RawValues;

template <>
struct RawValues<AgentCommand> {
  static constexpr std::array<std::string_view, 6> values = {"enlarge", "recipe_run", "recipe_list",
                                                             "status",  "cancel",     "doctor"};
};
template <>
struct RawValues<AgentSizeMode> {
  static constexpr std::array<std::string_view, 8> values = {
      "x2", "x4", "x8", "percent", "long_edge", "width", "height", "box"};
};
template <>
struct RawValues<AgentMethod> {
  static constexpr std::array<std::string_view, 3> values = {"exact", "clarity", "enhance"};
};
template <>
struct RawValues<AgentFormat> {
  static constexpr std::array<std::string_view, 7> values = {"same", "png",  "jpeg", "tiff",
                                                             "webp", "avif", "heic"};
};
template <>
struct RawValues<AgentIfExists> {
  static constexpr std::array<std::string_view, 3> values = {"number", "skip", "overwrite"};
};
template <>
struct RawValues<AgentSourceKind> {
  static constexpr std::array<std::string_view, 2> values = {"file", "folder"};
};
template <>
struct RawValues<AgentItemState> {
  static constexpr std::array<std::string_view, 6> values = {"pending", "running", "completed",
                                                             "skipped", "failed",  "cancelled"};
};
template <>
struct RawValues<AgentResultState> {
  static constexpr std::array<std::string_view, 6> values = {"completed", "partial",  "failed",
                                                             "cancelled", "rejected", "running"};
};
template <>
struct RawValues<AgentPlanAction> {
  static constexpr std::array<std::string_view, 4> values = {"export", "number", "skip",
                                                             "overwrite"};
};
template <>
struct RawValues<AgentProgressEventName> {
  static constexpr std::array<std::string_view, 7> values = {
      "job_started", "item_started", "item_progress", "item_completed",
      "item_failed", "item_skipped", "job_finished"};
};
template <>
struct RawValues<AgentErrorCode> {
  static constexpr std::array<std::string_view, 18> values = {
      "invalid_argument",   "not_absolute_path",
      "source_missing",     "unreadable_source",
      "unsupported_format", "out_required_for_folder",
      "output_exists",      "recipe_not_found",
      "recipe_invalid",     "onboarding_incomplete",
      "app_not_found",      "version_mismatch",
      "app_quit",           "timeout",
      "cancelled",          "request_expired",
      "export_failed",      "internal"};
};

template <typename Enumeration>
std::string_view rawValueOf(Enumeration value) {
  const auto& values = RawValues<Enumeration>::values;
  const auto index = static_cast<size_t>(value);
  // A value cast from an integer outside the enumeration has no raw value;
  // writing a neighbour's instead would put a lie into a document.
  return index < values.size() ? values[index] : std::string_view();
}

AgentErrorInfo info(AgentErrorCode code, std::string message) { return {code, std::move(message)}; }

}  // namespace

namespace AgentProtocol {

std::string timestampString(WallTime date) { return formatIso8601(date); }

std::optional<WallTime> parseTimestamp(std::string_view text) {
  // The general reader also takes "+01:00" and "-00:00"; documents carry
  // UTC written with "Z" only, so a local time is never mistaken for one.
  if (text.empty() || text.back() != 'Z') return std::nullopt;
  // The clock counts nanoseconds in 64 bits, which spans 292 years each side
  // of 1970: a year far out would wrap around to some other time (a crafted
  // one could land inside a request's lifetime), and so could the age of a
  // request computed from it. Any two times from 1970 to 2199 subtract
  // safely.
  if (text.size() < 4 ||
      !std::all_of(text.begin(), text.begin() + 4, [](char c) { return c >= '0' && c <= '9'; }))
    return std::nullopt;
  const int year = std::stoi(std::string(text.substr(0, 4)));
  if (year < 1970 || year > 2199) return std::nullopt;
  return parseIso8601(text);
}

bool isValidJobID(std::string_view text) { return isUuid(text); }

}  // namespace AgentProtocol

std::string_view rawValue(AgentCommand value) { return rawValueOf(value); }
std::string_view rawValue(AgentSizeMode value) { return rawValueOf(value); }
std::string_view rawValue(AgentMethod value) { return rawValueOf(value); }
std::string_view rawValue(AgentFormat value) { return rawValueOf(value); }
std::string_view rawValue(AgentIfExists value) { return rawValueOf(value); }
std::string_view rawValue(AgentSourceKind value) { return rawValueOf(value); }
std::string_view rawValue(AgentItemState value) { return rawValueOf(value); }
std::string_view rawValue(AgentResultState value) { return rawValueOf(value); }
std::string_view rawValue(AgentPlanAction value) { return rawValueOf(value); }
std::string_view rawValue(AgentProgressEventName value) { return rawValueOf(value); }
std::string_view rawValue(AgentErrorCode value) { return rawValueOf(value); }
int32_t rawValue(AgentExitCode value) { return static_cast<int32_t>(value); }

template <typename Enumeration>
std::optional<Enumeration> fromRawValue(std::string_view raw) {
  const auto& values = RawValues<Enumeration>::values;
  for (size_t i = 0; i < values.size(); ++i)
    if (values[i] == raw) return static_cast<Enumeration>(i);
  return std::nullopt;
}

template std::optional<AgentCommand> fromRawValue(std::string_view);
template std::optional<AgentSizeMode> fromRawValue(std::string_view);
template std::optional<AgentMethod> fromRawValue(std::string_view);
template std::optional<AgentFormat> fromRawValue(std::string_view);
template std::optional<AgentIfExists> fromRawValue(std::string_view);
template std::optional<AgentSourceKind> fromRawValue(std::string_view);
template std::optional<AgentItemState> fromRawValue(std::string_view);
template std::optional<AgentResultState> fromRawValue(std::string_view);
template std::optional<AgentPlanAction> fromRawValue(std::string_view);
template std::optional<AgentProgressEventName> fromRawValue(std::string_view);
template std::optional<AgentErrorCode> fromRawValue(std::string_view);

std::optional<AgentExitCode> exitCodeFromRawValue(int64_t raw) {
  switch (raw) {
    case 0:
    case 1:
    case 2:
    case 3:
    case 5:
    case 6:
    case 130:
      return static_cast<AgentExitCode>(raw);
    default:
      return std::nullopt;
  }
}

AgentExitCode exitCode(AgentErrorCode code) {
  switch (code) {
    case AgentErrorCode::invalidArgument:
    case AgentErrorCode::notAbsolutePath:
    case AgentErrorCode::outRequiredForFolder:
    case AgentErrorCode::recipeNotFound:
    case AgentErrorCode::recipeInvalid:
    case AgentErrorCode::requestExpired:
      return AgentExitCode::usage;
    case AgentErrorCode::sourceMissing:
    case AgentErrorCode::unreadableSource:
    case AgentErrorCode::unsupportedFormat:
    case AgentErrorCode::outputExists:
    case AgentErrorCode::exportFailed:
    case AgentErrorCode::internal:
      return AgentExitCode::failure;
    case AgentErrorCode::onboardingIncomplete:
    case AgentErrorCode::appNotFound:
    case AgentErrorCode::versionMismatch:
    case AgentErrorCode::appQuit:
      return AgentExitCode::appUnavailable;
    case AgentErrorCode::timeout:
      return AgentExitCode::timeout;
    case AgentErrorCode::cancelled:
      return AgentExitCode::cancelled;
  }
  return AgentExitCode::failure;
}

ResampleMethod toResampleMethod(AgentMethod method) {
  switch (method) {
    case AgentMethod::exact:
      return ResampleMethod::exact;
    case AgentMethod::clarity:
      return ResampleMethod::clarity;
    case AgentMethod::enhance:
      return ResampleMethod::estimate;
  }
  return ResampleMethod::exact;
}

AgentMethod toAgentMethod(ResampleMethod method) {
  switch (method) {
    case ResampleMethod::exact:
      return AgentMethod::exact;
    case ResampleMethod::clarity:
      return AgentMethod::clarity;
    case ResampleMethod::estimate:
      return AgentMethod::enhance;
  }
  return AgentMethod::exact;
}

std::optional<encoding::ExportFormat> toExportFormat(AgentFormat format) {
  using encoding::ExportFormat;
  switch (format) {
    case AgentFormat::same:
      return std::nullopt;
    case AgentFormat::png:
      return ExportFormat::png;
    case AgentFormat::jpeg:
      return ExportFormat::jpeg;
    case AgentFormat::tiff:
      return ExportFormat::tiff;
    case AgentFormat::webp:
      return ExportFormat::webp;
    case AgentFormat::avif:
      return ExportFormat::avif;
    case AgentFormat::heic:
      return ExportFormat::heic;
  }
  return std::nullopt;
}

AgentFormat toAgentFormat(encoding::ExportFormat format) {
  using encoding::ExportFormat;
  switch (format) {
    case ExportFormat::png:
      return AgentFormat::png;
    case ExportFormat::jpeg:
      return AgentFormat::jpeg;
    case ExportFormat::tiff:
      return AgentFormat::tiff;
    case ExportFormat::webp:
      return AgentFormat::webp;
    case ExportFormat::avif:
      return AgentFormat::avif;
    case ExportFormat::heic:
      return AgentFormat::heic;
  }
  return AgentFormat::png;
}

SizeMode toSizeMode(AgentSizeMode mode) {
  switch (mode) {
    case AgentSizeMode::x2:
      return SizeMode::x2;
    case AgentSizeMode::x4:
      return SizeMode::x4;
    case AgentSizeMode::x8:
      return SizeMode::x8;
    case AgentSizeMode::percent:
      return SizeMode::percent;
    case AgentSizeMode::longEdge:
      return SizeMode::longEdge;
    case AgentSizeMode::width:
      return SizeMode::width;
    case AgentSizeMode::height:
      return SizeMode::height;
    case AgentSizeMode::box:
      return SizeMode::boundingBox;
  }
  return SizeMode::x2;
}

AgentSizeMode toAgentSizeMode(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2:
      return AgentSizeMode::x2;
    case SizeMode::x4:
      return AgentSizeMode::x4;
    case SizeMode::x8:
      return AgentSizeMode::x8;
    case SizeMode::percent:
      return AgentSizeMode::percent;
    case SizeMode::longEdge:
      return AgentSizeMode::longEdge;
    case SizeMode::width:
      return AgentSizeMode::width;
    case SizeMode::height:
      return AgentSizeMode::height;
    case SizeMode::boundingBox:
      return AgentSizeMode::box;
  }
  return AgentSizeMode::x2;
}

// ---------------------------------------------------------------------------
// The message catalogue.

// Where no sentence of the catalogue fits, the error-code table's own
// description of the code, as a sentence.
AgentErrorInfo AgentErrorInfo::generic(AgentErrorCode code) {
  using C = AgentErrorCode;
  switch (code) {
    case C::invalidArgument:
      return info(code, "A request field is missing, malformed or out of range.");
    case C::notAbsolutePath:
      return info(code, "A path is not absolute.");
    case C::sourceMissing:
      return info(code, "A source path does not exist.");
    case C::unreadableSource:
      return info(code, "A source exists but cannot be read as an image.");
    case C::unsupportedFormat:
      return info(code, "The output format cannot be written on this system.");
    case C::outRequiredForFolder:
      return outRequiredForFolder();
    case C::outputExists:
      return info(code, "The output name is taken and cannot be used.");
    case C::recipeNotFound:
      return info(code, "No saved recipe has that id or name.");
    case C::recipeInvalid:
      return info(code, "The recipe cannot run unattended or is malformed.");
    case C::onboardingIncomplete:
      return info(code, "Open Tarnbloom once to finish setup.");
    case C::appNotFound:
      return info(code, "The caller could not find the application.");
    case C::versionMismatch:
      return versionMismatch();
    case C::appQuit:
      return info(code, "The application quit before the job ended.");
    case C::timeout:
      return info(code, "The caller gave up waiting.");
    case C::cancelled:
      return info(code, "The job or item was cancelled.");
    case C::requestExpired:
      return requestExpired();
    case C::exportFailed:
      return info(code, "The export pipeline failed for this item.");
    case C::internal:
      break;
  }
  return info(C::internal, "Unexpected internal error.");
}

AgentErrorInfo AgentErrorInfo::sourcesRequired() {
  return info(AgentErrorCode::invalidArgument, "At least one source is required.");
}

AgentErrorInfo AgentErrorInfo::sizeNeedsPixelValue(AgentSizeMode mode) {
  return info(AgentErrorCode::invalidArgument,
              "size " + std::string(rawValue(mode)) + " needs a pixel value of at least 1.");
}

AgentErrorInfo AgentErrorInfo::sizeBoxNeedsWidthAndHeight() {
  return info(AgentErrorCode::invalidArgument,
              "size box needs a width and a height of at least 1.");
}

AgentErrorInfo AgentErrorInfo::sizePercentNeedsPositiveValue() {
  return info(AgentErrorCode::invalidArgument, "size percent needs a value greater than 0.");
}

AgentErrorInfo AgentErrorInfo::strengthOutOfRange() {
  return info(AgentErrorCode::invalidArgument, "strength must be between 0.0 and 1.0.");
}

AgentErrorInfo AgentErrorInfo::strengthNeedsEnhance() {
  return info(AgentErrorCode::invalidArgument, "strength applies to the enhance method only.");
}

AgentErrorInfo AgentErrorInfo::qualityOutOfRange() {
  return info(AgentErrorCode::invalidArgument, "quality must be between 1 and 100.");
}

AgentErrorInfo AgentErrorInfo::qualityNeedsJpegOrWebp() {
  return info(AgentErrorCode::invalidArgument, "quality applies to jpeg and webp only.");
}

AgentErrorInfo AgentErrorInfo::nameEmpty() {
  return info(AgentErrorCode::invalidArgument, "name must not be empty.");
}

AgentErrorInfo AgentErrorInfo::nameContainsSlash() {
  return info(AgentErrorCode::invalidArgument,
              "name is a file name template; it cannot contain “/”.");
}

AgentErrorInfo AgentErrorInfo::recipeRunNeedsRecipe() {
  return info(AgentErrorCode::invalidArgument, "recipe_run needs a recipe id or name.");
}

AgentErrorInfo AgentErrorInfo::recipeRunTakesRecipeAndSourcesOnly() {
  return info(AgentErrorCode::invalidArgument,
              "recipe_run takes a recipe and sources only; the recipe decides size, method, "
              "format and naming.");
}

AgentErrorInfo AgentErrorInfo::jobIDNotUUID() {
  return info(AgentErrorCode::invalidArgument, "The job id is not a UUID.");
}

AgentErrorInfo AgentErrorInfo::notAbsolutePath(std::string_view field, std::string_view path) {
  return info(
      AgentErrorCode::notAbsolutePath,
      std::string(field) + " must be an absolute path starting with “/”: " + std::string(path));
}

AgentErrorInfo AgentErrorInfo::sourceMissing(std::string_view path) {
  return info(AgentErrorCode::sourceMissing, std::string(path) + " does not exist.");
}

AgentErrorInfo AgentErrorInfo::outRequiredForFolder() {
  return info(AgentErrorCode::outRequiredForFolder,
              "A folder source needs an output folder (out), so a re-run never reads its own "
              "output.");
}

AgentErrorInfo AgentErrorInfo::outputFolderIsFile(std::string_view path) {
  return info(AgentErrorCode::invalidArgument, "The output folder is a file: " + std::string(path));
}

AgentErrorInfo AgentErrorInfo::noImagesFound() {
  return info(AgentErrorCode::invalidArgument, "No images were found in the given sources.");
}

AgentErrorInfo AgentErrorInfo::cannotWriteFormat(encoding::ExportFormat format) {
  return info(AgentErrorCode::unsupportedFormat,
              "This computer cannot write " + std::string(encoding::title(format)) + " files.");
}

AgentErrorInfo AgentErrorInfo::recipeNameAmbiguous(std::string_view name) {
  return info(AgentErrorCode::recipeNotFound,
              "More than one recipe is named “" + std::string(name) + "”; use its id.");
}

AgentErrorInfo AgentErrorInfo::recipeNotFound(std::string_view idOrName) {
  return info(AgentErrorCode::recipeNotFound,
              "No saved recipe has the id or name “" + std::string(idOrName) + "”.");
}

AgentErrorInfo AgentErrorInfo::versionMismatch() {
  return info(AgentErrorCode::versionMismatch, "This app speaks agent protocol " +
                                                   std::to_string(AgentProtocol::version) +
                                                   "; the request does not.");
}

AgentErrorInfo AgentErrorInfo::requestExpired() {
  return info(AgentErrorCode::requestExpired,
              "This request is more than 24 hours old and was ignored. Send it again.");
}

AgentErrorInfo AgentErrorInfo::requestFromTheFuture() {
  return info(AgentErrorCode::invalidArgument,
              "This request is dated in the future; check the clock and send it again.");
}

AgentErrorInfo AgentErrorInfo::jobAlreadyRunning() {
  return info(AgentErrorCode::invalidArgument, "A job with this id is already running.");
}

AgentErrorInfo AgentErrorInfo::unknownJob() {
  return info(AgentErrorCode::invalidArgument, "No job with that id is known.");
}

AgentErrorInfo AgentErrorInfo::notAnExportJob(std::string_view job) {
  return info(AgentErrorCode::invalidArgument, std::string(job) + " is not an export job.");
}

AgentErrorInfo AgentErrorInfo::notAnInformationCommand(AgentCommand command) {
  return info(AgentErrorCode::internal,
              std::string(rawValue(command)) + " is not an information command.");
}

AgentErrorInfo AgentErrorInfo::jobCancelled() {
  return info(AgentErrorCode::cancelled, "The job was cancelled.");
}

AgentErrorInfo AgentErrorInfo::exportFailed() {
  return info(AgentErrorCode::exportFailed, "The export failed.");
}

AgentErrorInfo AgentErrorInfo::itemNotExported() {
  return info(AgentErrorCode::exportFailed, "This item was not exported.");
}

AgentErrorInfo AgentErrorInfo::appQuitBeforeItemFinished() {
  return info(AgentErrorCode::appQuit,
              "Tarnbloom quit before this item finished. Open Tarnbloom and use the Export Queue "
              "to resume it.");
}

}  // namespace tarnbloom::agent
