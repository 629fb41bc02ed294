#include "app/recipes_window.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QFileDialog>
#include <QFileSystemWatcher>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

#include "app/export_host.h"
#include "app/export_sheet.h"
#include "app/policy_controls.h"
#include "app/recipe_editor.h"
#include "finder/finder_menu_publisher.h"
#include "finder/finder_menu_store.h"
#include "recipes/folder_batch_walker.h"
#include "recipes/recipe_run_planner.h"
#include "recipes/recipes_window_logic.h"
#include "support/settings.h"
#include "support/uuid.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;
using recipes::RecipeStore;
using recipes::RecipesWindowLogic;

namespace {

QString qpath(const fs::path& path) { return QString::fromStdString(path.string()); }

std::vector<std::string> savedOrder() {
  const Settings settings = Settings::loadDefault();
  std::vector<std::string> ids;
  if (const auto* value = settings.value(std::string(RecipesWindowLogic::kOrderKey));
      value && value->is_array())
    for (const auto& id : *value)
      if (id.is_string()) ids.push_back(id.get<std::string>());
  return ids;
}

// The menu store over the settings as they are on disk now: the export
// sheet and the command line save the same file, so a copy held open
// would write their changes back over.
template <typename F>
auto withMenuStore(const RecipeStore& library, F&& f) {
  Settings settings = Settings::loadDefault();
  finder::FinderMenuStore store(settings, library);
  return f(store);
}

QString entryText(const RecipeStore::LibraryEntry& entry) {
  QString text = qsv(entry.name);
  if (!entry.draft) return text + QStringLiteral("\nCan’t be used: ") + qsv(entry.refusal.value_or(""));
  for (const auto& output : entry.draft->outputs) text += QStringLiteral("\n    ") + qsv(output.summary());
  return text;
}

}  // namespace

RecipesWindow::RecipesWindow(RecipesWindowContext context, QWidget* parent)
    : QDialog(parent), m_context(std::move(context)) {
  setWindowTitle(QStringLiteral("Recipes"));
  setModal(false);
  m_list = named(new QListWidget, QStringLiteral("Recipes"));
  m_list->setDragDropMode(QAbstractItemView::InternalMove);
  m_list->setAlternatingRowColors(true);
  // A refusal is a sentence or two: wrap it rather than hide it sideways.
  m_list->setWordWrap(true);
  m_list->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  m_list->setResizeMode(QListView::Adjust);
  m_list->setSpacing(2);
  m_list->setToolTip(QStringLiteral("Drag a recipe to change the order of this list."));
  connect(m_list, &QListWidget::currentRowChanged, this, [this] { updateButtons(); });
  connect(m_list, &QListWidget::itemDoubleClicked, this, [this] { editSelected(); });
  connect(m_list->model(), &QAbstractItemModel::rowsMoved, this, [this] { saveOrder(); });

  m_inMenu = named(new QCheckBox(QStringLiteral("Show in File Manager Menu")),
                   QStringLiteral("Show in File Manager Menu"));
  connect(m_inMenu, &QCheckBox::clicked, this, &RecipesWindow::setSelectedInMenu);

  m_message = named(new QLabel, QStringLiteral("Message"));
  m_message->setWordWrap(true);
  m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);

  auto* left = new QVBoxLayout;
  left->addWidget(m_list, 1);
  left->addWidget(m_inMenu);
  auto* columns = new QHBoxLayout;
  columns->addLayout(left, 1);
  columns->addLayout(buildButtons());
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(columns, 1);
  layout->addWidget(buildMenuBox());
  layout->addWidget(m_message);

  // Another window, the command line or a file manager may change the
  // library; a burst of file events rereads it once.
  m_rescan = new QTimer(this);
  m_rescan->setSingleShot(true);
  m_rescan->setInterval(200);
  connect(m_rescan, &QTimer::timeout, this, &RecipesWindow::refresh);
  m_watcher = new QFileSystemWatcher(this);
  try {
    m_watcher->addPath(qpath(m_context.library.directory()));
  } catch (const Error&) {
    // The listing says nothing either; the window still opens.
  }
  connect(m_watcher, &QFileSystemWatcher::directoryChanged, m_rescan,
          static_cast<void (QTimer::*)()>(&QTimer::start));
  refresh();
  resize(760, 620);
}

QLayout* RecipesWindow::buildButtons() {
  auto* column = new QVBoxLayout;
  const auto button = [&](const QString& text, auto slot) {
    auto* b = named(new QPushButton(text), text);
    // The size hint comes before the style's margins; the longest title
    // must still show whole.
    b->setMinimumWidth(b->fontMetrics().horizontalAdvance(text) + 32);
    connect(b, &QPushButton::clicked, this, slot);
    column->addWidget(b);
    m_buttons[text] = b;
  };
  button(QStringLiteral("New…"), [this] { newRecipe(); });
  button(QStringLiteral("Edit…"), [this] { editSelected(); });
  button(QStringLiteral("Duplicate"), [this] { duplicateSelected(); });
  button(QStringLiteral("Delete…"), [this] { deleteSelected(); });
  column->addSpacing(12);
  button(QStringLiteral("Import…"), [this] {
    const QString file = QFileDialog::getOpenFileName(
        this, QStringLiteral("Import Recipe"), QString(),
        QStringLiteral("Recipes (*.tarnbloomrecipe);;All files (*)"));
    if (!file.isEmpty()) importFile(file.toStdString());
  });
  button(QStringLiteral("Export…"), [this] {
    const auto* entry = selected();
    if (!entry || !entry->draft) return;
    const QString file = QFileDialog::getSaveFileName(
        this, QStringLiteral("Export Recipe"), qsv(entry->name + ".tarnbloomrecipe"),
        QStringLiteral("Recipes (*.tarnbloomrecipe)"));
    if (!file.isEmpty()) exportSelected(file.toStdString());
  });
  column->addSpacing(12);
  button(QStringLiteral("Apply to Current Photo"), [this] { applyToCurrentPhoto(); });
  button(QStringLiteral("Apply to Folder…"), [this] {
    const QString folder =
        QFileDialog::getExistingDirectory(this, QStringLiteral("Apply Recipe to Folder"));
    if (!folder.isEmpty()) applyToFolder(folder.toStdString(), m_subfolders->isChecked());
  });
  m_subfolders = named(new QCheckBox(QStringLiteral("Include subfolders")),
                       QStringLiteral("Include subfolders"));
  column->addWidget(m_subfolders);
  column->addStretch(1);
  return column;
}

QWidget* RecipesWindow::buildMenuBox() {
  auto* box = new QGroupBox(QStringLiteral("File Manager Menu"));
  m_menu = named(new QListWidget, QStringLiteral("File Manager Menu"));
  m_menu->setMaximumHeight(120);
  connect(m_menu, &QListWidget::currentRowChanged, this, [this] { updateButtons(); });
  auto* up = named(new QPushButton(QStringLiteral("Move Up")), QStringLiteral("Move Up"));
  auto* down = named(new QPushButton(QStringLiteral("Move Down")), QStringLiteral("Move Down"));
  connect(up, &QPushButton::clicked, this, [this] { moveInMenu(-1); });
  connect(down, &QPushButton::clicked, this, [this] { moveInMenu(1); });
  m_buttons[QStringLiteral("Move Up")] = up;
  m_buttons[QStringLiteral("Move Down")] = down;
  auto* buttons = new QVBoxLayout;
  buttons->addWidget(up);
  buttons->addWidget(down);
  buttons->addStretch(1);
  auto* layout = new QHBoxLayout(box);
  layout->addWidget(m_menu, 1);
  layout->addLayout(buttons);
  return box;
}

void RecipesWindow::refresh() {
  const auto* current = selected();
  const std::string keep = current ? current->id() : std::string();
  m_entries = RecipesWindowLogic::sortedEntries(
      m_context.library.entries(recipes::installedMethods()), savedOrder());
  m_filling = true;
  m_list->clear();
  const QColor muted = palette().color(QPalette::Disabled, QPalette::Text);
  for (size_t i = 0; i < m_entries.size(); ++i) {
    const auto& entry = m_entries[i];
    auto* item = new QListWidgetItem(entryText(entry), m_list);
    item->setData(Qt::UserRole, qsv(entry.id()));
    // The whole reason, where a narrow list cuts it short.
    item->setToolTip(entry.refusal ? qsv(*entry.refusal) + QStringLiteral("\n\n") + qpath(entry.url)
                                   : qpath(entry.url));
    if (!entry.isUsable()) item->setForeground(muted);
  }
  m_filling = false;
  select(keep);
  if (!selected() && !m_entries.empty()) m_list->setCurrentRow(0);
  refreshMenu();
  updateButtons();
}

void RecipesWindow::refreshMenu() {
  const QString keep = m_menu->currentItem() ? m_menu->currentItem()->data(Qt::UserRole).toString()
                                             : QString();
  const auto ids = withMenuStore(m_context.library,
                                 [](finder::FinderMenuStore& s) { return s.orderedRecipeIDs(); });
  m_menu->clear();
  for (const auto& id : ids) {
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&](const auto& e) { return e.id() == id; });
    // The menu leaves out a recipe that is gone; the list says so.
    const QString title = found == m_entries.end() ? QStringLiteral("%1 (removed)").arg(qsv(id))
                                                   : qsv(found->name);
    auto* item = new QListWidgetItem(title, m_menu);
    item->setData(Qt::UserRole, qsv(id));
    if (qsv(id) == keep) m_menu->setCurrentItem(item);
  }
}

void RecipesWindow::select(const std::string& id) {
  for (int row = 0; row < m_list->count(); ++row)
    if (m_list->item(row)->data(Qt::UserRole).toString() == qsv(id)) m_list->setCurrentRow(row);
}

const RecipeStore::LibraryEntry* RecipesWindow::selected() const {
  const auto* item = m_list->currentItem();
  if (!item) return nullptr;
  const std::string id = item->data(Qt::UserRole).toString().toStdString();
  for (const auto& entry : m_entries)
    if (entry.id() == id) return &entry;
  return nullptr;
}

void RecipesWindow::updateButtons() {
  const auto* entry = selected();
  const bool usable = entry && entry->isUsable();
  for (const char* name : {"Edit…", "Duplicate", "Export…", "Apply to Current Photo", "Apply to Folder…"})
    m_buttons[QString::fromUtf8(name)]->setEnabled(usable);
  m_buttons[QStringLiteral("Delete…")]->setEnabled(entry != nullptr);
  m_inMenu->setEnabled(usable);
  {
    const QSignalBlocker quiet(m_inMenu);
    m_inMenu->setChecked(usable && withMenuStore(m_context.library, [&](finder::FinderMenuStore& s) {
                           return s.isInMenu(entry->id());
                         }));
  }
  const int row = m_menu->currentRow();
  m_buttons[QStringLiteral("Move Up")]->setEnabled(row > 0);
  m_buttons[QStringLiteral("Move Down")]->setEnabled(row >= 0 && row + 1 < m_menu->count());
}

void RecipesWindow::saveOrder() {
  if (m_filling) return;
  nlohmann::json ids = nlohmann::json::array();
  for (int row = 0; row < m_list->count(); ++row)
    ids.push_back(m_list->item(row)->data(Qt::UserRole).toString().toStdString());
  Settings settings = Settings::loadDefault();
  settings.set(std::string(RecipesWindowLogic::kOrderKey), ids);
  try {
    settings.save();
  } catch (const Error& error) {
    showMessage({qsv(error.description())}, true);
  }
}

void RecipesWindow::changed() {
  const auto problems = finder::republishFinderMenu(
      finder::commandLineToolBeside(QCoreApplication::applicationFilePath().toStdString()));
  QStringList lines;
  for (const auto& problem : problems) lines << qsv(problem);
  if (!lines.isEmpty()) showMessage(lines, true);
  refresh();
  Q_EMIT libraryChanged();
}

void RecipesWindow::showMessage(const QStringList& lines, bool problem) {
  m_message->setText(lines.join(QLatin1Char('\n')));
  m_message->setStyleSheet(problem ? QStringLiteral("color: #c62828;") : QString());
}

QString RecipesWindow::message() const { return m_message->text(); }

recipes::RecipeDraft RecipesWindow::currentSettingsDraft() const {
  const auto photo = m_context.currentPhoto ? m_context.currentPhoto() : std::nullopt;
  const exporting::ExportOptions options =
      m_context.currentOptions ? m_context.currentOptions() : exporting::ExportOptions{};
  const ExportRequest saved = savedRequest(options, photo.value_or(fs::path()));
  recipes::RecipeDraft draft;
  draft.id = makeUuid();
  draft.outputs.push_back(
      RecipesWindowLogic::outputFrom(options, saved.nameTemplate, saved.folder, photo));
  return draft;
}

RecipeEditor* RecipesWindow::openEditor(recipes::RecipeDraft draft) {
  auto* editor = new RecipeEditor(std::move(draft), m_context.library, this);
  editor->setAttribute(Qt::WA_DeleteOnClose);
  connect(editor, &QDialog::accepted, this, [this, editor] {
    if (const auto& saved = editor->saved()) {
      changed();
      select(saved->id);
      showMessage({QStringLiteral("Saved “%1”.").arg(qsv(saved->name))}, false);
    }
  });
  editor->open();
  return editor;
}

RecipeEditor* RecipesWindow::newRecipe() { return openEditor(currentSettingsDraft()); }

RecipeEditor* RecipesWindow::editSelected() {
  const auto* entry = selected();
  if (!entry || !entry->draft) return nullptr;
  return openEditor(*entry->draft);
}

void RecipesWindow::duplicateSelected() {
  const auto* entry = selected();
  if (!entry || !entry->draft) return;
  recipes::RecipeDraft copy = *entry->draft;
  copy.id = makeUuid();
  copy.created.clear();
  copy.name += " copy";
  try {
    const auto saved = m_context.library.save(copy);
    changed();
    select(saved.id);
  } catch (const Error& error) {
    showMessage({qsv(error.description())}, true);
  }
}

void RecipesWindow::importFile(const fs::path& path) {
  try {
    const auto saved = m_context.library.importFile(path, recipes::installedMethods());
    changed();
    select(saved.id);
    showMessage({QStringLiteral("Imported “%1”.").arg(qsv(saved.name))}, false);
  } catch (const Error& error) {
    QMessageBox box(QMessageBox::Warning, qsv(RecipeStore::kImportFailureTitle),
                    qsv(RecipeStore::importFailureText(error)), QMessageBox::Ok, this);
    box.exec();
  }
}

void RecipesWindow::exportSelected(const fs::path& path) {
  const auto* entry = selected();
  if (!entry || !entry->draft) return;
  try {
    RecipeStore::exportFile(*entry->draft, path);
    showMessage({QStringLiteral("Exported “%1” to %2.").arg(qsv(entry->name), qpath(path))}, false);
  } catch (const Error& error) {
    showMessage({qsv(error.description())}, true);
  }
}

void RecipesWindow::deleteSelected() {
  // A copy: the library may be reread while the question is open.
  const auto* current = selected();
  if (!current) return;
  const RecipeStore::LibraryEntry entry = *current;
  QMessageBox box(QMessageBox::Warning, QStringLiteral("Delete Recipe"),
                  QStringLiteral("Delete “%1”?").arg(qsv(entry.name)), QMessageBox::Cancel, this);
  box.setInformativeText(qsv(RecipeStore::kRemoveNote));
  auto* remove = box.addButton(QStringLiteral("Delete"), QMessageBox::DestructiveRole);
  box.setDefaultButton(QMessageBox::Cancel);
  box.exec();
  if (box.clickedButton() != remove) return;
  try {
    const std::string id = entry.id();
    m_context.library.remove(entry);
    // A deleted recipe leaves the menu with its file.
    withMenuStore(m_context.library, [&](finder::FinderMenuStore& s) {
      if (s.isInMenu(id)) s.remove(id);
      return 0;
    });
    changed();
  } catch (const Error& error) {
    showMessage({qsv(error.description())}, true);
  }
}

void RecipesWindow::submit(const recipes::RecipeDraft& recipe, const std::vector<fs::path>& sources,
                           QStringList notes) {
  ExportHost* host = m_context.host;
  if (!host || !host->isReady()) {
    showMessage({host ? host->blockedReason() : QStringLiteral("Exports can’t start yet.")}, true);
    return;
  }
  const ExportRequest saved =
      savedRequest(exporting::ExportOptions{}, sources.empty() ? fs::path() : sources.front());
  recipes::RecipeRunSettings settings;
  settings.collision = saved.collision;
  settings.receiptsBesideExports = saved.receiptsBesideExports;
  settings.reserved = host->reservedOutputs();
  settings.refuseUnreadable = [](const fs::path&) { return true; };
  int queued = 0;
  try {
    for (auto& unit : recipes::RecipeRunPlanner::plan(recipe, sources, settings)) {
      const auto items = static_cast<int>(unit.plan.items.size());
      const auto planRefusals = static_cast<qsizetype>(unit.plan.refusals.size());
      const QStringList refusals = host->submitPlan(std::move(unit.plan));
      notes << refusals;
      // One more refusal than the plan had: the controller queued nothing.
      if (refusals.size() == planRefusals) queued += items;
    }
  } catch (const Error& error) {
    notes << qsv(error.description());
  }
  notes.removeDuplicates();
  notes.prepend(queued == 0 ? QStringLiteral("Nothing was queued for “%1”.").arg(qsv(recipe.name))
                            : QStringLiteral("Queued %1 export%2 of “%3”.")
                                  .arg(queued)
                                  .arg(queued == 1 ? "" : "s")
                                  .arg(qsv(recipe.name)));
  showMessage(notes, notes.size() > 1 || queued == 0);
}

void RecipesWindow::applyToCurrentPhoto() {
  const auto* entry = selected();
  if (!entry || !entry->draft) return;
  const auto photo = m_context.currentPhoto ? m_context.currentPhoto() : std::nullopt;
  if (!photo) {
    showMessage({QStringLiteral("Open a photo to apply a recipe to it.")}, true);
    return;
  }
  submit(*entry->draft, {*photo}, {});
}

void RecipesWindow::applyToFolder(const fs::path& folder, bool includeSubfolders) {
  const auto* entry = selected();
  if (!entry || !entry->draft) return;
  // The walk never enters a folder the recipe writes into, so running it
  // again never enlarges its own output.
  std::vector<fs::path> destinations;
  for (const auto& output : entry->draft->outputs)
    if (output.destination) destinations.emplace_back(*output.destination);
  const auto walk = recipes::FolderBatchWalker::walkDetailed(folder, includeSubfolders, destinations);
  QStringList notes;
  for (const auto& problem : walk.problems)
    notes << qpath(problem.folder.filename()) + QStringLiteral(": ") + qsv(problem.message);
  if (walk.files.empty()) {
    notes.prepend(QStringLiteral("No photos in “%1”.").arg(qpath(folder.filename())));
    showMessage(notes, true);
    return;
  }
  submit(*entry->draft, walk.files, notes);
}

void RecipesWindow::setSelectedInMenu(bool inMenu) {
  const auto* entry = selected();
  if (!entry || !entry->draft) return;
  const std::string id = entry->id();
  const auto refusal = withMenuStore(m_context.library, [&](finder::FinderMenuStore& s) {
    std::optional<std::string> why;
    if (!inMenu) {
      s.remove(id);
    } else if (!s.isInMenu(id)) {
      why = s.addRefusal(id);
      if (!why) s.add(id);
    }
    return why;
  });
  if (refusal) showMessage({qsv(*refusal)}, true);
  changed();
}

void RecipesWindow::moveInMenu(int offset) {
  const auto* item = m_menu->currentItem();
  if (!item) return;
  const std::string id = item->data(Qt::UserRole).toString().toStdString();
  withMenuStore(m_context.library, [&](finder::FinderMenuStore& s) {
    s.move(id, offset);
    return 0;
  });
  changed();
}

}  // namespace tarnbloom::app
