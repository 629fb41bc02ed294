#include "recipes/recipe_store.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <tuple>

#include "engine/estimate_engine.h"
#include "support/files.h"
#include "support/iso_time.h"
#include "support/locale_numbers.h"
#include "support/state_paths.h"
#include "support/uuid.h"

namespace tarnbloom::recipes {
namespace {

namespace fs = std::filesystem;

std::string fileExtensionWithDot() { return "." + std::string(Recipe::kFileExtension); }

// Ids become file names in the library folder. Anything that could name
// another folder, or be cut short by the system at a NUL, is refused so a
// recipe can never write or remove outside the library.
bool isPlainFileName(std::string_view id) {
  return !id.empty() && id != "." && id != ".." && id.find('/') == std::string_view::npos &&
         id.find('\0') == std::string_view::npos;
}

// Recipes name their flatten colour "white" or "#RRGGBB"; the export
// settings also accept "black" and bare hex, which are spelled out here.
// Text no spelling fits is kept, so the recipe check refuses it.
std::string recipeFlattenColour(const std::string& text) {
  if (text == "white") return text;
  if (text.size() == 7 && text[0] == '#') return text;
  try {
    return encoding::ColourPolicy::canonicalFlattenColour(text);
  } catch (const encoding::ColourPolicyError&) {
    return text;
  }
}

std::string_view dimensionMode(SizeMode mode) {
  switch (mode) {
    case SizeMode::x2:
    case SizeMode::x4:
    case SizeMode::x8:
      return "scale_factor";
    case SizeMode::longEdge:
      return "long_edge";
    case SizeMode::width:
      return "width";
    case SizeMode::height:
      return "height";
    case SizeMode::boundingBox:
      return "bounding_box";
    case SizeMode::percent:
      return "percent";
  }
  return "";
}

std::optional<SizeMode> sizeModeForDimension(std::string_view mode) {
  if (mode == "long_edge") return SizeMode::longEdge;
  if (mode == "width") return SizeMode::width;
  if (mode == "height") return SizeMode::height;
  if (mode == "percent") return SizeMode::percent;
  if (mode == "bounding_box") return SizeMode::boundingBox;
  return std::nullopt;
}

std::optional<RecipeStore::LibraryEntry> readEntry(const fs::path& path,
                                                   const AvailableMethods& availableMethods) {
  RecipeStore::LibraryEntry entry;
  entry.url = path;
  try {
    const Recipe::Document document = Recipe::load(path, availableMethods);
    entry.draft = RecipeDraft::from(document);
    entry.name = document.name;
  } catch (const FileError& error) {
    // Removed by someone else between the listing and the read.
    if (error.errnoValue() == ENOENT) return std::nullopt;
    entry.refusal = error.description();
  } catch (const Error& error) {
    entry.refusal = error.description();
  }
  if (entry.refusal) {
    const auto peeked = Recipe::peekName(path);
    entry.name = peeked && !peeked->empty() ? *peeked : path.stem().string();
  }
  return entry;
}

}  // namespace

// ---------------------------------------------------------------------------
// RecipeOutputDraft

AvailableMethods installedMethods() {
  AvailableMethods methods = {"exact", "clarity"};
  if (EstimateEngine::configuredURL()) methods.insert("estimate");
  return methods;
}

Recipe::Model RecipeOutputDraft::installedEstimateModel() {
  return {EstimateEngine::modelName, EstimateEngine::modelVersion};
}

RecipeOutputDraft RecipeOutputDraft::from(const Recipe::Output& output) {
  const auto method = resampleMethodFromRawValue(output.method);
  if (!method) throw RecipeError::invalid("unknown method " + output.method);
  // From here on every string is one the checks know.
  output.validate();

  RecipeOutputDraft draft;
  draft.method = *method;
  draft.model = output.model;
  draft.estimateStrength = output.estimateStrength;

  const auto& dimensions = output.dimensions;
  if (dimensions.mode == "scale_factor") {
    const double factor = *dimensions.value;
    if (factor == 2 || factor == 4 || factor == 8) {
      draft.sizeMode = *sizeModeFromQuickScale(static_cast<int>(factor));
    } else {
      draft.sizeMode = SizeMode::percent;
      draft.sizeValue = factor * 100;
    }
  } else {
    draft.sizeMode = *sizeModeForDimension(dimensions.mode);
    if (draft.sizeMode == SizeMode::boundingBox) {
      draft.boxWidth = *dimensions.width;
      draft.boxHeight = *dimensions.height;
    } else {
      draft.sizeValue = *dimensions.value;
    }
  }

  if (output.canvas) draft.canvas = output.canvas->toCanvas();
  draft.format = *encoding::exportFormatFromRawValue(output.format);
  if (output.quality) {
    const auto& quality = *output.quality;
    if (draft.format == encoding::ExportFormat::jpeg) {
      draft.jpeg.quality = static_cast<int>(*quality.value);
      draft.jpeg.floor = static_cast<int>(*quality.floor);
      draft.jpeg.subsampling = quality.subsampling
                                   ? encoding::jpegSubsamplingFromRawValue(*quality.subsampling)
                                   : std::nullopt;
      draft.jpeg.maxBytes = quality.maxBytes;
    } else if (draft.format == encoding::ExportFormat::webp) {
      draft.webp.lossless = quality.mode == "lossless";
      if (draft.webp.lossless)
        draft.webp.effort = static_cast<int32_t>(*quality.effort);
      else
        draft.webp.lossyQuality = static_cast<float>(*quality.value);
    }
  }

  draft.colourPolicy.profile = *encoding::profilePolicyFromRawValue(output.colour.profilePolicy);
  draft.colourPolicy.flatten = output.colour.flattenColour;
  draft.colourPolicy.icc = *encoding::metadataToggleFromRawValue(output.metadata.icc);
  draft.colourPolicy.exif = *encoding::metadataToggleFromRawValue(output.metadata.exif);
  draft.colourPolicy.xmp = *encoding::metadataToggleFromRawValue(output.metadata.xmp);
  draft.colourPolicy.gps = *encoding::metadataToggleFromRawValue(output.metadata.gps);

  draft.namingTemplate = output.naming.templateText;
  draft.destination = output.naming.destination;
  return draft;
}

Recipe::Output RecipeOutputDraft::toOutput() const {
  Recipe::Output output;
  output.method = std::string(rawValue(method));
  if (method == ResampleMethod::estimate) {
    output.model = model;
    output.estimateStrength = estimateStrength;
  }

  output.dimensions.mode = std::string(dimensionMode(sizeMode));
  if (const auto factor = quickFactor(sizeMode)) {
    output.dimensions.value = *factor;
  } else if (sizeMode == SizeMode::boundingBox) {
    output.dimensions.width = boxWidth;
    output.dimensions.height = boxHeight;
  } else {
    output.dimensions.value = sizeValue;
  }

  if (canvas) output.canvas = Recipe::Canvas::from(*canvas);
  output.format = std::string(encoding::rawValue(format));
  if (format == encoding::ExportFormat::jpeg) {
    Recipe::Quality quality;
    quality.value = jpeg.quality;
    quality.floor = jpeg.floor;
    if (jpeg.subsampling) quality.subsampling = std::string(encoding::rawValue(*jpeg.subsampling));
    quality.maxBytes = jpeg.maxBytes;
    output.quality = quality;
  } else if (format == encoding::ExportFormat::webp) {
    Recipe::Quality quality;
    quality.mode = webp.lossless ? "lossless" : "lossy";
    if (webp.lossless)
      quality.effort = webp.effort;
    else
      quality.value = std::lround(webp.lossyQuality);
    output.quality = quality;
  }

  output.colour.profilePolicy = std::string(encoding::rawValue(colourPolicy.profile));
  output.colour.flattenColour = recipeFlattenColour(colourPolicy.flatten);
  output.metadata.icc = std::string(encoding::rawValue(colourPolicy.icc));
  output.metadata.exif = std::string(encoding::rawValue(colourPolicy.exif));
  output.metadata.xmp = std::string(encoding::rawValue(colourPolicy.xmp));
  output.metadata.gps = std::string(encoding::rawValue(colourPolicy.gps));

  output.naming.templateText = namingTemplate;
  output.naming.destination = destination;
  return output;
}

exporting::ExportOptions RecipeOutputDraft::exportOptions() const {
  exporting::ExportOptions options;
  options.sizeMode = sizeMode;
  options.sizeValue = quickFactor(sizeMode) ? 0 : sizeValue;
  options.boxWidth = static_cast<double>(boxWidth);
  options.boxHeight = static_cast<double>(boxHeight);
  options.format = format;
  options.formatFollowsSource = false;
  options.colourPolicy = colourPolicy;
  options.jpeg = jpeg;
  options.webp = webp;
  options.method = method;
  options.estimateStrength = estimateStrength.value_or(EstimateEngine::defaultStrength);
  options.canvas = canvas;
  return options;
}

std::string RecipeOutputDraft::summary() const {
  std::string text(title(method));
  if (method == ResampleMethod::estimate && estimateStrength) {
    char strength[32];
    std::snprintf(strength, sizeof strength, ", strength %.2f", *estimateStrength);
    text += strength;
  }
  text += " · " + exportOptions().sizeLabel();
  text += " · " + std::string(encoding::title(format));
  if (format == encoding::ExportFormat::jpeg) {
    text += " " + std::to_string(jpeg.quality);
    if (jpeg.maxBytes) text += ", at most " + byteCountText(static_cast<uint64_t>(*jpeg.maxBytes));
  } else if (format == encoding::ExportFormat::webp) {
    text += webp.lossless ? std::string(" lossless")
                          : " " + std::to_string(std::lround(webp.lossyQuality));
  }
  if (canvas)
    text += " · on a " + groupedNumber(canvas->width) + " × " + groupedNumber(canvas->height) +
            " px canvas";
  return text;
}

// ---------------------------------------------------------------------------
// RecipeDraft

RecipeDraft RecipeDraft::from(const Recipe::Document& document) {
  RecipeDraft draft;
  draft.id = document.id;
  draft.name = document.name;
  draft.created = document.created;
  for (const auto& output : document.outputs)
    draft.outputs.push_back(RecipeOutputDraft::from(output));
  return draft;
}

Recipe::Document RecipeDraft::toDocument(const std::optional<std::string>& createdAt) const {
  Recipe::Document document;
  document.schema = std::string(Recipe::kSchema);
  document.version = Recipe::kVersion;
  document.id = id;
  document.name = name;
  if (createdAt)
    document.created = *createdAt;
  else if (!created.empty())
    document.created = created;
  else
    document.created = formatIso8601(std::chrono::system_clock::now());
  for (const auto& output : outputs) document.outputs.push_back(output.toOutput());
  return document;
}

std::optional<std::string> RecipeDraft::editorRefusal() const {
  if (name.empty()) return "Name this recipe before saving.";
  if (outputs.empty()) return "A recipe needs at least one output.";
  return std::nullopt;
}

// ---------------------------------------------------------------------------
// RecipeStore

std::string RecipeLookupError::description() const {
  switch (m_case) {
    case Case::notFound:
      return "No saved recipe has the id or name “" + m_text + "”.";
    case Case::ambiguous:
      return "More than one recipe is named “" + m_text + "”; use its id.";
    case Case::unusable:
      return m_text.empty() ? "This recipe cannot be used on this computer." : m_text;
  }
  return m_text;
}

std::string RecipeStore::LibraryEntry::id() const { return draft ? draft->id : url.string(); }

std::string RecipeStore::importFailureText(const Error& error) {
  return error.description() +
         "\n\nNothing was changed: the recipe file is exactly as it was shared with you.";
}

RecipeStore::RecipeStore(fs::path directory) : m_directory(std::move(directory)) {}

fs::path RecipeStore::directory() const {
  std::error_code error;
  fs::create_directories(m_directory, error);
  if (error) throw FileError(m_directory, "create", error.value());
  return m_directory;
}

RecipeStore RecipeStore::userLibrary() { return RecipeStore(stateFolder() / "Recipes"); }

fs::path RecipeStore::fileFor(std::string_view id) const {
  if (!isPlainFileName(id)) throw RecipeError::invalid("its id cannot be used as a file name");
  return directory() / (std::string(id) + fileExtensionWithDot());
}

std::vector<RecipeStore::LibraryEntry> RecipeStore::entries(
    const AvailableMethods& availableMethods) const {
  fs::path folder;
  try {
    folder = directory();
  } catch (const Error&) {
    return {};
  }

  struct Listed {
    LibraryEntry entry;
    std::optional<std::tuple<int64_t, int64_t>> modified;  // seconds, nanoseconds
  };
  std::vector<Listed> listed;
  std::error_code error;
  fs::directory_iterator it(folder, error);
  if (error) return {};
  const std::string extension = fileExtensionWithDot();
  // A folder that fails part-way lists what was read so far.
  for (; !error && it != fs::directory_iterator(); it.increment(error)) {
    const fs::path& path = it->path();
    if (path.extension() != extension) continue;
    struct stat info {};
    std::optional<std::tuple<int64_t, int64_t>> modified;
    if (::lstat(path.c_str(), &info) == 0) {
      if (S_ISDIR(info.st_mode)) continue;
      modified = std::tuple<int64_t, int64_t>(info.st_mtim.tv_sec, info.st_mtim.tv_nsec);
    } else if (errno == ENOENT) {
      continue;
    }
    if (auto entry = readEntry(path, availableMethods))
      listed.push_back({std::move(*entry), modified});
  }

  // Newest first; a file without a readable date goes last.
  std::stable_sort(listed.begin(), listed.end(), [](const Listed& a, const Listed& b) {
    if (!a.modified || !b.modified) return a.modified.has_value() && !b.modified.has_value();
    return *a.modified > *b.modified;
  });
  std::vector<LibraryEntry> result;
  result.reserve(listed.size());
  for (auto& item : listed) result.push_back(std::move(item.entry));
  return result;
}

std::vector<RecipeDraft> RecipeStore::all(const AvailableMethods& availableMethods) const {
  std::vector<RecipeDraft> drafts;
  for (auto& entry : entries(availableMethods))
    if (entry.draft) drafts.push_back(std::move(*entry.draft));
  return drafts;
}

RecipeDraft RecipeStore::save(const RecipeDraft& draft) const {
  const Recipe::Document document = draft.toDocument();
  document.validate(allMethods());
  const fs::path path = fileFor(document.id);
  Recipe::save(document, path);
  return RecipeDraft::from(document);
}

void RecipeStore::remove(std::string_view id) const {
  const fs::path path = fileFor(id);
  if (::unlink(path.c_str()) != 0) throw FileError(path, "remove", errno);
}

void RecipeStore::remove(const LibraryEntry& entry) const {
  // By its file name in this folder, so an entry whose id does not match
  // its file, or that has no id at all, can still be removed.
  remove(entry.url.stem().string());
}

RecipeDraft RecipeStore::importFile(const fs::path& path,
                                    const AvailableMethods& availableMethods) const {
  RecipeDraft draft = RecipeDraft::from(Recipe::load(path, availableMethods));
  draft.id = makeUuid();
  return save(draft);
}

void RecipeStore::exportFile(const RecipeDraft& draft, const fs::path& path) {
  const Recipe::Document document = draft.toDocument();
  document.validate(allMethods());
  Recipe::save(document, path);
}

std::optional<std::string> RecipeStore::peekName(const fs::path& path) {
  return Recipe::peekName(path);
}

RecipeStore::LibraryEntry RecipeStore::find(const std::vector<LibraryEntry>& entries,
                                            std::string_view key) {
  std::vector<const LibraryEntry*> matches;
  for (const auto& entry : entries)
    if (entry.id() == key || entry.url.stem().string() == key) matches.push_back(&entry);
  if (matches.empty())
    for (const auto& entry : entries)
      if (entry.name == key) matches.push_back(&entry);

  if (matches.empty()) throw RecipeLookupError::notFound(std::string(key));
  if (matches.size() > 1) throw RecipeLookupError::ambiguous(std::string(key));
  const LibraryEntry& match = *matches.front();
  if (!match.isUsable()) throw RecipeLookupError::unusable(match.refusal.value_or(""));
  return match;
}

}  // namespace tarnbloom::recipes
