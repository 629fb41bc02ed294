#include "finder/finder_menu_store.h"

#include <algorithm>

#include "engine/size_mode.h"
#include "support/error.h"
#include "support/settings.h"

namespace tarnbloom::finder {

namespace fs = std::filesystem;

namespace {

std::string enlargeKey(int scale) {
  FinderIdentity::enlarge(scale);  // refuses other scales
  return std::string(FinderMenuStore::kEnlargeOptionsKeyPrefix) + std::to_string(scale);
}

// The usable recipe of this id, read as saved: a recipe the computer cannot
// run now still belongs in the menu, which says so when it is chosen.
std::optional<recipes::RecipeDraft> recipeWithID(const recipes::RecipeStore& library,
                                                 std::string_view id) {
  for (auto& entry : library.entries(recipes::allMethods()))
    if (entry.draft && entry.draft->id == id) return std::move(entry.draft);
  return std::nullopt;
}

}  // namespace

std::string menuSummary(const recipes::RecipeDraft& recipe) {
  const size_t count = recipe.outputs.size();
  std::string text = std::to_string(count) + (count == 1 ? " output" : " outputs");
  for (size_t i = 0; i < count; ++i) text += (i == 0 ? " · " : "; ") + recipe.outputs[i].summary();
  return text;
}

FinderMenuStore::FinderMenuStore(Settings& settings, recipes::RecipeStore library)
    : m_settings(settings), m_library(std::move(library)) {}

std::vector<std::string> FinderMenuStore::orderedRecipeIDs() const {
  std::vector<std::string> ids;
  const auto* stored = m_settings.value(std::string(kOrderedRecipeIDsKey));
  if (!stored || !stored->is_array()) return ids;
  // Another version or a hand edit may have left anything here: keep the
  // ids that could name a recipe, once each.
  for (const auto& value : *stored) {
    if (!value.is_string()) continue;
    auto id = value.get<std::string>();
    if (isUsableRecipeID(id) && std::find(ids.begin(), ids.end(), id) == ids.end())
      ids.push_back(std::move(id));
  }
  return ids;
}

bool FinderMenuStore::isInMenu(std::string_view id) const {
  const auto ids = orderedRecipeIDs();
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::optional<std::string> FinderMenuStore::refusalFor(std::string_view id,
                                                       const std::vector<std::string>& ids) const {
  if (std::find(ids.begin(), ids.end(), id) != ids.end())
    return "This recipe is already in the file manager menu.";
  if (ids.size() >= kMaxRecipes)
    return "The file manager menu holds at most " + std::to_string(kMaxRecipes) +
           " recipes. Remove one first.";
  if (!isUsableRecipeID(id) || !recipeWithID(m_library, id))
    return "There is no usable recipe with the id “" + std::string(id) + "”.";
  return std::nullopt;
}

std::optional<std::string> FinderMenuStore::addRefusal(std::string_view id) const {
  return refusalFor(id, orderedRecipeIDs());
}

bool FinderMenuStore::add(std::string_view id) {
  auto ids = orderedRecipeIDs();
  if (refusalFor(id, ids)) return false;
  ids.emplace_back(id);
  setOrderedRecipeIDs(ids);
  return true;
}

void FinderMenuStore::remove(std::string_view id) {
  auto ids = orderedRecipeIDs();
  const auto found = std::find(ids.begin(), ids.end(), id);
  if (found == ids.end()) return;
  ids.erase(found);
  setOrderedRecipeIDs(ids);
}

void FinderMenuStore::move(std::string_view id, int offset) {
  auto ids = orderedRecipeIDs();
  const auto found = std::find(ids.begin(), ids.end(), id);
  if (found == ids.end()) return;
  const auto from = static_cast<long>(found - ids.begin());
  const long to = std::clamp(from + offset, 0L, static_cast<long>(ids.size()) - 1);
  if (to == from) return;
  auto item = std::move(ids[from]);
  ids.erase(ids.begin() + from);
  ids.insert(ids.begin() + to, std::move(item));
  setOrderedRecipeIDs(ids);
}

void FinderMenuStore::setOrderedRecipeIDs(const std::vector<std::string>& ids) {
  change(std::string(kOrderedRecipeIDsKey), ids);
}

bool FinderMenuStore::isAcknowledged(const FinderIdentity& identity) const {
  const auto* stored = m_settings.value(std::string(kAcknowledgedIdentitiesKey));
  if (!stored || !stored->is_array()) return false;
  const auto key = identity.canonicalText();
  return std::any_of(stored->begin(), stored->end(), [&](const nlohmann::json& value) {
    return value.is_string() && value.get<std::string>() == key;
  });
}

void FinderMenuStore::acknowledge(const FinderIdentity& identity) {
  if (isAcknowledged(identity)) return;
  nlohmann::json list = nlohmann::json::array();
  if (const auto* stored = m_settings.value(std::string(kAcknowledgedIdentitiesKey));
      stored && stored->is_array())
    for (const auto& value : *stored)
      if (value.is_string()) list.push_back(value);
  list.push_back(identity.canonicalText());
  change(std::string(kAcknowledgedIdentitiesKey), std::move(list));
}

void FinderMenuStore::resetAcknowledgements() {
  change(std::string(kAcknowledgedIdentitiesKey), nullptr);
}

bool FinderMenuStore::hasAcknowledgements() const {
  const auto* stored = m_settings.value(std::string(kAcknowledgedIdentitiesKey));
  return stored && stored->is_array() &&
         std::any_of(stored->begin(), stored->end(),
                     [](const nlohmann::json& value) { return value.is_string(); });
}

nlohmann::json FinderMenuStore::identityMap(std::string_view key) const {
  const auto* stored = m_settings.value(std::string(key));
  return stored && stored->is_object() ? *stored : nlohmann::json::object();
}

bool FinderMenuStore::includeSubfolders(const FinderIdentity& identity) const {
  const auto map = identityMap(kIncludeSubfoldersKey);
  const auto found = map.find(identity.canonicalText());
  return found != map.end() && found->is_boolean() && found->get<bool>();
}

void FinderMenuStore::setIncludeSubfolders(bool value, const FinderIdentity& identity) {
  auto map = identityMap(kIncludeSubfoldersKey);
  map[identity.canonicalText()] = value;
  change(std::string(kIncludeSubfoldersKey), std::move(map));
}

std::optional<fs::path> FinderMenuStore::folderDestination(const FinderIdentity& identity) const {
  const auto map = identityMap(kFolderDestinationsKey);
  const auto found = map.find(identity.canonicalText());
  if (found == map.end() || !found->is_string()) return std::nullopt;
  // Only an absolute folder means anything outside the process that saved it.
  fs::path folder = found->get<std::string>();
  if (!folder.is_absolute()) return std::nullopt;
  return folder;
}

void FinderMenuStore::setFolderDestination(const std::optional<fs::path>& folder,
                                           const FinderIdentity& identity) {
  auto map = identityMap(kFolderDestinationsKey);
  if (folder)
    map[identity.canonicalText()] = fs::absolute(*folder).lexically_normal().string();
  else
    map.erase(identity.canonicalText());
  change(std::string(kFolderDestinationsKey), std::move(map));
}

std::optional<exporting::ExportOptions> FinderMenuStore::savedEnlargeOptions(int scale) const {
  const auto* stored = m_settings.value(enlargeKey(scale));
  if (!stored) return std::nullopt;
  try {
    return exporting::ExportOptionsSnapshot::fromJson(*stored).options();
  } catch (const Error&) {
    return std::nullopt;
  }
}

exporting::ExportOptions FinderMenuStore::enlargeOptions(int scale) const {
  auto options = savedEnlargeOptions(scale).value_or(exporting::ExportOptions::saved(m_settings));
  options.sizeMode = *sizeModeFromQuickScale(scale);
  options.canvas.reset();
  options.canvasConfirmation.reset();
  return options;
}

void FinderMenuStore::setEnlargeOptions(const exporting::ExportOptions& options, int scale) {
  const auto key = enlargeKey(scale);
  change(key, exporting::ExportOptionsSnapshot(options).json());
}

void FinderMenuStore::clearEnlargeOptions(int scale) { change(enlargeKey(scale), nullptr); }

bool FinderMenuStore::hasCustomEnlargeOptions(int scale) const {
  return savedEnlargeOptions(scale).has_value();
}

FinderMenuFile FinderMenuStore::menuFile() const {
  FinderMenuFile file;
  const auto entries = m_library.entries(recipes::allMethods());
  for (const auto& id : orderedRecipeIDs()) {
    const auto found = std::find_if(entries.begin(), entries.end(), [&](const auto& entry) {
      return entry.draft && entry.draft->id == id;
    });
    if (found == entries.end()) continue;
    file.items.push_back({id, found->draft->name, menuSummary(*found->draft)});
  }
  return file;
}

FinderMenuFile FinderMenuStore::publish() const {
  const fs::path container = prepareFinderMenuContainer();
  auto file = menuFile();
  file.write(container / FinderMenuShared::fileName);
  return file;
}

size_t FinderMenuStore::addListener(Listener listener) {
  const size_t token = m_nextToken++;
  m_listeners.emplace(token, std::move(listener));
  return token;
}

void FinderMenuStore::removeListener(size_t token) { m_listeners.erase(token); }

void FinderMenuStore::change(const std::string& key, nlohmann::json value) {
  if (value.is_null())
    m_settings.remove(key);
  else
    m_settings.set(key, std::move(value));
  m_settings.save();
  // A listener may remove itself (or others) while being told.
  const auto listeners = m_listeners;
  for (const auto& [token, listener] : listeners) listener();
}

}  // namespace tarnbloom::finder
