#include "recipes/recipe.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "encoding/naming_engine.h"
#include "support/files.h"
#include "support/locale_numbers.h"
#include "support/strict_json.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

constexpr std::string_view kMethods[] = {"exact", "clarity", "estimate"};
constexpr std::string_view kFormats[] = {"png", "jpeg", "tiff", "webp"};

template <typename Range>
bool contains(const Range& range, std::string_view value) {
  return std::find(std::begin(range), std::end(range), value) != std::end(range);
}

bool isHexColour(std::string_view text) {
  return text.size() == 7 && text[0] == '#' &&
         std::all_of(text.begin() + 1, text.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
         });
}

bool isKeepOrStrip(std::string_view text) { return text == "keep" || text == "strip"; }

[[noreturn]] void refuse(std::string reason) { throw RecipeError::invalid(std::move(reason)); }

std::string childPath(const std::string& prefix, std::string_view key) {
  return prefix.empty() ? std::string(key) : prefix + "." + std::string(key);
}

// ---------------------------------------------------------------------------
// Reading JSON that other people wrote: a duplicate key could smuggle a
// second value past the key checks, and deep nesting would exhaust the stack
// of any walk over the tree, so the strict parser refuses both.

json parseGuarded(std::span<const std::byte> data) {
  try {
    return parseStrictJson(data, Recipe::kMaxNestingDepth);
  } catch (const StrictJsonError& error) {
    switch (error.errorCase()) {
      case StrictJsonError::Case::duplicateKey:
        throw RecipeError::unreadable("The recipe’s JSON has the key “" + error.text() +
                                      "” twice in one object, so which value counts is unclear.");
      case StrictJsonError::Case::tooDeep:
        throw RecipeError::unreadable("The recipe’s JSON nests deeper than " +
                                      std::to_string(Recipe::kMaxNestingDepth) + " levels.");
      case StrictJsonError::Case::binary:
        throw RecipeError::unreadable("The recipe’s JSON holds binary data.");
      case StrictJsonError::Case::syntax:
        break;
    }
    throw RecipeError::unreadable(error.text().empty() ? "The recipe’s JSON cannot be read."
                                                       : error.text());
  }
}

// ---------------------------------------------------------------------------
// The unknown-key pass.

template <size_t N>
void checkKeys(const json& object, const std::array<std::string_view, N>& vocabulary,
               const std::string& prefix) {
  // A json object is a std::map: its keys come in ascending byte order,
  // which for UTF-8 is code point order.
  for (const auto& [key, value] : object.get_ref<const json::object_t&>()) {
    if (!contains(vocabulary, key)) throw RecipeError::unknownField(childPath(prefix, key));
  }
}

template <size_t N>
const json* sectionToCheck(const json& object, std::string_view key,
                           const std::array<std::string_view, N>& vocabulary,
                           const std::string& prefix) {
  const auto it = object.find(key);
  if (it == object.end() || !it->is_object()) return nullptr;
  checkKeys(*it, vocabulary, childPath(prefix, key));
  return &*it;
}

void checkUnknownKeys(const json& root) {
  using V = Recipe::Vocabulary;
  if (!root.is_object()) return;
  checkKeys(root, V::document, "");
  const auto outputs = root.find("outputs");
  if (outputs == root.end() || !outputs->is_array()) return;
  size_t index = 0;
  for (const json& output : *outputs) {
    const std::string prefix = "outputs[" + std::to_string(index++) + "]";
    if (!output.is_object()) continue;
    checkKeys(output, V::output, prefix);
    sectionToCheck(output, "model", V::model, prefix);
    sectionToCheck(output, "dimensions", V::dimensions, prefix);
    if (const json* canvas = sectionToCheck(output, "canvas", V::canvas, prefix)) {
      const std::string canvasPrefix = prefix + ".canvas";
      sectionToCheck(*canvas, "fill", V::fill, canvasPrefix);
      sectionToCheck(*canvas, "crop_rect", V::cropRect, canvasPrefix);
    }
    sectionToCheck(output, "quality", V::quality, prefix);
    sectionToCheck(output, "colour", V::colour, prefix);
    sectionToCheck(output, "metadata", V::metadata, prefix);
    sectionToCheck(output, "naming", V::naming, prefix);
  }
}

// ---------------------------------------------------------------------------
// Typed decoding. Its messages name the key path, as the unknown-key pass
// does, so a person can find the place in the file.

std::string describe(const json& value) {
  switch (value.type()) {
    case json::value_t::null:
      return "null";
    case json::value_t::object:
      return "an object";
    case json::value_t::array:
      return "an array";
    case json::value_t::string:
      return "a string";
    case json::value_t::boolean:
      return "true or false";
    case json::value_t::number_integer:
    case json::value_t::number_unsigned:
    case json::value_t::number_float:
      return "a number";
    default:
      return "something else";
  }
}

[[noreturn]] void typeMismatch(const std::string& path, std::string_view expected,
                               const json& found) {
  throw RecipeError::unreadable("Expected " + std::string(expected) + " at " +
                                (path.empty() ? std::string("the top level") : path) + ", found " +
                                describe(found) + ".");
}

int64_t toInteger(const json& value, const std::string& path) {
  constexpr double kTwoTo63 = 9223372036854775808.0;
  const auto tooLarge = [&] {
    return RecipeError::unreadable("The number at " + path + " does not fit a 64-bit integer.");
  };
  switch (value.type()) {
    case json::value_t::number_integer:
      return value.get<int64_t>();
    case json::value_t::number_unsigned: {
      const auto unsignedValue = value.get<uint64_t>();
      if (unsignedValue > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        throw tooLarge();
      return static_cast<int64_t>(unsignedValue);
    }
    case json::value_t::number_float: {
      // The parser turns integer literals past 64 bits into doubles; tools
      // that write 1200.0 for 1200 are read as they meant it.
      const double d = value.get<double>();
      if (d != std::trunc(d))
        throw RecipeError::unreadable("Expected an integer at " + path +
                                      ", found a number with a fraction.");
      if (d >= kTwoTo63 || d < -kTwoTo63) throw tooLarge();
      return static_cast<int64_t>(d);
    }
    default:
      typeMismatch(path, "an integer", value);
  }
}

// The keys of one object, read with their full paths.
class Fields {
 public:
  Fields(const json& object, std::string prefix) : m_object(object), m_prefix(std::move(prefix)) {}

  const std::string& prefix() const { return m_prefix; }

  std::string string(std::string_view key) const {
    const json& value = required(key);
    if (!value.is_string()) typeMismatch(path(key), "a string", value);
    return value.get<std::string>();
  }
  std::optional<std::string> optionalString(std::string_view key) const {
    const json* value = optional(key);
    if (!value) return std::nullopt;
    if (!value->is_string()) typeMismatch(path(key), "a string", *value);
    return value->get<std::string>();
  }
  int64_t integer(std::string_view key) const { return toInteger(required(key), path(key)); }
  std::optional<int64_t> optionalInteger(std::string_view key) const {
    const json* value = optional(key);
    if (!value) return std::nullopt;
    return toInteger(*value, path(key));
  }
  std::optional<double> optionalNumber(std::string_view key) const {
    const json* value = optional(key);
    if (!value) return std::nullopt;
    if (!value->is_number()) typeMismatch(path(key), "a number", *value);
    return value->get<double>();
  }
  Fields object(std::string_view key) const {
    const json& value = required(key);
    if (!value.is_object()) typeMismatch(path(key), "an object", value);
    return Fields(value, path(key));
  }
  std::optional<Fields> optionalObject(std::string_view key) const {
    const json* value = optional(key);
    if (!value) return std::nullopt;
    if (!value->is_object()) typeMismatch(path(key), "an object", *value);
    return Fields(*value, path(key));
  }
  const json& array(std::string_view key) const {
    const json& value = required(key);
    if (!value.is_array()) typeMismatch(path(key), "an array", value);
    return value;
  }

 private:
  std::string path(std::string_view key) const { return childPath(m_prefix, key); }
  const json& required(std::string_view key) const {
    const auto it = m_object.find(key);
    if (it == m_object.end())
      throw RecipeError::unreadable("The required key " + path(key) + " is missing.");
    return *it;
  }
  // Absent and null both read as absent.
  const json* optional(std::string_view key) const {
    const auto it = m_object.find(key);
    return it == m_object.end() || it->is_null() ? nullptr : &*it;
  }

  const json& m_object;
  std::string m_prefix;
};

Recipe::Canvas readCanvas(const Fields& fields) {
  Recipe::Canvas canvas;
  canvas.mode = fields.string("mode");
  canvas.width = fields.integer("width");
  canvas.height = fields.integer("height");
  if (const auto fill = fields.optionalObject("fill"))
    canvas.fill = Recipe::Fill{fill->string("kind"), fill->optionalString("value")};
  if (const auto crop = fields.optionalObject("crop_rect"))
    canvas.cropRect = Recipe::CropRect{crop->integer("x"), crop->integer("y"), crop->integer("w"),
                                       crop->integer("h")};
  return canvas;
}

Recipe::Output readOutput(const Fields& fields) {
  Recipe::Output output;
  output.method = fields.string("method");
  if (const auto model = fields.optionalObject("model"))
    output.model = Recipe::Model{model->string("name"), model->string("version")};
  output.estimateStrength = fields.optionalNumber("estimate_strength");

  const Fields dimensions = fields.object("dimensions");
  output.dimensions.mode = dimensions.string("mode");
  output.dimensions.value = dimensions.optionalNumber("value");
  output.dimensions.width = dimensions.optionalInteger("width");
  output.dimensions.height = dimensions.optionalInteger("height");

  if (const auto canvas = fields.optionalObject("canvas")) output.canvas = readCanvas(*canvas);
  output.format = fields.string("format");
  if (const auto quality = fields.optionalObject("quality")) {
    Recipe::Quality q;
    q.value = quality->optionalInteger("value");
    q.subsampling = quality->optionalString("subsampling");
    q.maxBytes = quality->optionalInteger("max_bytes");
    q.floor = quality->optionalInteger("floor");
    q.mode = quality->optionalString("mode");
    q.effort = quality->optionalInteger("effort");
    output.quality = q;
  }

  const Fields colour = fields.object("colour");
  output.colour.profilePolicy = colour.string("profile_policy");
  output.colour.flattenColour = colour.string("flatten_colour");

  const Fields metadata = fields.object("metadata");
  output.metadata.icc = metadata.string("icc");
  output.metadata.exif = metadata.string("exif");
  output.metadata.xmp = metadata.string("xmp");
  output.metadata.gps = metadata.string("gps");

  const Fields naming = fields.object("naming");
  output.naming.templateText = naming.string("template");
  output.naming.destination = naming.optionalString("destination");
  return output;
}

Recipe::Document readDocument(const json& root) {
  if (!root.is_object()) typeMismatch("", "an object", root);
  const Fields fields(root, "");
  Recipe::Document document;
  document.schema = fields.string("schema");
  document.version = fields.integer("version");
  document.id = fields.string("id");
  document.name = fields.string("name");
  document.created = fields.string("created");
  size_t index = 0;
  for (const json& element : fields.array("outputs")) {
    const std::string path = "outputs[" + std::to_string(index++) + "]";
    if (!element.is_object()) typeMismatch(path, "an object", element);
    document.outputs.push_back(readOutput(Fields(element, path)));
  }
  return document;
}

// ---------------------------------------------------------------------------
// Writing.

template <typename T>
json orNull(const std::optional<T>& value) {
  return value ? json(*value) : json(nullptr);
}

json encodeOutput(const Recipe::Output& output) {
  json object = json::object();
  object["method"] = output.method;
  object["model"] = output.model
                        ? json{{"name", output.model->name}, {"version", output.model->version}}
                        : json(nullptr);
  // The estimate's own default applies where no strength was chosen.
  if (output.estimateStrength) object["estimate_strength"] = *output.estimateStrength;
  object["dimensions"] = {{"mode", output.dimensions.mode},
                          {"value", orNull(output.dimensions.value)},
                          {"width", orNull(output.dimensions.width)},
                          {"height", orNull(output.dimensions.height)}};
  if (output.canvas) {
    const auto& canvas = *output.canvas;
    json fill = nullptr;
    if (canvas.fill) fill = {{"kind", canvas.fill->kind}, {"value", orNull(canvas.fill->value)}};
    json crop = nullptr;
    if (canvas.cropRect)
      crop = {{"x", canvas.cropRect->x},
              {"y", canvas.cropRect->y},
              {"w", canvas.cropRect->w},
              {"h", canvas.cropRect->h}};
    object["canvas"] = {{"mode", canvas.mode},
                        {"width", canvas.width},
                        {"height", canvas.height},
                        {"fill", std::move(fill)},
                        {"crop_rect", std::move(crop)}};
  } else {
    object["canvas"] = nullptr;
  }
  object["format"] = output.format;
  if (output.quality) {
    const auto& q = *output.quality;
    object["quality"] = {{"value", orNull(q.value)},        {"subsampling", orNull(q.subsampling)},
                         {"max_bytes", orNull(q.maxBytes)}, {"floor", orNull(q.floor)},
                         {"mode", orNull(q.mode)},          {"effort", orNull(q.effort)}};
  } else {
    object["quality"] = nullptr;
  }
  object["colour"] = {{"profile_policy", output.colour.profilePolicy},
                      {"flatten_colour", output.colour.flattenColour}};
  object["metadata"] = {{"icc", output.metadata.icc},
                        {"exif", output.metadata.exif},
                        {"xmp", output.metadata.xmp},
                        {"gps", output.metadata.gps}};
  object["naming"] = {{"template", output.naming.templateText},
                      {"destination", orNull(output.naming.destination)}};
  return object;
}

}  // namespace

AvailableMethods allMethods() { return AvailableMethods(std::begin(kMethods), std::end(kMethods)); }

std::string RecipeError::description() const {
  switch (m_case) {
    case Case::invalid:
      return "This recipe is invalid: " + m_text;
    case Case::unavailableMethod:
      return "This recipe needs the unavailable " + m_text + " step. It will not be substituted.";
    case Case::unknownField:
      return "This recipe sets " + m_text +
             ", which this version of Tarnbloom does not understand. "
             "Opening it here would quietly drop that setting, so it is not opened. Its file is "
             "unchanged.";
    case Case::unreadable:
      return m_text;
  }
  return m_text;
}

// ---------------------------------------------------------------------------
// Validation. Each check reports the first rule broken, in a fixed order.

void Recipe::Dimensions::validate() const {
  if (mode == "bounding_box") {
    if (!width || !height || *width < 1 || *height < 1) refuse("invalid bounding box");
    return;
  }
  if (mode != "long_edge" && mode != "width" && mode != "height" && mode != "percent" &&
      mode != "scale_factor")
    refuse("invalid dimensions");
  if (!value || !(*value > 0)) refuse("invalid dimensions");
  // Past 2^53 a double no longer holds every integer, so no pixel count
  // could be rounded from it faithfully.
  if (!std::isfinite(*value) || std::fabs(*value) > 9007199254740992.0)
    refuse("dimension value is out of the representable range");
}

void Recipe::Fill::validate() const {
  if (kind == "transparent") {
    if (value) refuse("transparent fill cannot have a value");
  } else if (kind == "colour") {
    if (!value || !isHexColour(*value)) refuse("colour fill requires #RRGGBB");
  } else {
    refuse("invalid canvas fill");
  }
}

void Recipe::CropRect::validate() const {
  if (w < 1 || h < 1) refuse("crop_rect width and height must be greater than 0");
  if (x < 0 || y < 0) refuse("crop_rect origin must not be negative");
}

void Recipe::Canvas::validate(std::string_view format) const {
  if ((mode != "exact" && mode != "crop" && mode != "subject_aware") || width < 1 || height < 1)
    refuse("invalid canvas");
  if (cropRect && mode != "crop") refuse("crop_rect is only valid for crop canvas");
  if (mode == "crop") {
    if (!cropRect) refuse("crop canvas requires crop_rect");
    cropRect->validate();
  }
  if (fill) {
    fill->validate();
    if (format == "jpeg" && fill->kind == "transparent")
      refuse("JPEG canvas cannot be transparent");
  }
}

void Recipe::Quality::validate(std::string_view format) const {
  if (format == "jpeg") {
    // Every recipe JPEG names how low the size search may go.
    if (!value || !floor || *floor < 1 || *floor > *value || *value > 100)
      refuse("invalid JPEG quality");
    if (subsampling && *subsampling != "4:4:4" && *subsampling != "4:2:0")
      refuse("subsampling must be 4:4:4, 4:2:0 or absent");
    if (maxBytes && *maxBytes <= 0) refuse("max_bytes must be greater than 0");
    return;
  }
  if (format == "webp") {
    if (mode == "lossy") {
      if (!value || *value < 0 || *value > 100) refuse("invalid WebP quality");
    } else if (mode == "lossless") {
      if (!effort || *effort < 0 || *effort > 6) refuse("invalid WebP quality");
    } else {
      refuse("invalid WebP quality");
    }
    return;
  }
  refuse("quality is not valid for " + std::string(format));
}

void Recipe::Output::validate() const {
  if (!contains(kFormats, format)) refuse("unknown output format");

  if (method == "estimate") {
    if (!model || model->name.empty() || model->version.empty())
      refuse("Estimate requires a model name and version");
    if (estimateStrength &&
        !(std::isfinite(*estimateStrength) && *estimateStrength >= 0.1 && *estimateStrength <= 1.0))
      refuse("estimate_strength must be a number from 0.10 to 1.00");
  } else {
    if (model) refuse("non-AI method has model metadata");
    if (estimateStrength) refuse("non-AI method has estimate_strength");
  }

  dimensions.validate();
  if (canvas) canvas->validate(format);

  if (format == "jpeg" || format == "webp") {
    if (!quality) refuse("quality is required for " + format);
    quality->validate(format);
  } else if (quality) {
    quality->validate(format);
  }

  if ((colour.flattenColour != "white" && !isHexColour(colour.flattenColour)) ||
      (colour.profilePolicy != "keep" && colour.profilePolicy != "srgb"))
    refuse("invalid colour policy");

  if (!isKeepOrStrip(metadata.icc) || !isKeepOrStrip(metadata.exif) ||
      !isKeepOrStrip(metadata.xmp) || !isKeepOrStrip(metadata.gps))
    refuse("invalid metadata policy");

  if (naming.templateText.empty()) refuse("missing naming template");
  try {
    encoding::NamingEngine::validateTemplate(naming.templateText);
  } catch (const encoding::NamingError& error) {
    refuse(error.description());
  }
  if (naming.destination && naming.destination->empty())
    refuse("destination must be null or a path");
}

void Recipe::Document::validate(const AvailableMethods& availableMethods) const {
  if (schema != kSchema || version != kVersion) refuse("unsupported recipe version");
  if (id.empty() || name.empty() || created.empty() || outputs.empty())
    refuse("required recipe fields are missing");
  for (const Output& output : outputs) {
    if (!contains(kMethods, output.method)) refuse("unknown method " + output.method);
    if (!availableMethods.contains(output.method))
      throw RecipeError::unavailableMethod(output.method);
    output.validate();
  }
}

canvas::Canvas Recipe::Canvas::toCanvas() const {
  canvas::Canvas result;
  if (mode == "exact")
    result.mode = canvas::CanvasMode::exact;
  else if (mode == "crop")
    result.mode = canvas::CanvasMode::crop;
  else if (mode == "subject_aware")
    result.mode = canvas::CanvasMode::subjectAware;
  else
    refuse("invalid canvas");
  result.width = width;
  result.height = height;
  if (fill) {
    fill->validate();
    canvas::CanvasFill converted;
    converted.kind = fill->kind == "colour" ? canvas::CanvasFill::Kind::colour
                                            : canvas::CanvasFill::Kind::transparent;
    converted.value = fill->value.value_or("");
    result.fill = converted;
  }
  if (cropRect)
    result.cropRect = canvas::CropRect{cropRect->x, cropRect->y, cropRect->w, cropRect->h};
  return result;
}

Recipe::Canvas Recipe::Canvas::from(const canvas::Canvas& canvas) {
  Canvas result;
  switch (canvas.mode) {
    case canvas::CanvasMode::exact:
      result.mode = "exact";
      break;
    case canvas::CanvasMode::crop:
      result.mode = "crop";
      break;
    case canvas::CanvasMode::subjectAware:
      result.mode = "subject_aware";
      break;
  }
  result.width = canvas.width;
  result.height = canvas.height;
  if (canvas.fill) {
    if (canvas.fill->kind == canvas::CanvasFill::Kind::colour)
      result.fill = Fill{"colour", canvas.fill->value};
    else
      result.fill = Fill{"transparent", std::nullopt};
  }
  if (canvas.cropRect)
    result.cropRect =
        CropRect{canvas.cropRect->x, canvas.cropRect->y, canvas.cropRect->w, canvas.cropRect->h};
  return result;
}

// ---------------------------------------------------------------------------

Recipe::Document Recipe::decode(std::span<const std::byte> data,
                                const AvailableMethods& availableMethods) {
  const json root = parseGuarded(data);
  checkUnknownKeys(root);
  Document document = readDocument(root);
  document.validate(availableMethods);
  return document;
}

void Recipe::assertNoUnknownFields(std::span<const std::byte> data) {
  checkUnknownKeys(parseGuarded(data));
}

Recipe::Document Recipe::load(const fs::path& path, const AvailableMethods& availableMethods) {
  const auto bytes = readFile(path);
  return decode(bytes, availableMethods);
}

std::string Recipe::encode(const Document& document) {
  json root = json::object();
  root["schema"] = document.schema;
  root["version"] = document.version;
  root["id"] = document.id;
  root["name"] = document.name;
  root["created"] = document.created;
  json outputs = json::array();
  for (const Output& output : document.outputs) outputs.push_back(encodeOutput(output));
  root["outputs"] = std::move(outputs);
  try {
    // nlohmann never escapes "/", and its objects keep their keys sorted.
    return root.dump(2, ' ', false, json::error_handler_t::strict) + "\n";
  } catch (const json::exception& error) {
    // Text that is not UTF-8 (a name typed in a broken locale) cannot be
    // written as JSON.
    throw RecipeError::unreadable(error.what());
  }
}

void Recipe::save(const Document& document, const fs::path& path) {
  writeFileAtomically(path, encode(document));
}

std::vector<std::byte> Recipe::readFile(const fs::path& path) {
  // O_NOFOLLOW: a link in the recipes folder or handed to an import could
  // point anywhere (a device, another user's file); only the file itself is
  // read. O_NONBLOCK keeps a FIFO from waiting for a writer.
  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
  if (!fd) {
    const int error = errno;
    struct stat info {};
    if (error == ELOOP && ::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode))
      throw RecipeError::unreadable("“" + path.filename().string() +
                                    "” is a symbolic link. Recipes are read only from the file "
                                    "itself, so it was not opened.");
    throw FileError(path, "open", error);
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) throw FileError(path, "read", errno);
  if (!S_ISREG(info.st_mode))
    throw FileError(path, "read", S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
  const auto tooLarge = [&] {
    return RecipeError::unreadable("“" + path.filename().string() + "” is larger than " +
                                   byteCountText(kMaxFileBytes) +
                                   ", too large to be a recipe. It was not read.");
  };
  if (static_cast<uint64_t>(info.st_size) > kMaxFileBytes) throw tooLarge();

  auto bytes = readToEnd(fd.get(), path, kMaxFileBytes, static_cast<size_t>(info.st_size));
  if (!bytes) throw tooLarge();  // it grew since fstat
  return std::move(*bytes);
}

std::optional<std::string> Recipe::peekName(const fs::path& path) {
  try {
    const json root = parseGuarded(readFile(path));
    if (!root.is_object()) return std::nullopt;
    const auto name = root.find("name");
    if (name == root.end() || !name->is_string()) return std::nullopt;
    return name->get<std::string>();
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace tarnbloom::recipes
