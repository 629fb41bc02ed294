#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <QDialog>

#include "export/export_options.h"
#include "recipes/recipe_store.h"

class QCheckBox;
class QFileSystemWatcher;
class QLabel;
class QListWidget;
class QPushButton;
class QTimer;

namespace tarnbloom::app {

class ExportHost;
class RecipeEditor;

// What the recipes window needs from the document window.
struct RecipesWindowContext {
  recipes::RecipeStore library = recipes::RecipeStore::userLibrary();
  ExportHost* host = nullptr;
  // The active tab's photo, if any.
  std::function<std::optional<std::filesystem::path>()> currentPhoto;
  // The inspector's settings now.
  std::function<exporting::ExportOptions()> currentOptions;
};

// The recipe library as a window: every recipe file (the ones that cannot
// be used greyed, with the reason), new from the current settings, edit,
// duplicate, import, export, delete, apply to the current photo or a
// folder, and which recipes the file manager's menu shows in what order.
// Every change to the library or the menu republishes the menu file.
class RecipesWindow : public QDialog {
  Q_OBJECT

 public:
  explicit RecipesWindow(RecipesWindowContext context, QWidget* parent = nullptr);

  // Reads the library again, keeping the selection.
  void refresh();
  const std::vector<recipes::RecipeStore::LibraryEntry>& entries() const { return m_entries; }
  void select(const std::string& id);
  const recipes::RecipeStore::LibraryEntry* selected() const;

  // A one-output recipe that writes what the export sheet would now, not
  // yet named.
  recipes::RecipeDraft currentSettingsDraft() const;
  // Open the editor (window-modal, it deletes itself) and return it.
  RecipeEditor* newRecipe();
  RecipeEditor* editSelected();
  void duplicateSelected();
  // Failures show as the import alert; the chosen file is only read.
  void importFile(const std::filesystem::path& path);
  void exportSelected(const std::filesystem::path& path);
  // Asks first; removes usable and unusable files alike.
  void deleteSelected();
  // Each output of the selected recipe becomes one export job.
  void applyToCurrentPhoto();
  void applyToFolder(const std::filesystem::path& folder, bool includeSubfolders);

  void setSelectedInMenu(bool inMenu);
  // Moves the selected menu entry `offset` places (up when negative).
  void moveInMenu(int offset);
  QListWidget* menuList() const { return m_menu; }

  // The last result or refusal, as the window shows it.
  QString message() const;

 Q_SIGNALS:
  void libraryChanged();

 private:
  QLayout* buildButtons();
  QWidget* buildMenuBox();
  void refreshMenu();
  void updateButtons();
  void saveOrder();
  // After a change to the library or the menu: republish, reread.
  void changed();
  void showMessage(const QStringList& lines, bool problem);
  void submit(const recipes::RecipeDraft& recipe, const std::vector<std::filesystem::path>& sources,
              QStringList notes);
  RecipeEditor* openEditor(recipes::RecipeDraft draft);

  RecipesWindowContext m_context;
  std::vector<recipes::RecipeStore::LibraryEntry> m_entries;
  QListWidget* m_list;
  QListWidget* m_menu;
  QCheckBox* m_inMenu;
  QCheckBox* m_subfolders;
  QLabel* m_message;
  QFileSystemWatcher* m_watcher;
  QTimer* m_rescan;
  std::map<QString, QPushButton*> m_buttons;
  bool m_filling = false;
};

}  // namespace tarnbloom::app
