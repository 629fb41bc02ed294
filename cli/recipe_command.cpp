#include "cli/recipe_command.h"

#include <iostream>
#include <nlohmann/json.hpp>

#include "cli/enlarge_command.h"
#include "cli/exit_codes.h"
#include "cli/export_flags.h"
#include "cli/help_option.h"
#include "cli/menu_command.h"
#include "engine/estimate_engine.h"
#include "support/files.h"
#include "support/state_paths.h"
#include "support/uuid.h"

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using recipes::RecipeStore;

namespace {

const std::string kUsage =
    std::string(
        "Usage: tarnbloom recipe list [--json]\n"
        "       tarnbloom recipe show ID|NAME [--json]\n"
        "       tarnbloom recipe import FILE        save a shared recipe under a new id\n"
        "       tarnbloom recipe export ID|NAME FILE\n"
        "       tarnbloom recipe delete ID|NAME\n"
        "       tarnbloom recipe save NAME --size SIZE --format png|jpeg|tiff|webp [OPTIONS]\n"
        "       tarnbloom recipe run ID|NAME [--out DIR] FILE|FOLDER...\n"
        "Run a recipe with recipe run, or tarnbloom enlarge --recipe ID|NAME FILE|FOLDER...\n"
        "recipe save keeps these flags as a recipe of one output:\n") +
    kExportFlagsUsage +
    "  --out DIR            where its files go; a relative DIR is a folder inside each\n"
    "                       source's own folder (default: beside each source)\n";

void printError(const Error& error) {
  std::cerr << "tarnbloom recipe: " << error.description();
  if (const auto hint = error.recoverySuggestion(); !hint.empty()) std::cerr << ' ' << hint;
  std::cerr << '\n';
}

int list(bool json) {
  const auto entries = recipeLibrary().entries(availableMethods());
  if (json) {
    for (const auto& entry : entries) {
      nlohmann::ordered_json line = {{"id", entry.id()},
                                     {"name", entry.name},
                                     {"file", entry.url.string()},
                                     {"usable", entry.isUsable()}};
      if (entry.draft) {
        auto& outputs = line["outputs"] = nlohmann::ordered_json::array();
        for (const auto& output : entry.draft->outputs) outputs.push_back(output.summary());
      }
      line["refusal"] = entry.refusal ? nlohmann::ordered_json(*entry.refusal) : nullptr;
      std::cout << line.dump() << '\n';
    }
    return kExitSuccess;
  }
  if (entries.empty()) std::cout << "No saved recipes.\n";
  for (const auto& entry : entries) {
    std::cout << entry.name << "  (" << entry.id() << ")\n";
    if (!entry.draft) {
      std::cout << "  can’t be used: " << entry.refusal.value_or("") << '\n';
      continue;
    }
    for (const auto& output : entry.draft->outputs) std::cout << "  " << output.summary() << '\n';
  }
  return kExitSuccess;
}

int show(const std::string& key, bool json) {
  const auto draft = findRecipe(key);
  if (json) {
    std::cout << recipes::Recipe::encode(draft.toDocument());
    return kExitSuccess;
  }
  std::cout << draft.name << "  (" << draft.id << ")\n"
            << "Created " << draft.created << '\n';
  for (size_t i = 0; i < draft.outputs.size(); ++i) {
    const auto& output = draft.outputs[i];
    std::cout << "Output " << i + 1 << ": " << output.summary() << "\n  named "
              << output.namingTemplate << ", "
              << (output.destination ? "into " + *output.destination : "beside each source")
              << '\n';
  }
  return kExitSuccess;
}

// The recipe flags as one output.
recipes::RecipeOutputDraft outputFrom(const ExportFlags& flags, const fs::path& out) {
  if (!flags.haveSize) throw UsageError("Choose a size with --size.");
  if (!flags.format)
    throw UsageError("A recipe names its format: add --format png, jpeg, tiff or webp.");
  recipes::RecipeOutputDraft output;
  output.method = flags.method;
  if (flags.method == ResampleMethod::estimate) {
    output.model = recipes::RecipeOutputDraft::installedEstimateModel();
    output.estimateStrength = flags.strength;
  }
  output.sizeMode = flags.sizeMode;
  output.sizeValue = flags.sizeValue;
  output.boxWidth = static_cast<int64_t>(flags.boxWidth);
  output.boxHeight = static_cast<int64_t>(flags.boxHeight);
  const exporting::ExportOptions options = flags.exportOptions();
  output.canvas = options.canvas;
  output.format = *flags.format;
  output.jpeg = options.jpeg;
  output.webp = options.webp;
  output.colourPolicy = flags.policy;
  output.namingTemplate = flags.templateOrDefault();
  if (!out.empty()) output.destination = out.string();
  return output;
}

int save(const std::vector<std::string>& arguments) {
  if (arguments.size() < 2 || arguments[1].empty() || arguments[1][0] == '-')
    throw UsageError("Name the recipe: tarnbloom recipe save NAME [OPTIONS].");
  ExportFlags flags;
  fs::path out;
  for (size_t i = 2; i < arguments.size(); ++i) {
    if (flags.parse(arguments, i)) continue;
    if (arguments[i] == "--out" && i + 1 < arguments.size())
      out = arguments[++i];
    else
      throw UsageError("Unknown option “" + arguments[i] + "”.");
  }
  flags.finish();
  recipes::RecipeDraft draft;
  draft.id = makeUuid();
  draft.name = arguments[1];
  draft.outputs.push_back(outputFrom(flags, out));
  const auto saved = recipeLibrary().save(draft);
  std::cout << "Saved “" << saved.name << "” as " << saved.id << ".\n";
  republishFinderMenu();
  return kExitSuccess;
}

}  // namespace

recipes::AvailableMethods availableMethods() { return recipes::installedMethods(); }

RecipeStore recipeLibrary() { return RecipeStore::userLibrary(); }

recipes::RecipeDraft findRecipe(const std::string& key) {
  return *RecipeStore::find(recipeLibrary().entries(availableMethods()), key).draft;
}

int runRecipe(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kUsage;
    return kExitSuccess;
  }
  const std::string verb = arguments.empty() ? "" : arguments[0];
  const bool json = arguments.size() > 1 && arguments.back() == "--json";
  const size_t operands = arguments.size() - (json ? 1 : 0);
  try {
    if (verb == "list" && operands == 1) return list(json);
    if (verb == "show" && operands == 2) return show(arguments[1], json);
    if (verb == "save") return save(arguments);
    if (verb == "run")
      return runRecipeRun(std::vector<std::string>(arguments.begin() + 1, arguments.end()));
    if (verb == "import" && arguments.size() == 2) {
      try {
        const auto draft = recipeLibrary().importFile(arguments[1], availableMethods());
        std::cout << "Imported “" << draft.name << "” as " << draft.id << ".\n";
        republishFinderMenu();
        return kExitSuccess;
      } catch (const Error& error) {
        std::cerr << RecipeStore::kImportFailureTitle << '\n'
                  << RecipeStore::importFailureText(error) << '\n';
        return kExitFailure;
      }
    }
    if (verb == "export" && arguments.size() == 3) {
      const fs::path file = arguments[2];
      // A file the user already has is never replaced by a shared copy.
      if (entryExists(file)) {
        std::cerr << "tarnbloom recipe: “" << file.filename().string()
                  << "” already exists. Choose another name; nothing was written.\n";
        return kExitFailure;
      }
      RecipeStore::exportFile(findRecipe(arguments[1]), file);
      std::cout << "Exported to " << file.string() << ".\n";
      return kExitSuccess;
    }
    if (verb == "delete" && arguments.size() == 2) {
      const auto entries = recipeLibrary().entries(availableMethods());
      // A broken file has no usable draft but can still be removed by its id
      // or file name.
      const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
        return entry.id() == arguments[1] || entry.url.stem() == arguments[1];
      });
      if (found != entries.end())
        recipeLibrary().remove(*found);
      else
        recipeLibrary().remove(RecipeStore::find(entries, arguments[1]));
      std::cout << RecipeStore::kRemoveNote << '\n';
      republishFinderMenu();
      return kExitSuccess;
    }
  } catch (const UsageError& error) {
    std::cerr << "tarnbloom recipe: " << error.what() << '\n' << kUsage;
    return kExitUsage;
  } catch (const Error& error) {
    printError(error);
    return kExitFailure;
  }
  std::cerr << kUsage;
  return kExitUsage;
}

}  // namespace tarnbloom::cli
