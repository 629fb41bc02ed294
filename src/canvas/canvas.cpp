#include "canvas/canvas.h"

#include <cerrno>
#include <initializer_list>

#include "support/files.h"
#include "support/sha256.h"

namespace tarnbloom::canvas {
namespace {

// Free text goes in with its length first, so that no choice of values can
// make two different contexts spell the same fingerprint ("a;b" + "c" must
// differ from "a" + "b;c").
void appendText(std::string& out, std::string_view key, std::string_view text) {
  out += key;
  out += '=';
  out += std::to_string(text.size());
  out += ':';
  out += text;
  out += ';';
}

void appendNumbers(std::string& out, std::string_view key, std::initializer_list<int64_t> values) {
  out += key;
  out += '=';
  bool first = true;
  for (const int64_t value : values) {
    if (!first) out += ',';
    out += std::to_string(value);
    first = false;
  }
  out += ';';
}

}  // namespace

std::string_view rawValue(CanvasMode mode) {
  switch (mode) {
    case CanvasMode::exact:
      return "exact";
    case CanvasMode::crop:
      return "crop";
    case CanvasMode::subjectAware:
      return "subject_aware";
  }
  return {};
}

std::optional<CanvasMode> canvasModeFromRawValue(std::string_view text) {
  for (const CanvasMode mode : {CanvasMode::exact, CanvasMode::crop, CanvasMode::subjectAware})
    if (rawValue(mode) == text) return mode;
  return std::nullopt;
}

std::string CanvasPreviewContext::fingerprint() const {
  std::string out = "v1;";
  appendText(out, "source", sourceIdentity);
  appendNumbers(out, "resampled", {resampledWidth, resampledHeight});
  // The enumerator's number, not its raw value: a value outside the
  // enumeration must still give a fingerprint of its own.
  appendNumbers(out, "mode", {static_cast<int64_t>(canvas.mode)});
  appendNumbers(out, "canvas", {canvas.width, canvas.height});
  if (canvas.fill) {
    appendNumbers(out, "fill", {static_cast<int64_t>(canvas.fill->kind)});
    appendText(out, "fillValue", canvas.fill->value);
  } else {
    out += "fill=none;";
  }
  if (canvas.cropRect) {
    const CropRect& r = *canvas.cropRect;
    appendNumbers(out, "crop", {r.x, r.y, r.w, r.h});
  } else {
    out += "crop=none;";
  }
  appendText(out, "format", formatToken);
  return out;
}

std::string CanvasSourceIdentity::of(const std::filesystem::path& path) {
  if (auto digest = sha256OfFile(path)) return *std::move(digest);
  // The digest only says that reading failed; opening the file again
  // recovers the system's own reason (missing, not permitted, a folder).
  openRegularFile(path);
  // It opens now, so the failure came while reading its bytes.
  throw FileError(path, "read", EIO);
}

}  // namespace tarnbloom::canvas
