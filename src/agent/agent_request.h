#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "agent/agent_protocol.h"
#include "canvas/canvas.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "engine/resample_method.h"
#include "support/iso_time.h"

namespace tarnbloom::exporting {
struct ExportOptions;
struct JobDescription;
}

namespace tarnbloom::agent {

// A file or folder to read.
struct AgentSource {
  std::string path;
  AgentSourceKind kind = AgentSourceKind::file;

  bool operator==(const AgentSource&) const = default;
};

// A target size: `value` is the percentage ("percent") or the pixel length
// ("long_edge", "width", "height"); `width` and `height` the box ("box").
struct AgentSize {
  AgentSizeMode mode = AgentSizeMode::x2;
  std::optional<double> value;
  std::optional<int64_t> width;
  std::optional<int64_t> height;

  bool operator==(const AgentSize&) const = default;
};

// Where an export's receipt goes: beside the exported file, or into the
// state folder's receipts.
enum class AgentReceipts { beside, store };

// Export settings beyond the protocol's own keys, which the command-line
// tool's flags need: written as the object `settings`. Absent keys keep
// the base options.
struct AgentExportSettings {
  std::optional<int64_t> maxKB;  // max_kb: JPEG ceiling, 1 KB = 1000 bytes
  // Each lossy format's quality, 1–100: the protocol's `quality` names one
  // format, the command line's --quality every format a batch may write.
  std::optional<int64_t> jpegQuality;  // jpeg_quality
  std::optional<int64_t> webpQuality;  // webp_quality
  std::optional<int64_t> heifQuality;  // heif_quality: HEIC and AVIF
  std::optional<encoding::ProfilePolicy> profile;
  std::optional<encoding::MetadataToggle> icc;
  std::optional<encoding::MetadataToggle> exif;
  std::optional<encoding::MetadataToggle> xmp;
  std::optional<encoding::MetadataToggle> gps;
  std::optional<std::string> flatten;  // "white", "black" or "#RRGGBB"
  std::optional<canvas::Canvas> canvas;
  std::optional<canvas::CanvasConfirmation> canvasConfirmation;
  std::optional<AgentReceipts> receipts;
  // allow_8bit: someone confirmed reducing 16-bit sources to 8-bit formats.
  std::optional<bool> allow8Bit;
  // shard: "K/N", export only shard K (from 0) of N of the planned batch.
  std::optional<std::string> shard;

  bool operator==(const AgentExportSettings&) const = default;
};

// A request as another program wrote it. Absent keys stay absent, so that
// the application's settings can fill them where the request asks for that.
// The schema and protocol are not kept: a request of any other is refused
// while it is read, and one written from this value always carries ours.
struct AgentRequest {
  std::string job;
  AgentCommand command = AgentCommand::enlarge;
  WallTime createdAt;
  std::optional<std::string> targetJob;
  // Absent and empty mean the same: no sources.
  std::vector<AgentSource> sources;
  std::optional<std::string> recipe;
  std::optional<AgentSize> size;
  std::optional<AgentMethod> method;
  std::optional<double> strength;
  std::optional<AgentFormat> format;
  std::optional<int64_t> quality;
  std::optional<std::string> out;
  std::optional<std::string> name;
  std::optional<bool> recursive;
  std::optional<AgentIfExists> ifExists;
  std::optional<bool> useAppSettings;
  std::optional<bool> dryRun;
  std::optional<bool> notify;
  std::optional<AgentExportSettings> settings;

  bool operator==(const AgentRequest&) const = default;
};

// The request document, keys in protocol order, indented, ending in a
// newline. Throws AgentProtocolError (internal) for text that is not UTF-8.
std::string encodeRequest(const AgentRequest& request);

// Reads a request strictly: at most AgentProtocol::maxRequestBytes of
// UTF-8 JSON, no key twice, no key the protocol does not define, every
// value of its type, integers that fit 64 bits, timestamps in UTC with "Z",
// no NUL in any text. The schema and protocol are checked before anything
// else, so a caller speaking a newer protocol is told so rather than about
// keys this version does not know. Throws AgentProtocolError: code
// versionMismatch for another schema or protocol; invalidArgument with the
// generic sentence for everything else, the exact fault in details().
// Only shape and types are checked here; the rules on values are below.
AgentRequest decodeRequest(std::span<const std::byte> bytes);

// The header rules, in this order: the job id is a UUID, the request is not
// older than AgentProtocol::requestLifetime, and not dated more than
// AgentProtocol::futureTolerance ahead of `now`. Throws AgentProtocolError.
void validateRequestHeader(const AgentRequest& request, WallTime now);

// The rules on single values, each with its own message. The resolver
// applies them in its order, against the effective settings (the request's
// own over the base options). Each throws AgentProtocolError.

// `path` must begin with "/"; "~" and relative paths are never expanded.
// `what` names the key in the message ("source", "out").
void requireAbsolute(std::string_view path, std::string_view what);
// The mode's number is present and in range ("x2", "x4", "x8" take none;
// "percent" a value above 0; "long_edge", "width", "height" a value of at
// least 1; "box" a width and a height of at least 1). A number the mode does
// not use is refused too, since ignoring it would substitute silently.
void validateSize(const AgentSize& size);
// validateSize, then the size written into the options' size fields.
void applySize(const AgentSize& size, exporting::ExportOptions& options);
// Finite and within 0.0–1.0, and only when the effective method is Enhance.
void validateStrength(double strength, ResampleMethod effectiveMethod);
// 1–100, and only when the effective format is JPEG or WebP. No format
// (each source's own) cannot promise either, so it is refused.
void validateQuality(int64_t quality, std::optional<encoding::ExportFormat> effectiveFormat);
// A file-name template: not empty, no "/".
void validateNameTemplate(std::string_view name);
// A recipe run names a recipe and takes no size, method, strength, format,
// quality or name: the recipe decides those. Of `settings` it takes only
// receipts and allow_8bit.
void validateRecipeRunRequest(const AgentRequest& request);
// The settings written into the options and the job's description, after
// the protocol's own keys: max_kb a whole number from 1 to 10^9, flatten a
// colour the colour policy accepts, a canvas the composer can use, and a
// canvas confirmation only with a crop or suggested framing.
void applySettings(const AgentExportSettings& settings, exporting::JobDescription& description);

}  // namespace tarnbloom::agent
