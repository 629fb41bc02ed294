#pragma once

#include <deque>
#include <filesystem>
#include <memory>
#include <vector>

#include <QMainWindow>
#include <QPointer>

#include "app/export_host.h"
#include "engine/estimate_engine.h"
#include "preview/inspector_model.h"

class QAction;
class QLabel;
class QMenu;
class QProgressBar;
class QSplitter;
class QStackedWidget;
class QTabWidget;

namespace tarnbloom::app {

class CompareView;
class DesktopNotifier;
class InstanceLink;
class InspectorPanel;
class PhotoDocument;
class ProgressStrip;
class UpdateChecker;

// The document window: one tab per photo, the inspector beside them, the
// export progress below. A wiring file: documents load themselves, the
// compare view renders, the export host runs exports.
class MainWindow : public QMainWindow {
  Q_OBJECT

 public:
  // Resident tabs: the active one and the two used before it.
  static constexpr size_t kResidentTabs = 3;

  explicit MainWindow(QWidget* parent = nullptr);
  ~MainWindow() override;

  void openFiles(const QStringList& paths);
  // A launch's arguments: photos open in tabs, tarnbloom:// links go to
  // the instance once it runs.
  void openArguments(const QStringList& arguments);
  // The host starts (and asks about interrupted exports) once shown.
  void startExports();

  // For tests: the active tab's document and view, and the last texts.
  PhotoDocument* activeDocument() const;
  CompareView* activeView() const;
  InspectorPanel* inspector() const { return m_inspector; }
  ExportHost& exportHost() { return *m_host; }
  QTabWidget* tabs() const { return m_tabs; }
  ProgressStrip* progressStrip() const { return m_progress; }
  UpdateChecker* updates() const { return m_updates; }
  QAction* action(const QString& id) const;
  EstimateEngine& estimates() { return m_estimates; }

 protected:
  void closeEvent(QCloseEvent* event) override;
  void dragEnterEvent(QDragEnterEvent* event) override;
  void dropEvent(QDropEvent* event) override;

 private:
  void buildActions();
  void buildMenus();
  QWidget* buildEmptyPage();
  QAction* addAction(const QString& id, const QString& text, const QKeySequence& shortcut);
  QAction* addAction(const QString& id, const QString& text, const QList<QKeySequence>& shortcuts);

  void openDialog();
  void closeTab(int index);
  void cycleTabs(int direction);
  void activeTabChanged();
  void applyMemoryPolicy(PhotoDocument* active);
  void refreshDocument(PhotoDocument* document);
  void refreshInspector();
  void updateActions();
  void updateTitle();
  void exportActive();
  void showMenuSettings();
  // The `tarnbloom` tool the file manager's entries run.
  static std::filesystem::path commandLineTool();
  void askAboutInterruptedExports();
  void connectInstance();
  // A tarnbloom:// link from a launch or another process.
  void receiveLink(const QString& link);
  // Away from the window, a finished export is announced.
  void announceWindowJob(const QString& jobID);
  void setMethod(ResampleMethod method);
  void rememberRecent(const QString& path);
  void rebuildRecentMenu();
  void restoreLayout();
  void saveLayout();
  std::optional<std::string> enhanceUnavailable() const;
  preview::InspectorState stateOf(PhotoDocument* document) const;

  EstimateEngine m_estimates{EstimateEngine::configuredURL()};
  std::unique_ptr<ExportHost> m_host;
  InstanceLink* m_link = nullptr;
  DesktopNotifier* m_notifier = nullptr;
  UpdateChecker* m_updates = nullptr;
  // The last file each of the window's running jobs wrote.
  std::map<QString, QString> m_lastOutput;
  QSplitter* m_splitter = nullptr;
  QStackedWidget* m_stack = nullptr;
  QTabWidget* m_tabs = nullptr;
  InspectorPanel* m_inspector = nullptr;
  ProgressStrip* m_progress = nullptr;
  QLabel* m_zoomLabel = nullptr;
  QLabel* m_renderLabel = nullptr;
  QProgressBar* m_renderBar = nullptr;
  QMenu* m_recentMenu = nullptr;
  std::map<QString, QAction*> m_actions;
  // Most recently active first.
  std::deque<QPointer<PhotoDocument>> m_recentlyUsed;
  // Closed tabs whose last tile is still rendering.
  std::vector<QPointer<QWidget>> m_closing;
};

}  // namespace tarnbloom::app
