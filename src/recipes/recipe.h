#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "canvas/canvas.h"
#include "support/error.h"

namespace tarnbloom::recipes {

// Method names ("exact", "clarity", "estimate") this computer can run now.
using AvailableMethods = std::set<std::string, std::less<>>;

// All three methods: what a recipe is checked against when it is saved, so
// that a recipe can be kept on a computer that cannot run it.
AvailableMethods allMethods();

// Why a recipe cannot be read or used. Every refusal leaves the file as it
// was.
class RecipeError : public Error {
 public:
  enum class Case { invalid, unavailableMethod, unknownField, unreadable };

  static RecipeError invalid(std::string reason) { return {Case::invalid, std::move(reason)}; }
  static RecipeError unavailableMethod(std::string method) {
    return {Case::unavailableMethod, std::move(method)};
  }
  static RecipeError unknownField(std::string path) {
    return {Case::unknownField, std::move(path)};
  }
  // The file or its JSON could not be read: the reader's own text, shown as
  // it stands (syntax and type errors, nesting, size, a symbolic link).
  static RecipeError unreadable(std::string text) { return {Case::unreadable, std::move(text)}; }

  Case errorCase() const { return m_case; }
  // The reason, method name, key path or reader text the case carries.
  const std::string& text() const { return m_text; }
  std::string description() const override;

 private:
  RecipeError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case m_case;
  std::string m_text;
};

// A saved, shareable description of one or more exports, read strictly: a
// key this version does not know or a method this computer lacks refuses
// the whole recipe. Strings are kept as read, so validation can say what
// was wrong with them.
struct Recipe {
  static constexpr std::string_view kSchema = "com.tarnbloom.recipe";
  static constexpr int64_t kVersion = 1;
  static constexpr std::string_view kFileExtension = "tarnbloomrecipe";
  // Recipes are a few kilobytes; anything larger is refused unread.
  static constexpr size_t kMaxFileBytes = size_t{1} << 20;
  // Deep enough for any annotation people write, shallow enough that no
  // walk over the tree can exhaust the stack.
  static constexpr int kMaxNestingDepth = 64;

  // The allowed keys of each kind of object, in ascending order.
  struct Vocabulary {
    static constexpr std::array<std::string_view, 7> document = {
        "annotations", "created", "id", "name", "outputs", "schema", "version"};
    static constexpr std::array<std::string_view, 11> output = {
        "annotations", "canvas", "colour", "dimensions", "estimate_strength", "format", "metadata",
        "method",      "model",  "naming", "quality"};
    static constexpr std::array<std::string_view, 2> model = {"name", "version"};
    static constexpr std::array<std::string_view, 4> dimensions = {"height", "mode", "value",
                                                                   "width"};
    static constexpr std::array<std::string_view, 5> canvas = {"crop_rect", "fill", "height",
                                                               "mode", "width"};
    static constexpr std::array<std::string_view, 2> fill = {"kind", "value"};
    static constexpr std::array<std::string_view, 4> cropRect = {"h", "w", "x", "y"};
    static constexpr std::array<std::string_view, 6> quality = {
        "effort", "floor", "max_bytes", "mode", "subsampling", "value"};
    static constexpr std::array<std::string_view, 2> colour = {"flatten_colour", "profile_policy"};
    static constexpr std::array<std::string_view, 4> metadata = {"exif", "gps", "icc", "xmp"};
    static constexpr std::array<std::string_view, 2> naming = {"destination", "template"};
  };

  // The estimate model an "estimate" output must use.
  struct Model {
    std::string name;
    std::string version;
    bool operator==(const Model&) const = default;
  };

  struct Dimensions {
    std::string mode;  // "long_edge", "width", "height", "percent", "scale_factor", "bounding_box"
    std::optional<double> value;
    std::optional<int64_t> width;   // bounding_box
    std::optional<int64_t> height;  // bounding_box
    void validate() const;
    bool operator==(const Dimensions&) const = default;
  };

  struct Fill {
    std::string kind;  // "transparent" or "colour"
    std::optional<std::string> value;
    void validate() const;
    bool operator==(const Fill&) const = default;
  };

  struct CropRect {
    int64_t x = 0, y = 0, w = 0, h = 0;
    void validate() const;
    bool operator==(const CropRect&) const = default;
  };

  struct Canvas {
    std::string mode;  // "exact", "crop", "subject_aware"
    int64_t width = 0;
    int64_t height = 0;
    std::optional<Fill> fill;
    std::optional<CropRect> cropRect;
    void validate(std::string_view format) const;
    // The canvas the composer takes. Throws RecipeError for a canvas that
    // does not pass validate().
    canvas::Canvas toCanvas() const;
    static Canvas from(const canvas::Canvas& canvas);
    bool operator==(const Canvas&) const = default;
  };

  struct Quality {
    std::optional<int64_t> value;
    std::optional<std::string> subsampling;
    std::optional<int64_t> maxBytes;
    std::optional<int64_t> floor;
    std::optional<std::string> mode;  // WebP: "lossy" or "lossless"
    std::optional<int64_t> effort;
    void validate(std::string_view format) const;
    bool operator==(const Quality&) const = default;
  };

  struct Colour {
    std::string profilePolicy;  // "keep" or "srgb"
    std::string flattenColour;  // "white" or "#RRGGBB"
    bool operator==(const Colour&) const = default;
  };

  struct Metadata {
    std::string icc, exif, xmp, gps;  // each "keep" or "strip"
    bool operator==(const Metadata&) const = default;
  };

  struct Naming {
    std::string templateText;
    // None: beside each source.
    std::optional<std::string> destination;
    bool operator==(const Naming&) const = default;
  };

  struct Output {
    std::string method;
    std::optional<Model> model;
    std::optional<double> estimateStrength;
    Dimensions dimensions;
    std::optional<Canvas> canvas;
    std::string format;
    std::optional<Quality> quality;
    Colour colour;
    Metadata metadata;
    Naming naming;
    // Everything but the method's name and availability. Throws RecipeError.
    void validate() const;
    bool operator==(const Output&) const = default;
  };

  struct Document {
    std::string schema;
    int64_t version = 0;
    std::string id;
    std::string name;
    std::string created;
    std::vector<Output> outputs;
    // Throws RecipeError for the first rule the document breaks.
    void validate(const AvailableMethods& availableMethods) const;
    bool operator==(const Document&) const = default;
  };

  // Unknown keys, then the typed document, then validate(). Throws
  // RecipeError.
  static Document decode(std::span<const std::byte> data, const AvailableMethods& availableMethods);
  // Reads a regular file (never through a symbolic link, never more than
  // kMaxFileBytes) and decodes it. Throws RecipeError or FileError.
  static Document load(const std::filesystem::path& path, const AvailableMethods& availableMethods);
  // The unknown-key pass alone. Throws RecipeError (unreadable for JSON the
  // reader refuses, unknownField for the first unknown key).
  static void assertNoUnknownFields(std::span<const std::byte> data);

  // Sorted, pretty-printed JSON with every key; absent sections are null.
  static std::string encode(const Document& document);
  // encode(), written atomically. Throws FileError.
  static void save(const Document& document, const std::filesystem::path& path);

  // The bytes of a recipe file, refusing symbolic links, anything but a
  // regular file and anything over kMaxFileBytes. Throws RecipeError or
  // FileError.
  static std::vector<std::byte> readFile(const std::filesystem::path& path);
  // The top-level "name" string of a recipe file, or none when the file
  // cannot be read as JSON or has no such string.
  static std::optional<std::string> peekName(const std::filesystem::path& path);
};

}  // namespace tarnbloom::recipes
