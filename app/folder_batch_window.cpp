#include "app/folder_batch_window.h"

#include <QCloseEvent>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QTreeWidget>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrentRun>

#include "app/export_host.h"
#include "app/export_sheet.h"
#include "app/policy_controls.h"
#include "encoding/naming_engine.h"
#include "support/files.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;
using exporting::CollisionPolicy;

namespace {

// Inputs settle for this long before preflight reads the folder again, so
// typing a path does not walk every prefix of it.
constexpr int kSettleMs = 300;
// Quick preflights finish before a busy bar would only flicker.
constexpr int kBusyDelayMs = 400;

QString qs(const std::string& text) { return QString::fromStdString(text); }
fs::path pathOf(const QLineEdit* edit) { return fs::path(edit->text().trimmed().toStdString()); }

QString count(size_t n, const char* one, const char* many) {
  return QStringLiteral("%1 %2").arg(n).arg(QString::fromUtf8(n == 1 ? one : many));
}

// One row of the listing: what it shows, the full path, and why.
struct Row {
  QString shown, path, why;
};

// One group of the listing: its label with how many it holds, then one
// row per file or folder.
void addGroup(QTreeWidget* tree, const QString& label, const std::vector<Row>& rows,
              bool expanded = true) {
  if (rows.empty()) return;
  auto* group = new QTreeWidgetItem(tree, {QStringLiteral("%1 (%2)").arg(label).arg(rows.size())});
  QFont bold = group->font(0);
  bold.setBold(true);
  group->setFont(0, bold);
  group->setFirstColumnSpanned(true);
  for (const auto& row : rows) {
    auto* item = new QTreeWidgetItem(group, {row.shown, row.why});
    item->setData(0, Qt::UserRole, row.path);
    item->setToolTip(0, row.path);
    item->setToolTip(1, row.why);
  }
  group->setExpanded(expanded);
}

}  // namespace

FolderBatchWindow::FolderBatchWindow(ExportHost& host, exporting::ExportOptions options,
                                     QWidget* parent)
    : QWidget(parent, Qt::Window), m_host(host), m_options(std::move(options)) {
  setWindowTitle(QStringLiteral("Enlarge Folder"));
  setAccessibleName(QStringLiteral("Folder batch"));
  m_debounce = new QTimer(this);
  m_debounce->setSingleShot(true);
  m_debounce->setInterval(kSettleMs);
  connect(m_debounce, &QTimer::timeout, this, &FolderBatchWindow::preflight);
  buildForm();
  connect(&m_host, &ExportHost::ready, this, &FolderBatchWindow::updateButtons);
  inputsChanged();
  resize(760, 560);
}

FolderBatchWindow::~FolderBatchWindow() {
  // A preflight still running finishes on its own; its result has nowhere
  // to go.
  if (m_watcher) m_watcher->disconnect(this);
}

void FolderBatchWindow::buildForm() {
  const ExportRequest saved = savedRequest(m_options, {});
  auto* form = new QFormLayout;

  const auto folderRow = [this](QLineEdit* edit, const QString& title) {
    auto* row = new QWidget;
    auto* layout = new QHBoxLayout(row);
    layout->setContentsMargins(0, 0, 0, 0);
    auto* choose = named(new QPushButton(QStringLiteral("Choose…")), title);
    layout->addWidget(edit, 1);
    layout->addWidget(choose);
    connect(choose, &QPushButton::clicked, this,
            [this, edit, title] { chooseFolder(edit, title); });
    return row;
  };
  m_input = named(new QLineEdit, QStringLiteral("Folder to enlarge"));
  m_input->setPlaceholderText(QStringLiteral("Choose a folder of photos"));
  form->addRow(QStringLiteral("Folder"),
               folderRow(m_input, QStringLiteral("Choose Folder to Enlarge")));
  m_destination = named(new QLineEdit, QStringLiteral("Destination folder"));
  m_destination->setPlaceholderText(QStringLiteral("An “Enlarged” folder inside it"));
  form->addRow(QStringLiteral("Save in"),
               folderRow(m_destination, QStringLiteral("Save Enlarged Copies In")));
  m_walk = named(new QComboBox, QStringLiteral("Walk"));
  m_walk->addItem(QStringLiteral("Including subfolders"));
  m_walk->addItem(QStringLiteral("Direct contents only"));
  form->addRow(QStringLiteral("Files"), m_walk);

  auto* settings =
      named(new QLabel(qs(recipes::optionsSummary(m_options))), QStringLiteral("Settings summary"));
  settings->setWordWrap(true);
  settings->setToolTip(
      QStringLiteral("The inspector’s settings. Change them there and open this "
                     "window again."));
  form->addRow(QStringLiteral("Settings"), settings);
  m_template = named(new QLineEdit(qs(saved.nameTemplate)), QStringLiteral("Name template"));
  m_template->setToolTip(qsv(encoding::NamingEngine::kTokenHelp));
  form->addRow(QStringLiteral("Name"), m_template);
  m_collision = named(new QComboBox, QStringLiteral("If a file exists"));
  m_collision->addItem(QStringLiteral("Add a number"), static_cast<int>(CollisionPolicy::number));
  m_collision->addItem(QStringLiteral("Skip"), static_cast<int>(CollisionPolicy::skip));
  m_collision->addItem(QStringLiteral("Replace"), static_cast<int>(CollisionPolicy::replace));
  m_collision->setCurrentIndex(m_collision->findData(static_cast<int>(saved.collision)));
  form->addRow(QStringLiteral("If a file exists"), m_collision);

  m_rejection = named(new QLabel, QStringLiteral("Destination problem"));
  m_rejection->setWordWrap(true);
  m_rejection->setStyleSheet(QStringLiteral("color: #b3261e;"));
  m_rejection->hide();

  auto* statusRow = new QHBoxLayout;
  m_summary = named(new QLabel, QStringLiteral("Preflight summary"));
  m_summary->setWordWrap(true);
  m_summary->setTextInteractionFlags(Qt::TextSelectableByMouse);
  m_busy = named(new QProgressBar, QStringLiteral("Preflight running"));
  m_busy->setRange(0, 0);
  m_busy->setMaximumWidth(160);
  m_busy->hide();
  m_preflight =
      named(new QPushButton(QStringLiteral("Preflight Again")), QStringLiteral("Preflight"));
  statusRow->addWidget(m_summary, 1);
  statusRow->addWidget(m_busy);
  statusRow->addWidget(m_preflight);

  m_tree = named(new QTreeWidget, QStringLiteral("Preflight results"));
  m_tree->setColumnCount(2);
  m_tree->setHeaderLabels({QStringLiteral("File"), QStringLiteral("Why")});
  m_tree->header()->setSectionResizeMode(0, QHeaderView::Interactive);
  m_tree->header()->resizeSection(0, 240);
  m_tree->setWordWrap(true);
  m_tree->setUniformRowHeights(true);

  // Explanations are longer than a row; the selected one is shown whole.
  m_detail = named(new QLabel, QStringLiteral("Selected explanation"));
  m_detail->setWordWrap(true);
  m_detail->setTextInteractionFlags(Qt::TextSelectableByMouse);
  m_detail->hide();
  connect(m_tree, &QTreeWidget::currentItemChanged, this, [this](QTreeWidgetItem* item) {
    const bool row = item && item->parent();
    m_detail->setText(
        row ? QStringLiteral("%1: %2").arg(item->data(0, Qt::UserRole).toString(), item->text(1))
            : QString());
    m_detail->setVisible(row);
  });

  auto* buttons = new QDialogButtonBox;
  m_save =
      named(buttons->addButton(QStringLiteral("Save Exclusions…"), QDialogButtonBox::ActionRole),
            QStringLiteral("Save Exclusions…"));
  m_save->setToolTip(
      QStringLiteral("Save the excluded files, their cause and what to do about them."));
  buttons->addButton(QDialogButtonBox::Close);
  m_run = named(buttons->addButton(QStringLiteral("Run"), QDialogButtonBox::AcceptRole),
                QStringLiteral("Run"));
  m_run->setDefault(true);

  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(m_rejection);
  layout->addLayout(statusRow);
  layout->addWidget(m_tree, 1);
  layout->addWidget(m_detail);
  layout->addWidget(buttons);

  connect(m_input, &QLineEdit::textChanged, this, &FolderBatchWindow::inputsChanged);
  connect(m_destination, &QLineEdit::textEdited, this, [this] { m_destinationChosen = true; });
  connect(m_destination, &QLineEdit::textChanged, this, &FolderBatchWindow::inputsChanged);
  connect(m_template, &QLineEdit::textChanged, this, &FolderBatchWindow::inputsChanged);
  connect(m_walk, &QComboBox::currentIndexChanged, this, &FolderBatchWindow::inputsChanged);
  connect(m_collision, &QComboBox::currentIndexChanged, this, &FolderBatchWindow::inputsChanged);
  connect(m_preflight, &QPushButton::clicked, this, &FolderBatchWindow::preflight);
  connect(m_save, &QPushButton::clicked, this, &FolderBatchWindow::chooseExclusionsFile);
  connect(buttons, &QDialogButtonBox::rejected, this, &QWidget::close);
  connect(m_run, &QPushButton::clicked, this, [this] {
    const QStringList refusals = run();
    if (!refusals.isEmpty())
      QMessageBox::warning(this, QStringLiteral("The batch was not queued"), refusals.join('\n'));
  });
}

void FolderBatchWindow::setInputFolder(const fs::path& folder) {
  m_input->setText(qs(folder.string()));
}

void FolderBatchWindow::setDestination(const fs::path& folder) {
  m_destinationChosen = true;
  m_destination->setText(qs(folder.string()));
}

void FolderBatchWindow::setRecursive(bool recurse) { m_walk->setCurrentIndex(recurse ? 0 : 1); }

recipes::FolderBatchRequest FolderBatchWindow::request() const {
  recipes::FolderBatchRequest r;
  r.input = fs::absolute(pathOf(m_input)).lexically_normal();
  r.destination = fs::absolute(pathOf(m_destination)).lexically_normal();
  r.recurse = m_walk->currentIndex() == 0;
  r.description.options = m_options;
  r.description.collision = static_cast<CollisionPolicy>(m_collision->currentData().toInt());
  r.description.receiptsBesideExports = savedRequest(m_options, {}).receiptsBesideExports;
  r.nameTemplate = m_template->text().toStdString();
  // Names unfinished exports hold are taken, so the batch never plans onto
  // one of them.
  r.reserved = m_host.reservedOutputs();
  return r;
}

void FolderBatchWindow::inputsChanged() {
  if (!m_destinationChosen) {
    const QString input = m_input->text().trimmed();
    const QSignalBlocker quiet(m_destination);
    m_destination->setText(input.isEmpty() ? QString()
                                           : qs((pathOf(m_input) / "Enlarged").string()));
  }
  // Whatever was planned no longer matches what the window shows.
  ++m_generation;
  m_result.reset();
  m_queued = false;
  const bool ready =
      !m_input->text().trimmed().isEmpty() && !m_destination->text().trimmed().isEmpty();
  std::optional<std::string> rejection;
  if (ready)
    rejection =
        recipes::FolderBatchWalker::destinationRejection(pathOf(m_input), pathOf(m_destination));
  m_rejection->setText(rejection ? qs(*rejection) : QString());
  m_rejection->setVisible(rejection.has_value());
  m_tree->clear();
  m_summary->setText(ready ? QString()
                           : QStringLiteral("Choose a folder to see what will be enlarged."));
  if (ready && !rejection) schedulePreflight();
  updateButtons();
}

void FolderBatchWindow::schedulePreflight() { m_debounce->start(); }

void FolderBatchWindow::preflight() {
  m_debounce->stop();
  if (m_input->text().trimmed().isEmpty() || !m_rejection->text().isEmpty()) return;
  ++m_generation;
  m_result.reset();
  m_queued = false;
  // One walk at a time: a change while one runs starts the next when it
  // ends, and the stale result is dropped.
  if (m_running) return updateButtons();
  m_running = true;
  const int generation = m_generation;
  QTimer::singleShot(kBusyDelayMs, this, [this, generation] {
    if (m_running && generation == m_generation) m_busy->show();
  });
  m_summary->setText(QStringLiteral("Checking every file…"));
  m_watcher = new QFutureWatcher<recipes::FolderPreflight>(this);
  connect(m_watcher, &QFutureWatcherBase::finished, this, [this, generation] {
    auto* watcher = m_watcher;
    m_watcher = nullptr;
    m_running = false;
    m_busy->hide();
    const auto result = watcher->result();
    watcher->deleteLater();
    if (generation != m_generation) return preflight();
    m_result = result;
    showResult();
    Q_EMIT preflightFinished();
  });
  // The worker gets its own copy of the request and touches no widget.
  m_watcher->setFuture(QtConcurrent::run([request = request()] {
    try {
      return recipes::preflightFolder(request);
    } catch (const std::exception& error) {
      recipes::FolderPreflight failed;
      failed.refusal = error.what();
      return failed;
    }
  }));
  updateButtons();
}

void FolderBatchWindow::showResult() {
  const auto& result = *m_result;
  const auto& report = result.report;
  fillTree();
  QString text;
  if (!result.refusal.empty()) {
    text = qs(result.refusal);
  } else if (result.walk.files.empty()) {
    text = QStringLiteral("Nothing to preflight.");
    if (result.walk.problems.empty())
      text += QLatin1Char('\n') + qsv(recipes::emptyFolderText(m_walk->currentIndex() == 0));
  } else {
    text =
        count(report.plan.items.size(), "photo", "photos") + QStringLiteral(" will be enlarged.");
    if (report.excluded.empty())
      text += QStringLiteral(" Every file passed preflight.");
    else
      text += QStringLiteral(" ") + count(report.excluded.size(), "file", "files") +
              QStringLiteral(" set aside.");
  }
  m_summary->setText(text);
  updateButtons();
}

void FolderBatchWindow::fillTree() {
  m_tree->clear();
  const auto& result = *m_result;
  // Files in subfolders are told apart by their path inside the input.
  const fs::path input = fs::absolute(pathOf(m_input)).lexically_normal();
  std::vector<Row> rows;
  const auto add = [&](const fs::path& path, const std::string& why) {
    const fs::path inside = path.lexically_relative(input);
    const bool within = !inside.empty() && *inside.begin() != "..";
    rows.push_back({qs((within ? inside : path).string()), qs(path.string()), qs(why)});
  };
  const auto group = [&](const QString& label, bool expanded = true) {
    addGroup(m_tree, label, rows, expanded);
    rows.clear();
  };
  for (const auto& problem : result.walk.problems) add(problem.folder, problem.message);
  group(qsv(groupLabel(exporting::PreflightCause::folderUnreadable)));
  for (const auto& exclusions : recipes::exclusionGroups(result.report)) {
    for (const auto& [file, why] : exclusions.files) add(file, why);
    group(qs(exclusions.label));
  }
  for (const auto& [file, note] : result.report.collisionNotes()) add(file, note);
  group(QStringLiteral("Possible name collision"));
  for (const auto& refusal : result.report.skipped) add(refusal.source, refusal.text);
  group(QStringLiteral("Skipped"));
  for (const auto& folder : result.walk.excludedFolders) add(folder.folder, folder.message);
  group(QStringLiteral("Left out of the walk"), false);
}

void FolderBatchWindow::updateButtons() {
  const bool planned = m_result && m_result->refusal.empty();
  m_run->setEnabled(planned && !m_queued && !m_result->report.plan.items.empty() &&
                    m_host.isReady());
  m_run->setToolTip(m_host.isReady() ? QString() : m_host.blockedReason());
  m_save->setEnabled(planned && !m_result->report.excluded.empty());
  m_preflight->setEnabled(!m_input->text().trimmed().isEmpty() && m_rejection->text().isEmpty());
}

QString FolderBatchWindow::saveExclusionsTo(const fs::path& file) {
  if (!m_result) return QStringLiteral("Run preflight first.");
  try {
    writeFileAtomically(file, m_result->report.exclusionsExport());
  } catch (const Error& error) {
    return qs(error.description());
  }
  return {};
}

void FolderBatchWindow::chooseExclusionsFile() {
  const fs::path suggested =
      pathOf(m_input).parent_path() / (pathOf(m_input).filename().string() + " exclusions.tsv");
  const QString file =
      QFileDialog::getSaveFileName(this, QStringLiteral("Save Exclusions"), qs(suggested.string()),
                                   QStringLiteral("Tab-separated text (*.tsv *.txt)"));
  if (file.isEmpty()) return;
  if (const QString error = saveExclusionsTo(file.toStdString()); !error.isEmpty())
    QMessageBox::warning(this, QStringLiteral("The exclusions were not saved"), error);
}

QStringList FolderBatchWindow::run() {
  if (!m_result || !m_result->refusal.empty() || m_queued) return {};
  if (!m_host.isReady()) return {m_host.blockedReason()};
  exporting::ExportPlan plan = m_result->report.plan;
  // The exclusions are listed here already; only the controller's own
  // refusal is news.
  plan.refusals.clear();
  const size_t items = plan.items.size();
  const QStringList refusals = m_host.submitPlan(std::move(plan));
  if (refusals.isEmpty()) {
    m_queued = true;
    m_summary->setText(QStringLiteral("Queued %1.").arg(count(items, "photo", "photos")));
  }
  updateButtons();
  return refusals;
}

void FolderBatchWindow::chooseFolder(QLineEdit* edit, const QString& title) {
  const QString folder = QFileDialog::getExistingDirectory(this, title, edit->text());
  if (folder.isEmpty()) return;
  if (edit == m_destination) m_destinationChosen = true;
  edit->setText(folder);
}

FolderBatchWindow* showFolderBatchWindow(ExportHost& host, const exporting::ExportOptions& options,
                                         QWidget* parent) {
  auto* window = new FolderBatchWindow(host, options, parent);
  window->setAttribute(Qt::WA_DeleteOnClose);
  window->show();
  window->raise();
  window->activateWindow();
  return window;
}

}  // namespace tarnbloom::app
