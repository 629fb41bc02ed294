#include "app/progress_strip.h"

#include <QDesktopServices>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QUrl>
#include <QVBoxLayout>
#ifdef TARNBLOOM_HAVE_DBUS
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#endif

namespace tarnbloom::app {

void showInFolder(const QString& file) {
#ifdef TARNBLOOM_HAVE_DBUS
  QDBusInterface manager(QStringLiteral("org.freedesktop.FileManager1"),
                         QStringLiteral("/org/freedesktop/FileManager1"),
                         QStringLiteral("org.freedesktop.FileManager1"),
                         QDBusConnection::sessionBus());
  if (manager.isValid()) {
    const QDBusMessage reply = manager.call(
        QStringLiteral("ShowItems"), QStringList{QUrl::fromLocalFile(file).toString()}, QString());
    if (reply.type() != QDBusMessage::ErrorMessage) return;
  }
#endif
  QDesktopServices::openUrl(QUrl::fromLocalFile(QFileInfo(file).absolutePath()));
}

struct ProgressStrip::Row {
  QWidget* widget = nullptr;
  QLabel* title = nullptr;
  QProgressBar* bar = nullptr;
  QLabel* detail = nullptr;
  QPushButton* stop = nullptr;
  QPushButton* show = nullptr;
  QPushButton* dismiss = nullptr;
  RenderProgressModel model;
  int index = 0, count = 1;
  QString lastOutput;
  QString name;
};

ProgressStrip::ProgressStrip(ExportHost& host, QWidget* parent) : QWidget(parent), m_host(host) {
  setAccessibleName(QStringLiteral("Export progress"));
  m_layout = new QVBoxLayout(this);
  m_layout->setContentsMargins(8, 4, 8, 4);
  hide();
  connect(&host, &ExportHost::itemStarted, this, &ProgressStrip::onStarted);
  connect(&host, &ExportHost::itemProgress, this, &ProgressStrip::onProgress);
  connect(&host, &ExportHost::itemFinished, this, &ProgressStrip::onFinished);
  connect(&host, &ExportHost::jobFinished, this, &ProgressStrip::onJobFinished);
  connect(&host, &ExportHost::stopRequested, this, [this] {
    for (auto& [id, row] : m_rows)
      if (row->stop->isVisible()) {
        row->detail->setText(QStringLiteral("Stopping after the current step…"));
        row->stop->setEnabled(false);
      }
  });
}

ProgressStrip::~ProgressStrip() = default;

ProgressStrip::Row& ProgressStrip::row(const QString& jobID) {
  if (const auto found = m_rows.find(jobID); found != m_rows.end()) return *found->second;
  for (size_t i = 0; i < m_order.size() && m_rows.size() >= kRowsShown;) {
    const Row& old = *m_rows.at(m_order[i]);
    if (old.stop->isHidden()) {  // finished
      remove(m_order[i]);
    } else {
      ++i;
    }
  }
  m_order.push_back(jobID);
  auto& slot = m_rows[jobID];
  slot = std::make_unique<Row>();
  Row& r = *slot;
  r.widget = new QWidget(this);
  auto* layout = new QHBoxLayout(r.widget);
  layout->setContentsMargins(0, 0, 0, 0);
  r.title = new QLabel;
  r.title->setFixedWidth(r.title->fontMetrics().horizontalAdvance(QStringLiteral("Exporting 10 of 10")) + 12);
  r.title->setAlignment(Qt::AlignLeft | Qt::AlignTop);
  r.title->setAccessibleName(QStringLiteral("Export title"));
  r.bar = new QProgressBar;
  r.bar->setAccessibleName(QStringLiteral("Export progress bar"));
  r.bar->setRange(0, 1000);
  r.bar->setTextVisible(false);
  r.bar->setMaximumWidth(240);
  r.detail = new QLabel;
  r.detail->setAccessibleName(QStringLiteral("Export status"));
  // Texts carry their own line breaks; wrapping would make the row's
  // height depend on its width and clip the last line.
  r.detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
  r.stop = new QPushButton(QStringLiteral("Stop"));
  r.stop->setAccessibleName(QStringLiteral("Stop export"));
  r.show = new QPushButton(QStringLiteral("Show in Folder"));
  r.show->setAccessibleName(QStringLiteral("Show in Folder"));
  r.show->hide();
  r.dismiss = new QPushButton(QStringLiteral("Dismiss"));
  r.dismiss->setAccessibleName(QStringLiteral("Dismiss"));
  r.dismiss->hide();
  layout->addWidget(r.title);
  layout->addWidget(r.bar);
  layout->addWidget(r.detail, 1);
  layout->addWidget(r.show);
  layout->addWidget(r.stop);
  layout->addWidget(r.dismiss);
  m_layout->addWidget(r.widget);
  connect(r.stop, &QPushButton::clicked, &m_host, &ExportHost::stop);
  connect(r.show, &QPushButton::clicked, this, [&r] { showInFolder(r.lastOutput); });
  connect(r.dismiss, &QPushButton::clicked, this, [this, jobID] { remove(jobID); });
  r.model.begin(m_clock(), true);
  show();
  return r;
}

void ProgressStrip::remove(const QString& jobID) {
  const auto found = m_rows.find(jobID);
  if (found == m_rows.end()) return;
  found->second->widget->deleteLater();
  m_rows.erase(found);
  std::erase(m_order, jobID);
  setVisible(!m_rows.empty());
}

void ProgressStrip::onStarted(const QString& jobID, int index, int count, const QString& name) {
  Row& r = row(jobID);
  r.index = index;
  r.count = count;
  r.title->setText(count > 1 ? QStringLiteral("Exporting %1 of %2").arg(index + 1).arg(count)
                             : QStringLiteral("Exporting"));
  r.name = name;
  onProgress(jobID, 0);
}

void ProgressStrip::onProgress(const QString& jobID, double fraction) {
  Row& r = row(jobID);
  const double now = m_clock();
  r.model.update(r.index + fraction, r.count, now);
  r.bar->setValue(static_cast<int>(r.model.fraction * 1000));
  r.detail->setText(r.name + QStringLiteral(" — ") +
                    QString::fromStdString(
                        RenderProgressModel::progressLine(r.model.fraction, r.model.eta(now))));
}

void ProgressStrip::onFinished(const QString& jobID, const FinishedItem& item) {
  Row& r = row(jobID);
  if (item.kind == exporting::Result::Kind::exported) {
    r.lastOutput = item.output;
    m_lastOutcome = QStringLiteral("%1 → %2").arg(item.sourceName, item.output);
    if (!item.text.isEmpty()) m_lastOutcome += "\n" + item.text;
  } else {
    m_lastOutcome = QStringLiteral("%1: %2").arg(item.sourceName, item.text);
  }
  r.detail->setText(m_lastOutcome);
}

void ProgressStrip::onJobFinished(const QString& jobID, const QStringList& notes) {
  Row& r = row(jobID);
  r.model.finish(m_clock());
  r.bar->setValue(1000);
  r.bar->hide();
  r.stop->hide();
  r.show->setVisible(!r.lastOutput.isEmpty());
  r.dismiss->show();
  r.title->setText(r.lastOutput.isEmpty() ? QStringLiteral("Export ended")
                                          : QStringLiteral("Exported"));
  QStringList lines{m_lastOutcome};
  lines << notes;
  r.detail->setText(lines.join("\n"));
  if (!r.lastOutput.isEmpty()) r.show->setFocus();
}

}  // namespace tarnbloom::app
