#pragma once

#include <map>
#include <memory>

#include <QString>
#include <QWidget>

#include "app/export_host.h"
#include "engine/render_progress_model.h"

class QLabel;
class QProgressBar;
class QPushButton;
class QVBoxLayout;

namespace tarnbloom::app {

// Opens the file manager on `file`, selected: the desktop's
// org.freedesktop.FileManager1.ShowItems, else the folder itself.
void showInFolder(const QString& file);

// The strip under the compare view: one row per export job with its
// progress, ETA and Stop; a finished job keeps its outcome and "Show in
// Folder" until dismissed. Every text is the controller's own.
class ProgressStrip : public QWidget {
  Q_OBJECT

 public:
  explicit ProgressStrip(ExportHost& host, QWidget* parent = nullptr);
  ~ProgressStrip() override;

  // The outcome text of the most recent item, for tests and screen readers.
  QString lastOutcome() const { return m_lastOutcome; }

 private:
  struct Row;
  Row& row(const QString& jobID);
  void remove(const QString& jobID);
  void onStarted(const QString& jobID, int index, int count, const QString& name);
  void onProgress(const QString& jobID, double fraction);
  void onFinished(const QString& jobID, const FinishedItem& item);
  void onJobFinished(const QString& jobID, const QStringList& notes);

  ExportHost& m_host;
  QVBoxLayout* m_layout;
  std::map<QString, std::unique_ptr<Row>> m_rows;
  // Job ids, oldest first: finished rows beyond a few make room for new ones.
  std::vector<QString> m_order;
  static constexpr size_t kRowsShown = 3;
  RenderClock m_clock = monotonicRenderClock();
  QString m_lastOutcome;
};

}  // namespace tarnbloom::app
