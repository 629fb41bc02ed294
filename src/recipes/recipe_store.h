#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "canvas/canvas.h"
#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/naming_engine.h"
#include "encoding/webp_encoder.h"
#include "engine/resample_method.h"
#include "engine/size_mode.h"
#include "export/export_options.h"
#include "recipes/recipe.h"
#include "support/error.h"

namespace tarnbloom::recipes {

// The methods this computer can run: Exact and Clarity, and Enhance when
// its model is installed.
AvailableMethods installedMethods();

// One output of a recipe as the recipe editor's controls hold it: typed
// settings instead of the document's strings.
struct RecipeOutputDraft {
  ResampleMethod method = ResampleMethod::exact;
  // Written only for the estimate; other methods leave both out.
  std::optional<Recipe::Model> model;
  std::optional<double> estimateStrength;  // none: the estimate's default strength
  // A scale factor other than 2, 4 or 8 becomes the same percentage.
  SizeMode sizeMode = SizeMode::x2;
  double sizeValue = 0;  // pixels for long edge, width and height; percent for percent
  int64_t boxWidth = 0;
  int64_t boxHeight = 0;
  std::optional<canvas::Canvas> canvas;
  encoding::ExportFormat format = encoding::ExportFormat::png;
  encoding::JPEGOptions jpeg;
  encoding::WebPOptions webp;
  encoding::ColourPolicy colourPolicy;
  std::string namingTemplate = encoding::NamingEngine::defaultTemplate();
  std::optional<std::string> destination;  // none: beside each source

  // The model an estimate recipe made on this computer names.
  static Recipe::Model installedEstimateModel();

  // Throws RecipeError for an output that does not pass its checks.
  static RecipeOutputDraft from(const Recipe::Output& output);
  Recipe::Output toOutput() const;
  // The export settings of this output, with no canvas confirmation.
  exporting::ExportOptions exportOptions() const;
  // "Enhance (AI), strength 0.70 · Long edge 3,000 px · JPEG 85", for lists.
  std::string summary() const;
};

// The editable form of a recipe.
struct RecipeDraft {
  std::string id;
  std::string name;
  std::string created;  // ISO 8601; empty until first saved
  std::vector<RecipeOutputDraft> outputs;

  // Throws RecipeError for a document whose outputs do not pass their
  // checks.
  static RecipeDraft from(const Recipe::Document& document);
  // "created" is `created` when given, else the draft's own when not empty,
  // else now.
  Recipe::Document toDocument(const std::optional<std::string>& created = std::nullopt) const;
  // What the editor says before it tries to save: "Name this recipe before
  // saving." or "A recipe needs at least one output."; none when neither.
  std::optional<std::string> editorRefusal() const;
};

// A recipe lookup by id or name that found nothing usable.
class RecipeLookupError : public Error {
 public:
  enum class Case { notFound, ambiguous, unusable };
  static RecipeLookupError notFound(std::string key) { return {Case::notFound, std::move(key)}; }
  static RecipeLookupError ambiguous(std::string key) { return {Case::ambiguous, std::move(key)}; }
  // `refusal` may be empty.
  static RecipeLookupError unusable(std::string refusal) {
    return {Case::unusable, std::move(refusal)};
  }
  Case errorCase() const { return m_case; }
  std::string description() const override;

 private:
  RecipeLookupError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case m_case;
  std::string m_text;
};

// The user's saved recipes: one "<id>.tarnbloomrecipe" per recipe in one
// folder. No cache: every listing reads the folder again, so a file another
// process added, changed or broke shows at once. Nothing here rewrites a
// file it could not use. Safe to use from several threads and processes:
// files are only ever replaced whole.
class RecipeStore {
 public:
  struct LibraryEntry {
    std::filesystem::path url;  // the file
    std::string name;
    std::optional<RecipeDraft> draft;    // none when the file cannot be used
    std::optional<std::string> refusal;  // why, exactly when there is no draft

    // The draft's id, or the file's path when there is no draft.
    std::string id() const;
    bool isUsable() const { return draft.has_value(); }
  };

  static constexpr std::string_view kImportFailureTitle = "That recipe can’t be used";
  static constexpr std::string_view kRemoveNote =
      "This only removes the saved recipe. It never touches anything already exported.";
  // An import failure's alert text: the error, then that nothing changed.
  static std::string importFailureText(const Error& error);

  // `directory`: the library folder, "Recipes" in the state folder for the
  // application; created, with its parents, when first needed.
  explicit RecipeStore(std::filesystem::path directory);
  // The user's library: "Recipes" in the state folder, shared by the
  // window, the command line and the file manager's menu.
  static RecipeStore userLibrary();

  // Throws FileError when the folder cannot be created.
  std::filesystem::path directory() const;

  // Every recipe file, newest first (by modification time, ties in listing
  // order); a file that cannot be used is listed with its refusal. An
  // unreadable folder lists nothing.
  std::vector<LibraryEntry> entries(const AvailableMethods& availableMethods) const;
  // The drafts of the usable entries, in the same order.
  std::vector<RecipeDraft> all(const AvailableMethods& availableMethods) const;

  // Checks the recipe against all three methods (a recipe may be kept where
  // it cannot run) and replaces "<id>.tarnbloomrecipe" atomically. Returns
  // the draft as saved. Throws RecipeError (nothing written) or FileError.
  RecipeDraft save(const RecipeDraft& draft) const;
  // Removes "<id>.tarnbloomrecipe". Throws RecipeError for an id that is not
  // a plain file name, FileError when the file system refuses.
  void remove(std::string_view id) const;
  // Removes the file an entry of this library was listed from, usable or
  // not: a broken file has no id to remove it by.
  void remove(const LibraryEntry& entry) const;
  // Reads a shared recipe, checks it for this computer and saves it under a
  // fresh id, so an import never replaces a saved recipe. The chosen file
  // is only read. Throws RecipeError or FileError.
  RecipeDraft importFile(const std::filesystem::path& path,
                         const AvailableMethods& availableMethods) const;
  // Checks the recipe as save() does and writes it to a file the user chose.
  static void exportFile(const RecipeDraft& draft, const std::filesystem::path& path);
  // The top-level "name" of a recipe file, or none.
  static std::optional<std::string> peekName(const std::filesystem::path& path);

  // The usable entry whose id or file name is `key`, else the one named
  // `key`. Throws RecipeLookupError.
  static LibraryEntry find(const std::vector<LibraryEntry>& entries, std::string_view key);

 private:
  std::filesystem::path fileFor(std::string_view id) const;
  std::filesystem::path m_directory;
};

}  // namespace tarnbloom::recipes
