#pragma once

#include <QFutureWatcher>
#include <QString>
#include <QWidget>
#include <filesystem>
#include <memory>
#include <optional>

#include "export/export_options.h"
#include "recipes/folder_batch_preflight.h"

class QComboBox;
class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QTimer;
class QTreeWidget;

namespace tarnbloom::app {

class ExportHost;

// Enlarges every photo of one folder into another: the user picks the
// folder, the destination and the walk, sees what preflight sets aside and
// why, then queues the batch on the window's export host. Preflight reads
// every file's header, so it runs off the GUI thread and starts again
// whenever the inputs change.
class FolderBatchWindow : public QWidget {
  Q_OBJECT

 public:
  // `options` are how each file is exported (the inspector's); the name
  // template and the if-exists choice start from the export sheet's.
  FolderBatchWindow(ExportHost& host, exporting::ExportOptions options, QWidget* parent = nullptr);
  ~FolderBatchWindow() override;

  // The destination follows the input ("Enlarged" inside it) until the
  // user chooses one.
  void setInputFolder(const std::filesystem::path& folder);
  void setDestination(const std::filesystem::path& folder);
  void setRecursive(bool recurse);
  void preflight();
  // Writes the exclusions atomically; the error's text, or empty.
  QString saveExclusionsTo(const std::filesystem::path& file);
  // Queues the batch preflight planned; what the host refused, if anything.
  QStringList run();

  bool preflightRunning() const { return m_running; }
  // The last preflight, when it matches the current inputs.
  const recipes::FolderPreflight* result() const { return m_result ? &*m_result : nullptr; }

 Q_SIGNALS:
  void preflightFinished();

 private:
  void buildForm();
  void inputsChanged();
  void schedulePreflight();
  void showResult();
  void fillTree();
  void updateButtons();
  void chooseFolder(QLineEdit* edit, const QString& title);
  void chooseExclusionsFile();
  recipes::FolderBatchRequest request() const;

  ExportHost& m_host;
  exporting::ExportOptions m_options;
  bool m_destinationChosen = false;
  bool m_running = false;
  bool m_queued = false;
  int m_generation = 0;
  std::optional<recipes::FolderPreflight> m_result;
  QFutureWatcher<recipes::FolderPreflight>* m_watcher = nullptr;
  QTimer* m_debounce;
  QLineEdit* m_input;
  QLineEdit* m_destination;
  QComboBox* m_walk;
  QLineEdit* m_template;
  QComboBox* m_collision;
  QLabel* m_rejection;
  QProgressBar* m_busy;
  QLabel* m_summary;
  QTreeWidget* m_tree;
  QLabel* m_detail;
  QPushButton* m_preflight;
  QPushButton* m_save;
  QPushButton* m_run;
};

// Opens the window for `host`, exporting with `options`; it deletes itself
// when closed.
FolderBatchWindow* showFolderBatchWindow(ExportHost& host, const exporting::ExportOptions& options,
                                         QWidget* parent);

}  // namespace tarnbloom::app
