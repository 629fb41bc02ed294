#include "canvas/canvas_json.h"

namespace tarnbloom::canvas {

namespace {

template <typename T>
std::optional<T> field(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) return std::nullopt;
  if constexpr (std::is_same_v<T, int64_t>) {
    if (!found->is_number_integer()) return std::nullopt;
  } else if constexpr (std::is_same_v<T, double>) {
    if (!found->is_number()) return std::nullopt;
  } else {
    if (!found->is_string()) return std::nullopt;
  }
  return found->get<T>();
}

}  // namespace

nlohmann::ordered_json canvasJson(const Canvas& canvas) {
  nlohmann::ordered_json json = {
      {"mode", rawValue(canvas.mode)}, {"width", canvas.width}, {"height", canvas.height}};
  if (canvas.fill)
    json["fill"] = canvas.fill->kind == CanvasFill::Kind::colour
                       ? nlohmann::ordered_json{{"kind", "colour"}, {"value", canvas.fill->value}}
                       : nlohmann::ordered_json{{"kind", "transparent"}, {"value", nullptr}};
  else
    json["fill"] = nullptr;
  if (canvas.cropRect)
    json["crop_rect"] = {{"x", canvas.cropRect->x},
                         {"y", canvas.cropRect->y},
                         {"w", canvas.cropRect->w},
                         {"h", canvas.cropRect->h}};
  else
    json["crop_rect"] = nullptr;
  return json;
}

std::optional<Canvas> canvasFromJson(const nlohmann::json& json) {
  if (!json.is_object()) return std::nullopt;
  const auto mode = field<std::string>(json, "mode");
  const auto width = field<int64_t>(json, "width");
  const auto height = field<int64_t>(json, "height");
  if (!mode || !width || !height) return std::nullopt;
  Canvas canvas;
  const auto parsed = canvasModeFromRawValue(*mode);
  if (!parsed) return std::nullopt;
  canvas.mode = *parsed;
  canvas.width = *width;
  canvas.height = *height;
  if (const auto fill = json.find("fill"); fill != json.end() && !fill->is_null()) {
    if (!fill->is_object()) return std::nullopt;
    const auto kind = field<std::string>(*fill, "kind");
    if (kind == "colour") {
      const auto value = field<std::string>(*fill, "value");
      if (!value) return std::nullopt;
      canvas.fill = CanvasFill{CanvasFill::Kind::colour, *value};
    } else if (kind == "transparent") {
      canvas.fill = CanvasFill{CanvasFill::Kind::transparent, {}};
    } else {
      return std::nullopt;
    }
  }
  if (const auto rect = json.find("crop_rect"); rect != json.end() && !rect->is_null()) {
    if (!rect->is_object()) return std::nullopt;
    const auto x = field<int64_t>(*rect, "x"), y = field<int64_t>(*rect, "y");
    const auto w = field<int64_t>(*rect, "w"), h = field<int64_t>(*rect, "h");
    if (!x || !y || !w || !h) return std::nullopt;
    canvas.cropRect = CropRect{*x, *y, *w, *h};
  }
  return canvas;
}

nlohmann::ordered_json confirmationJson(const CanvasConfirmation& confirmation) {
  const CanvasPreviewContext& context = confirmation.context;
  nlohmann::ordered_json json = {{"source_sha256", context.sourceIdentity},
                                 {"resampled_width", context.resampledWidth},
                                 {"resampled_height", context.resampledHeight},
                                 {"canvas", canvasJson(context.canvas)},
                                 {"format", context.formatToken},
                                 {"fingerprint", context.fingerprint()}};
  if (confirmation.subjectCentre)
    json["subject_centre"] = {confirmation.subjectCentre->x, confirmation.subjectCentre->y};
  return json;
}

std::optional<CanvasConfirmation> confirmationFromJson(const nlohmann::json& json) {
  if (!json.is_object()) return std::nullopt;
  CanvasConfirmation confirmation;
  CanvasPreviewContext& context = confirmation.context;
  const auto source = field<std::string>(json, "source_sha256");
  const auto width = field<int64_t>(json, "resampled_width");
  const auto height = field<int64_t>(json, "resampled_height");
  const auto format = field<std::string>(json, "format");
  const auto fingerprint = field<std::string>(json, "fingerprint");
  const auto canvas = json.contains("canvas") ? canvasFromJson(json["canvas"]) : std::nullopt;
  if (!source || !width || !height || !format || !fingerprint || !canvas) return std::nullopt;
  context.sourceIdentity = *source;
  context.resampledWidth = *width;
  context.resampledHeight = *height;
  context.canvas = *canvas;
  context.formatToken = *format;
  if (context.fingerprint() != *fingerprint) return std::nullopt;
  if (const auto centre = json.find("subject_centre"); centre != json.end()) {
    if (!centre->is_array() || centre->size() != 2 || !(*centre)[0].is_number() ||
        !(*centre)[1].is_number())
      return std::nullopt;
    confirmation.subjectCentre =
        CanvasConfirmation::Point{(*centre)[0].get<double>(), (*centre)[1].get<double>()};
  }
  return confirmation;
}

}  // namespace tarnbloom::canvas
