#pragma once

#include <nlohmann/json.hpp>
#include <optional>

#include "canvas/canvas.h"

namespace tarnbloom::canvas {

// The JSON form of a canvas ("mode", "width", "height", "fill" {"kind",
// "value"}, "crop_rect" {"x", "y", "w", "h"}), as recipes, receipts and the
// export queue write it.
nlohmann::ordered_json canvasJson(const Canvas& canvas);
// None for anything that is not a complete, well-typed canvas: a canvas
// read back wrong must never be applied.
std::optional<Canvas> canvasFromJson(const nlohmann::json& json);

// A confirmation as saved beside its preview ("….tarnbloomcrop") and in the
// export queue: the context it is bound to and its fingerprint.
nlohmann::ordered_json confirmationJson(const CanvasConfirmation& confirmation);
// None when malformed or when the fingerprint does not match the context.
std::optional<CanvasConfirmation> confirmationFromJson(const nlohmann::json& json);

}  // namespace tarnbloom::canvas
