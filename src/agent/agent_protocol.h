#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "engine/size_mode.h"
#include "support/error.h"
#include "support/iso_time.h"

// The vocabulary that scripts, the command-line tool and agents share with
// the application: constants, enumerations with their raw values, error
// codes with their exit codes and message texts. The documents built from
// it are in agent_request.h and agent_result.h.
namespace tarnbloom::agent {

namespace AgentProtocol {

inline constexpr int64_t version = 1;
inline constexpr std::string_view requestSchema = "com.tarnbloom.agent.request/1";
inline constexpr std::string_view resultSchema = "com.tarnbloom.agent.result/1";
inline constexpr std::string_view progressSchema = "com.tarnbloom.agent.progress/1";
// A request older than this (by created_at) is refused.
inline constexpr std::chrono::seconds requestLifetime{86'400};
// A request dated further ahead of the clock than this is refused; less is
// taken for clock difference between machines.
inline constexpr std::chrono::seconds futureTolerance{300};
// How often a running job rewrites its result document (updated_at).
inline constexpr std::chrono::duration<double> heartbeatInterval{2.0};
// A "running" result not rewritten for this long counts as abandoned.
inline constexpr std::chrono::duration<double> staleAfter{30.0};
// The system-wide notification posted when a job's documents change.
inline constexpr std::string_view notificationName = "com.tarnbloom.agent.job";

// Requests are a few hundred bytes; the inbox refuses larger files unread.
inline constexpr size_t maxRequestBytes = size_t{1} << 20;
// A result lists one item per output, so a big batch writes megabytes.
inline constexpr size_t maxResultBytes = size_t{64} << 20;
inline constexpr size_t maxProgressEventBytes = size_t{1} << 20;
// Deeper than any of our documents nest (four levels), shallow enough that
// no walk over a tree read from a hostile file exhausts the stack.
inline constexpr int maxNestingDepth = 16;

// "2026-11-14T21:06:21Z": UTC, whole seconds (fractions are dropped).
std::string timestampString(WallTime date);
// That form, or the same with fractional seconds; anything else (a zone
// other than "Z", a missing zone, an impossible date, a year outside 1970
// to 2199, which the clock could not hold safely) gives nothing.
std::optional<WallTime> parseTimestamp(std::string_view text);

// Canonical UUID text in either case: 36 characters, "-" after the 8th,
// 12th, 16th and 20th hexadecimal digit.
bool isValidJobID(std::string_view text);

}  // namespace AgentProtocol

// Every enumeration below is written as its raw value, in the order given.

enum class AgentCommand { enlarge, recipeRun, recipeList, status, cancel, doctor };
enum class AgentSizeMode { x2, x4, x8, percent, longEdge, width, height, box };
enum class AgentMethod { exact, clarity, enhance };
// `same` keeps each source's format.
enum class AgentFormat { same, png, jpeg, tiff, webp, avif, heic };
enum class AgentIfExists { number, skip, overwrite };
enum class AgentSourceKind { file, folder };
enum class AgentItemState { pending, running, completed, skipped, failed, cancelled };
enum class AgentResultState { completed, partial, failed, cancelled, rejected, running };
// exportItem is "export": the planned name is free.
enum class AgentPlanAction { exportItem, number, skip, overwrite };
enum class AgentProgressEventName {
  jobStarted,
  itemStarted,
  itemProgress,
  itemCompleted,
  itemFailed,
  itemSkipped,
  jobFinished
};
enum class AgentErrorCode {
  invalidArgument,
  notAbsolutePath,
  sourceMissing,
  unreadableSource,
  unsupportedFormat,
  outRequiredForFolder,
  outputExists,
  recipeNotFound,
  recipeInvalid,
  onboardingIncomplete,
  appNotFound,
  versionMismatch,
  appQuit,
  timeout,
  cancelled,
  requestExpired,
  exportFailed,
  internal
};

// The process exit codes of the command-line caller; the raw value is the
// exit status.
enum class AgentExitCode : int32_t {
  success = 0,
  usage = 1,
  partial = 2,
  failure = 3,
  appUnavailable = 5,
  timeout = 6,
  cancelled = 130
};

std::string_view rawValue(AgentCommand value);
std::string_view rawValue(AgentSizeMode value);
std::string_view rawValue(AgentMethod value);
std::string_view rawValue(AgentFormat value);
std::string_view rawValue(AgentIfExists value);
std::string_view rawValue(AgentSourceKind value);
std::string_view rawValue(AgentItemState value);
std::string_view rawValue(AgentResultState value);
std::string_view rawValue(AgentPlanAction value);
std::string_view rawValue(AgentProgressEventName value);
std::string_view rawValue(AgentErrorCode value);
int32_t rawValue(AgentExitCode value);

// The case whose raw value is exactly `raw` (case-sensitive), or nothing.
// Defined for every enumeration above but AgentExitCode.
template <typename Enumeration>
std::optional<Enumeration> fromRawValue(std::string_view raw);

// Only the seven exit statuses above; any other integer gives nothing.
std::optional<AgentExitCode> exitCodeFromRawValue(int64_t raw);

// The exit code an error leads to; a value outside the enumeration gives
// failure (3).
AgentExitCode exitCode(AgentErrorCode code);

// The engine's and encoders' own types, one to one ("same" has no format).
ResampleMethod toResampleMethod(AgentMethod method);
AgentMethod toAgentMethod(ResampleMethod method);
std::optional<encoding::ExportFormat> toExportFormat(AgentFormat format);
AgentFormat toAgentFormat(encoding::ExportFormat format);
SizeMode toSizeMode(AgentSizeMode mode);
AgentSizeMode toAgentSizeMode(SizeMode mode);

// The error object of results and progress events: a code and the sentence
// that explains it. The factories are the message catalogue, so each text
// is written in one place and always travels with its code.
struct AgentErrorInfo {
  AgentErrorCode code = AgentErrorCode::internal;
  std::string message;

  bool operator==(const AgentErrorInfo&) const = default;

  // The sentence for a code when nothing more specific fits.
  static AgentErrorInfo generic(AgentErrorCode code);

  // Request values.
  static AgentErrorInfo sourcesRequired();
  // long_edge, width or height without a value of at least 1.
  static AgentErrorInfo sizeNeedsPixelValue(AgentSizeMode mode);
  static AgentErrorInfo sizeBoxNeedsWidthAndHeight();
  static AgentErrorInfo sizePercentNeedsPositiveValue();
  static AgentErrorInfo strengthOutOfRange();
  static AgentErrorInfo strengthNeedsEnhance();
  static AgentErrorInfo qualityOutOfRange();
  static AgentErrorInfo qualityNeedsJpegOrWebp();
  static AgentErrorInfo nameEmpty();
  static AgentErrorInfo nameContainsSlash();
  static AgentErrorInfo recipeRunNeedsRecipe();
  static AgentErrorInfo recipeRunTakesRecipeAndSourcesOnly();
  static AgentErrorInfo jobIDNotUUID();
  // `field` names the key ("out", "source").
  static AgentErrorInfo notAbsolutePath(std::string_view field, std::string_view path);

  // Sources, outputs and recipes.
  static AgentErrorInfo sourceMissing(std::string_view path);
  static AgentErrorInfo outRequiredForFolder();
  static AgentErrorInfo outputFolderIsFile(std::string_view path);
  static AgentErrorInfo noImagesFound();
  static AgentErrorInfo cannotWriteFormat(encoding::ExportFormat format);
  static AgentErrorInfo recipeNameAmbiguous(std::string_view name);
  static AgentErrorInfo recipeNotFound(std::string_view idOrName);

  // The request's header.
  static AgentErrorInfo versionMismatch();
  static AgentErrorInfo requestExpired();
  static AgentErrorInfo requestFromTheFuture();

  // Jobs.
  static AgentErrorInfo jobAlreadyRunning();
  static AgentErrorInfo unknownJob();
  static AgentErrorInfo notAnExportJob(std::string_view job);
  static AgentErrorInfo notAnInformationCommand(AgentCommand command);
  static AgentErrorInfo jobCancelled();
  static AgentErrorInfo exportFailed();
  static AgentErrorInfo itemNotExported();
  static AgentErrorInfo appQuitBeforeItemFinished();
};

// A document refused, or an agent rule broken: the error object to report
// (description() is its message) and, for logs, what exactly was wrong.
class AgentProtocolError : public Error {
 public:
  explicit AgentProtocolError(AgentErrorInfo info, std::string details = {})
      : m_info(std::move(info)), m_details(std::move(details)) {}

  const AgentErrorInfo& info() const { return m_info; }
  AgentErrorCode code() const { return m_info.code; }
  std::string description() const override { return m_info.message; }
  std::string details() const override { return m_details; }

 private:
  AgentErrorInfo m_info;
  std::string m_details;
};

}  // namespace tarnbloom::agent
