#include "app/menu_run_confirmation.h"

#include <QMessageBox>
#include <QPushButton>

#include "agent/agent_paths.h"
#include "agent/agent_protocol.h"
#include "agent/agent_request.h"
#include "finder/finder_identity.h"
#include "finder/finder_menu_store.h"
#include "support/files.h"
#include "support/settings.h"
#include "support/state_paths.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;

namespace {

QString qs(const std::string& text) { return QString::fromStdString(text); }

recipes::RecipeStore library() { return recipes::RecipeStore(stateFolder() / "Recipes"); }

// The entry's name as its menu shows it, and what its settings do.
std::pair<QString, QString> describeEntry(const finder::FinderIdentity& entry,
                                          const finder::FinderMenuStore& store) {
  if (entry.isEnlarge()) {
    const auto options = store.enlargeOptions(entry.scale());
    const std::string format = options.formatFollowsSource
                                   ? std::string("the photo’s own format")
                                   : std::string(encoding::title(options.format));
    return {QStringLiteral("Enlarge %1×").arg(entry.scale()),
            qs(options.sizeLabel() + " · " + std::string(title(options.method)) + " · " + format)};
  }
  for (const auto& found : library().entries(recipes::installedMethods()))
    if (found.draft && found.draft->id == entry.recipeID())
      return {qs(found.draft->name), qs(finder::menuSummary(*found.draft))};
  return {};
}

// A request nobody will deliver leaves the inbox.
void forget(const fs::path& file) {
  try {
    removeFileIfPresent(file);
  } catch (const Error&) {
    // The instance's garbage collection removes it within a day.
  }
}

QString describeSources(const agent::AgentRequest& request) {
  int files = 0, folders = 0;
  for (const auto& source : request.sources)
    (source.kind == agent::AgentSourceKind::folder ? folders : files) += 1;
  QStringList parts;
  if (files > 0) parts << (files == 1 ? QStringLiteral("1 photo") : QStringLiteral("%1 photos").arg(files));
  if (folders > 0)
    parts << (folders == 1 ? QStringLiteral("1 folder") : QStringLiteral("%1 folders").arg(folders));
  QString text = QStringLiteral("It runs on ") + parts.join(QStringLiteral(" and ")) + ". ";
  text += request.out ? QStringLiteral("Exports are saved in “%1”.").arg(qs(*request.out))
                      : QStringLiteral("Exports are saved beside each photo.");
  return text;
}

}  // namespace

std::optional<std::string> confirmMenuRun(QWidget* parent,
                                          const agent::AgentURL::MenuConfirmation& confirmation) {
  std::optional<finder::FinderIdentity> entry;
  agent::AgentRequest request;
  const fs::path file = agent::AgentPaths::inboxFile(confirmation.jobID, stateFolder());
  try {
    entry = finder::FinderIdentity::fromCommandLineText(confirmation.entry);
    request = agent::decodeRequest(readWholeFile(file, agent::AgentProtocol::maxRequestBytes));
  } catch (const std::exception&) {
    // Delivered already, cancelled, or never written: nothing waits.
    return std::nullopt;
  }
  auto settings = Settings::loadDefault();
  finder::FinderMenuStore store(settings, library());
  const auto [name, summary] = describeEntry(*entry, store);
  if (name.isEmpty()) {
    QMessageBox::warning(parent, QStringLiteral("Tarnbloom"),
                         qs(std::string(finder::FinderMenuStore::kRemovedRecipeMessage)));
    forget(file);
    return std::nullopt;
  }
  QMessageBox box(QMessageBox::Question, QStringLiteral("Tarnbloom"),
                  QStringLiteral("Use “%1” from the file manager?").arg(name), QMessageBox::NoButton,
                  parent);
  box.setInformativeText(QStringLiteral("This is the first time. It uses these settings: %1.\n\n%2\n\n"
                                        "Tarnbloom won’t ask again for this menu entry.")
                             .arg(summary, describeSources(request)));
  auto* run = box.addButton(name, QMessageBox::AcceptRole);
  box.addButton(QMessageBox::Cancel);
  box.setDefaultButton(run);
  box.exec();
  if (box.clickedButton() != run) {
    forget(file);
    return std::nullopt;
  }
  store.acknowledge(*entry);
  if (request.out) {
    std::error_code error;
    fs::create_directories(*request.out, error);  // the instance says so if it is missing
  }
  return agent::AgentURL::runURL(agent::AgentURL::kScheme, confirmation.jobID);
}

}  // namespace tarnbloom::app
