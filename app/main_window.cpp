#include "app/main_window.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QCloseEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QProgressBar>
#include <QPushButton>
#include <QScreen>
#include <QScrollArea>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTabWidget>
#include <QTimer>
#include <QVBoxLayout>
#include <QtConcurrent/QtConcurrentRun>

#include "agent/agent_host.h"
#include "agent/agent_url.h"
#include "app/compare_view.h"
#include "app/desktop_notifier.h"
#include "app/export_sheet.h"
#include "app/folder_batch_window.h"
#include "app/inspector_panel.h"
#include "app/instance_link.h"
#include "app/menu_run_confirmation.h"
#include "app/menu_settings_dialog.h"
#include "app/photo_document.h"
#include "app/progress_strip.h"
#include "app/recipes_window.h"
#include "app/update_checker.h"
#include "engine/estimate_error.h"
#include "engine/render_progress_model.h"
#include "finder/finder_menu_publisher.h"
#include "support/settings.h"
#include "support/state_paths.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;

namespace {

constexpr const char* kRecentKey = "app.recentFiles";
constexpr const char* kGeometryKey = "app.windowGeometry";
constexpr const char* kSplitterKey = "app.splitterState";
constexpr int kRecentCount = 10;

// One tab: the document's message (loading, failed) or its compare view.
class DocumentPage : public QStackedWidget {
 public:
  DocumentPage(PhotoDocument* document, QWidget* parent) : QStackedWidget(parent), m_document(document) {
    document->setParent(this);
    m_message = new QLabel;
    m_message->setAccessibleName(QStringLiteral("Photo message"));
    m_message->setObjectName(QStringLiteral("Photo message"));
    m_message->setAlignment(Qt::AlignCenter);
    m_message->setWordWrap(true);
    m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_message->setMargin(40);
    m_view = new CompareView;
    addWidget(m_message);
    addWidget(m_view);
    // Quick loads should not flash a "Loading" line.
    m_busyDelay.setSingleShot(true);
    m_busyDelay.setInterval(400);
    QObject::connect(&m_busyDelay, &QTimer::timeout, m_message, [this] {
      if (m_document->state() == PhotoDocument::State::loading)
        m_message->setText(QStringLiteral("Loading “%1”…").arg(m_document->fileName()));
    });
  }

  PhotoDocument* document() const { return m_document; }
  CompareView* view() const { return m_view; }
  QLabel* message() const { return m_message; }

  void showState() {
    switch (m_document->state()) {
      case PhotoDocument::State::loaded:
        setCurrentWidget(m_view);
        break;
      case PhotoDocument::State::failed:
        m_message->setText(QStringLiteral("<p style='font-size:large'><b>Couldn’t open “%1”</b></p><p>%2</p>")
                               .arg(m_document->fileName().toHtmlEscaped(),
                                    m_document->errorText().toHtmlEscaped().replace("\n", "<br>")));
        setCurrentWidget(m_message);
        break;
      case PhotoDocument::State::loading:
      case PhotoDocument::State::unloaded:
        m_message->clear();
        setCurrentWidget(m_message);
        m_busyDelay.start();
        break;
    }
  }

 private:
  PhotoDocument* m_document;
  QLabel* m_message;
  CompareView* m_view;
  QTimer m_busyDelay;
};

DocumentPage* pageAt(QTabWidget* tabs, int index) {
  return dynamic_cast<DocumentPage*>(tabs->widget(index));
}

QString qs(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

MainWindow::MainWindow(QWidget* parent) : QMainWindow(parent) {
  setWindowTitle(QStringLiteral("Tarnbloom"));
  setAccessibleName(QStringLiteral("Tarnbloom"));
  setAcceptDrops(true);
  m_host = std::make_unique<ExportHost>(&m_estimates, this);

  m_tabs = new QTabWidget;
  m_tabs->setAccessibleName(QStringLiteral("Photos"));
  m_tabs->setDocumentMode(true);
  m_tabs->setTabsClosable(true);
  m_tabs->setMovable(true);
  m_stack = new QStackedWidget;
  m_stack->addWidget(buildEmptyPage());
  m_stack->addWidget(m_tabs);

  m_progress = new ProgressStrip(*m_host);
  auto* left = new QWidget;
  auto* leftLayout = new QVBoxLayout(left);
  leftLayout->setContentsMargins(0, 0, 0, 0);
  leftLayout->setSpacing(0);
  m_updates = new UpdateChecker(QStringLiteral(TARNBLOOM_VERSION), this);
  leftLayout->addWidget(new UpdateBar(*m_updates));
  leftLayout->addWidget(m_stack, 1);
  leftLayout->addWidget(m_progress);

  m_inspector = new InspectorPanel;
  auto* scroll = new QScrollArea;
  scroll->setWidget(m_inspector);
  scroll->setWidgetResizable(true);
  scroll->setMinimumWidth(300);
  scroll->setFrameShape(QFrame::NoFrame);

  m_splitter = new QSplitter(Qt::Horizontal);
  m_splitter->setAccessibleName(QStringLiteral("Main splitter"));
  m_splitter->setObjectName(QStringLiteral("mainSplitter"));
  m_splitter->addWidget(left);
  m_splitter->addWidget(scroll);
  m_splitter->setStretchFactor(0, 1);
  m_splitter->setCollapsible(0, false);
  setCentralWidget(m_splitter);

  m_zoomLabel = new QLabel;
  m_zoomLabel->setAccessibleName(QStringLiteral("Zoom"));
  m_renderLabel = new QLabel;
  m_renderLabel->setAccessibleName(QStringLiteral("Preview status"));
  m_renderBar = new QProgressBar;
  m_renderBar->setAccessibleName(QStringLiteral("Preview progress"));
  m_renderBar->setMaximumWidth(160);
  m_renderBar->setTextVisible(false);
  m_renderBar->hide();
  statusBar()->addWidget(m_renderLabel, 1);
  statusBar()->addPermanentWidget(m_renderBar);
  statusBar()->addPermanentWidget(m_zoomLabel);

  buildActions();
  buildMenus();
  connect(m_tabs, &QTabWidget::currentChanged, this, &MainWindow::activeTabChanged);
  connect(m_tabs, &QTabWidget::tabCloseRequested, this, &MainWindow::closeTab);
  connect(m_inspector, &InspectorPanel::optionsChanged, this,
          [this](const exporting::ExportOptions& options) {
            if (auto* document = activeDocument()) document->setOptions(options);
          });
  connect(m_inspector, &InspectorPanel::exportRequested, this, &MainWindow::exportActive);
  connect(m_host.get(), &ExportHost::ready, this, [this] {
    updateActions();
    refreshInspector();
    askAboutInterruptedExports();
  });
  connect(m_host.get(), &ExportHost::blockedChanged, this, [this] { updateActions(); });
  connect(m_host.get(), &ExportHost::drained, this, [this] { updateActions(); });
  connectInstance();
  restoreLayout();
  activeTabChanged();
}

MainWindow::~MainWindow() {
  // Tabs go first: their renders use the Enhance engine this window owns,
  // and a view waits for its tile in progress when it goes.
  while (m_tabs->count() > 0) {
    QWidget* page = m_tabs->widget(0);
    m_tabs->removeTab(0);
    delete page;
  }
  for (const QPointer<QWidget>& page : m_closing) delete page.data();
}

QWidget* MainWindow::buildEmptyPage() {
  auto* page = new QWidget;
  page->setAccessibleName(QStringLiteral("Drop photos here"));
  auto* layout = new QVBoxLayout(page);
  layout->addStretch(1);
  auto* title = new QLabel(QStringLiteral("Drop photos here"));
  QFont font = title->font();
  font.setPointSizeF(font.pointSizeF() * 1.6);
  font.setBold(true);
  title->setFont(font);
  title->setAlignment(Qt::AlignCenter);
  auto* hint = new QLabel(QStringLiteral("PNG, JPEG, TIFF, HEIC, WebP or camera RAW. "
                                         "Each photo opens in its own tab."));
  hint->setAlignment(Qt::AlignCenter);
  hint->setForegroundRole(QPalette::PlaceholderText);
  auto* open = new QPushButton(QStringLiteral("Open Photos…"));
  open->setAccessibleName(QStringLiteral("Open Photos…"));
  open->setMinimumWidth(160);
  connect(open, &QPushButton::clicked, this, &MainWindow::openDialog);
  layout->addWidget(title);
  layout->addWidget(hint);
  layout->addSpacing(12);
  layout->addWidget(open, 0, Qt::AlignHCenter);
  layout->addStretch(1);
  page->setStyleSheet(QStringLiteral("QWidget[accessibleName=\"Drop photos here\"] { border: 2px dashed "
                                     "palette(mid); border-radius: 16px; margin: 24px; }"));
  return page;
}

QAction* MainWindow::addAction(const QString& id, const QString& text, const QKeySequence& shortcut) {
  return addAction(id, text, QList<QKeySequence>{shortcut});
}

QAction* MainWindow::addAction(const QString& id, const QString& text,
                               const QList<QKeySequence>& shortcuts) {
  auto* action = new QAction(text, this);
  action->setObjectName(id);
  action->setShortcuts(shortcuts);
  action->setShortcutContext(Qt::WindowShortcut);
  QWidget::addAction(action);
  m_actions[id] = action;
  return action;
}

QAction* MainWindow::action(const QString& id) const {
  const auto found = m_actions.find(id);
  return found == m_actions.end() ? nullptr : found->second;
}

void MainWindow::buildActions() {
  connect(addAction("open", QStringLiteral("Open…"), QKeySequence::Open), &QAction::triggered, this,
          &MainWindow::openDialog);
  connect(addAction("close", QStringLiteral("Close Tab"), QKeySequence(Qt::CTRL | Qt::Key_W)),
          &QAction::triggered, this, [this] { closeTab(m_tabs->currentIndex()); });
  connect(addAction("folderBatch", QStringLiteral("Enlarge Folder…"),
                    QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_O)),
          &QAction::triggered, this, [this] {
            // The batch exports as the inspector shows; with no photo open,
            // as the saved settings say.
            const PhotoDocument* document = activeDocument();
            showFolderBatchWindow(*m_host,
                                  document ? document->options()
                                           : exporting::ExportOptions::saved(Settings::loadDefault()),
                                  this);
          });
  connect(addAction("export", QStringLiteral("Export…"), QKeySequence(Qt::CTRL | Qt::Key_E)),
          &QAction::triggered, this, &MainWindow::exportActive);
  connect(addAction("stop", QStringLiteral("Stop Export"), QKeySequence(Qt::CTRL | Qt::Key_Period)),
          &QAction::triggered, m_host.get(), &ExportHost::stop);
  connect(addAction("receipts", QStringLiteral("Show Receipts Folder"),
                    QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_R)),
          &QAction::triggered, this, [this] {
            showInFolder(qs((m_host->context().receiptsFolder / "").string()));
          });
  connect(addAction("menuSettings", QStringLiteral("File Manager Menu…"), QKeySequence()),
          &QAction::triggered, this, &MainWindow::showMenuSettings);
  connect(addAction("recipes", QStringLiteral("Recipes…"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_E)),
          &QAction::triggered, this, [this] {
            // One window, raised again when already open.
            auto* recipes = findChild<RecipesWindow*>();
            if (!recipes) {
              RecipesWindowContext context;
              context.host = m_host.get();
              context.currentPhoto = [this]() -> std::optional<std::filesystem::path> {
                if (auto* document = activeDocument()) return document->path();
                return std::nullopt;
              };
              context.currentOptions = [this] { return m_inspector->options(); };
              recipes = new RecipesWindow(std::move(context), this);
            }
            recipes->show();
            recipes->raise();
            recipes->activateWindow();
          });
  connect(addAction("quit", QStringLiteral("Quit"), QKeySequence::Quit), &QAction::triggered, this,
          &QWidget::close);

  const auto withView = [this](auto f) {
    return [this, f] {
      if (auto* view = activeView()) f(*view);
    };
  };
  connect(addAction("zoomFit", QStringLiteral("Zoom to Fit"), QKeySequence(Qt::CTRL | Qt::Key_0)),
          &QAction::triggered, this, withView([](CompareView& v) { v.zoomToFit(); }));
  connect(addAction("zoom100", QStringLiteral("Actual Size (100 %)"), QKeySequence(Qt::CTRL | Qt::Key_1)),
          &QAction::triggered, this, withView([](CompareView& v) { v.zoomTo(1); }));
  connect(addAction("zoom200", QStringLiteral("Zoom to 200 %"), QKeySequence(Qt::CTRL | Qt::Key_2)),
          &QAction::triggered, this, withView([](CompareView& v) { v.zoomTo(2); }));
  connect(addAction("zoomIn", QStringLiteral("Zoom In"),
                    {QKeySequence::ZoomIn, QKeySequence(Qt::CTRL | Qt::Key_Equal)}),
          &QAction::triggered, this, withView([](CompareView& v) { v.zoomStep(1); }));
  connect(addAction("zoomOut", QStringLiteral("Zoom Out"), QKeySequence::ZoomOut), &QAction::triggered,
          this, withView([](CompareView& v) { v.zoomStep(-1); }));
  auto* split = addAction("split", QStringLiteral("Split View"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_1));
  auto* side = addAction("sideBySide", QStringLiteral("Side by Side"),
                         QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_2));
  auto* modes = new QActionGroup(this);
  for (QAction* a : {split, side}) {
    a->setCheckable(true);
    modes->addAction(a);
  }
  split->setChecked(true);
  connect(split, &QAction::triggered, this,
          withView([](CompareView& v) { v.setMode(CompareView::Mode::split); }));
  connect(side, &QAction::triggered, this,
          withView([](CompareView& v) { v.setMode(CompareView::Mode::sideBySide); }));

  auto* methods = new QActionGroup(this);
  int key = Qt::Key_1;
  for (ResampleMethod method : kAllResampleMethods) {
    auto* a = addAction(qs("method." + std::string(rawValue(method))),
                        QString::fromUtf8(std::string(title(method)).c_str()),
                        QKeySequence(Qt::ALT | static_cast<Qt::Key>(key++)));
    a->setCheckable(true);
    methods->addAction(a);
    connect(a, &QAction::triggered, this, [this, method] { setMethod(method); });
  }
  connect(addAction("nextTab", QStringLiteral("Next Tab"), QKeySequence(Qt::CTRL | Qt::Key_Tab)),
          &QAction::triggered, this, [this] { cycleTabs(1); });
  connect(addAction("previousTab", QStringLiteral("Previous Tab"),
                    QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_Backtab)),
          &QAction::triggered, this, [this] { cycleTabs(-1); });
  connect(addAction("inspector", QStringLiteral("Focus Inspector"), QKeySequence(Qt::CTRL | Qt::Key_I)),
          &QAction::triggered, this, [this] { m_inspector->setFocus(Qt::ShortcutFocusReason);
            m_inspector->nextInFocusChain()->setFocus(Qt::ShortcutFocusReason); });
}

void MainWindow::buildMenus() {
  QMenu* file = menuBar()->addMenu(QStringLiteral("&File"));
  file->addAction(action("open"));
  m_recentMenu = file->addMenu(QStringLiteral("Open &Recent"));
  rebuildRecentMenu();
  file->addSeparator();
  file->addAction(action("export"));
  file->addAction(action("folderBatch"));
  file->addAction(action("stop"));
  file->addAction(action("receipts"));
  file->addSeparator();
  file->addAction(action("close"));
  file->addAction(action("quit"));
  QMenu* view = menuBar()->addMenu(QStringLiteral("&View"));
  for (const char* id : {"zoomFit", "zoom100", "zoom200", "zoomIn", "zoomOut"}) view->addAction(action(id));
  view->addSeparator();
  view->addAction(action("split"));
  view->addAction(action("sideBySide"));
  view->addSeparator();
  auto* original = view->addAction(QStringLiteral("Hold Space to Show the Original"));
  original->setEnabled(false);
  QMenu* method = menuBar()->addMenu(QStringLiteral("&Method"));
  for (ResampleMethod m : kAllResampleMethods) method->addAction(action(qs("method." + std::string(rawValue(m)))));
  method->addSeparator();
  method->addAction(action("inspector"));
  QMenu* window = menuBar()->addMenu(QStringLiteral("&Window"));
  window->addAction(action("nextTab"));
  window->addAction(action("previousTab"));
  window->addSeparator();
  window->addAction(action("recipes"));
  window->addAction(action("menuSettings"));
}

PhotoDocument* MainWindow::activeDocument() const {
  auto* page = pageAt(m_tabs, m_tabs->currentIndex());
  return page ? page->document() : nullptr;
}

CompareView* MainWindow::activeView() const {
  auto* page = pageAt(m_tabs, m_tabs->currentIndex());
  return page ? page->view() : nullptr;
}

void MainWindow::openFiles(const QStringList& paths) {
  const Settings settings = Settings::loadDefault();
  const exporting::ExportOptions defaults = exporting::ExportOptions::saved(settings);
  int last = -1;
  for (const QString& path : paths) {
    const fs::path file = fs::absolute(fs::path(path.toStdString())).lexically_normal();
    // A photo already open is shown, not opened twice.
    for (int i = 0; i < m_tabs->count(); ++i)
      if (pageAt(m_tabs, i)->document()->path() == file) last = i;
    if (last >= 0 && pageAt(m_tabs, last)->document()->path() == file) continue;
    auto* document = new PhotoDocument(file, defaults, &m_estimates);
    auto* page = new DocumentPage(document, m_tabs);
    connect(document, &PhotoDocument::stateChanged, this, [this, document] { refreshDocument(document); });
    connect(document, &PhotoDocument::optionsChanged, this, [this, document] { refreshDocument(document); });
    connect(page->view(), &CompareView::zoomChanged, this, [this, page](double zoom, bool fit) {
      if (page->view() != activeView()) return;
      m_zoomLabel->setText(QString::number(qRound(zoom * 100)) + QStringLiteral(" %") +
                           (fit ? QStringLiteral(" (fit)") : QString()));
    });
    connect(page->view(), &CompareView::renderProgress, this,
            [this, page](int done, int total, bool running) {
              if (page->view() != activeView()) return;
              auto* document = page->document();
              const auto& settings = page->view()->settings();
              if (!running || !settings) {
                m_renderBar->hide();
                m_renderLabel->clear();
                return;
              }
              const double factor = static_cast<double>(settings->target.width) /
                                    std::max<int64_t>(1, document->uprightWidth());
              m_renderLabel->setText(qs(RenderProgressModel::renderingTitle(
                  settings->method, preview::factorText(factor), true)));
              // Before its first tile Enhance runs the network on the whole
              // photo: progress is unknown until then.
              m_renderBar->setRange(0, done == 0 ? 0 : total);
              m_renderBar->setValue(done);
              m_renderBar->show();
            });
    last = m_tabs->addTab(page, document->fileName());
    m_tabs->setTabToolTip(last, path);
    m_tabs->setTabWhatsThis(last, path);
    rememberRecent(qs(file.string()));
    page->showState();
  }
  if (last >= 0) m_tabs->setCurrentIndex(last);
  m_stack->setCurrentIndex(m_tabs->count() > 0 ? 1 : 0);
  activeTabChanged();
}

void MainWindow::openDialog() {
  const QStringList files = QFileDialog::getOpenFileNames(
      this, QStringLiteral("Open Photos"), QString(),
      QStringLiteral("Photos (*.png *.jpg *.jpeg *.tif *.tiff *.heic *.heif *.avif *.webp *.dng "
                     "*.cr2 *.cr3 *.nef *.arw *.raf *.orf *.rw2);;All files (*)"));
  if (!files.isEmpty()) openFiles(files);
}

void MainWindow::closeTab(int index) {
  auto* page = pageAt(m_tabs, index);
  if (!page) return;
  m_tabs->removeTab(index);
  page->hide();
  // A tile in progress (the Enhance network) finishes first; the window
  // does not wait for it.
  PreviewRenderer& renderer = page->view()->renderer();
  renderer.cancel();
  if (renderer.busy()) {
    m_closing.push_back(page);
    connect(&renderer, &PreviewRenderer::idle, page, &QObject::deleteLater);
  } else {
    page->deleteLater();
  }
  m_stack->setCurrentIndex(m_tabs->count() > 0 ? 1 : 0);
  activeTabChanged();
}

void MainWindow::cycleTabs(int direction) {
  const int count = m_tabs->count();
  if (count < 2) return;
  m_tabs->setCurrentIndex((m_tabs->currentIndex() + direction + count) % count);
}

void MainWindow::activeTabChanged() {
  PhotoDocument* document = activeDocument();
  if (document) {
    applyMemoryPolicy(document);
    if (document->state() == PhotoDocument::State::unloaded) document->load();
    if (auto* view = activeView()) view->setFocus();
  }
  m_renderBar->hide();
  m_renderLabel->clear();
  m_zoomLabel->clear();
  refreshDocument(document);
  updateTitle();
}

void MainWindow::applyMemoryPolicy(PhotoDocument* active) {
  std::erase_if(m_recentlyUsed, [active](const QPointer<PhotoDocument>& d) { return !d || d == active; });
  m_recentlyUsed.push_front(active);
  // Tabs beyond the resident few keep their thumbnail and settings only.
  while (m_recentlyUsed.size() > kResidentTabs) {
    if (PhotoDocument* old = m_recentlyUsed.back()) {
      old->unload();
      for (int i = 0; i < m_tabs->count(); ++i)
        if (pageAt(m_tabs, i)->document() == old) pageAt(m_tabs, i)->view()->setContent(nullptr, std::nullopt);
    }
    m_recentlyUsed.pop_back();
  }
}

std::optional<std::string> MainWindow::enhanceUnavailable() const {
  if (EstimateEngine::configuredURL()) return std::nullopt;
  return EstimateError::modelMissing().description();
}

preview::InspectorState MainWindow::stateOf(PhotoDocument* document) const {
  return preview::evaluateOptions(
      document->options(),
      {document->path(), document->uprightWidth(), document->uprightHeight(), document->bitsPerComponent()},
      enhanceUnavailable());
}

void MainWindow::refreshDocument(PhotoDocument* document) {
  if (document) {
    for (int i = 0; i < m_tabs->count(); ++i) {
      auto* page = pageAt(m_tabs, i);
      if (page->document() != document) continue;
      page->showState();
      if (document->state() == PhotoDocument::State::loaded) {
        const auto state = stateOf(document);
        std::optional<PreviewSettings> settings;
        if (state.size)
          settings = PreviewSettings{{state.size->width, state.size->height},
                                     document->options().method,
                                     document->options().estimateStrength,
                                     document->options().colourPolicy.profile ==
                                         encoding::ProfilePolicy::keep};
        page->view()->setContent(document, settings);
      }
    }
  }
  if (!document || document == activeDocument()) refreshInspector();
  updateActions();
}

void MainWindow::refreshInspector() {
  PhotoDocument* document = activeDocument();
  if (!document) {
    m_inspector->showUnavailable(QStringLiteral("Open a photo to choose its size and method."));
    return;
  }
  switch (document->state()) {
    case PhotoDocument::State::loaded: {
      auto state = stateOf(document);
      if (state.canExport && !m_host->isReady()) {
        state.canExport = false;
        state.exportBlockedReason = m_host->blockedReason().toStdString();
      }
      m_inspector->showOptions(document->options(), state);
      break;
    }
    case PhotoDocument::State::failed:
      m_inspector->showUnavailable(document->errorText());
      break;
    default:
      m_inspector->showUnavailable(QStringLiteral("Loading “%1”…").arg(document->fileName()));
  }
}

void MainWindow::updateActions() {
  PhotoDocument* document = activeDocument();
  const bool loaded = document && document->state() == PhotoDocument::State::loaded;
  const bool hasOutput = loaded && stateOf(document).canExport;
  for (const char* id : {"zoomFit", "zoom100", "zoom200", "zoomIn", "zoomOut", "split", "sideBySide",
                         "method.exact", "method.clarity", "method.estimate"})
    action(id)->setEnabled(loaded);
  action("close")->setEnabled(document != nullptr);
  action("export")->setEnabled(hasOutput && m_host->isReady());
  action("stop")->setEnabled(m_host->busy());
  if (loaded)
    action(qs("method." + std::string(rawValue(document->options().method))))->setChecked(true);
  if (auto* view = activeView())
    action(view->mode() == CompareView::Mode::split ? "split" : "sideBySide")->setChecked(true);
}

void MainWindow::updateTitle() {
  PhotoDocument* document = activeDocument();
  setWindowTitle(document ? QStringLiteral("%1 — Tarnbloom").arg(document->fileName())
                          : QStringLiteral("Tarnbloom"));
}

void MainWindow::setMethod(ResampleMethod method) {
  PhotoDocument* document = activeDocument();
  if (!document) return;
  auto options = document->options();
  options.method = method;
  document->setOptions(options);
}

void MainWindow::exportActive() {
  PhotoDocument* document = activeDocument();
  if (!document || document->state() != PhotoDocument::State::loaded) return;
  const auto state = stateOf(document);
  if (!state.canExport || !state.size) {
    QMessageBox::information(this, QStringLiteral("Can’t export"), qs(state.exportBlockedReason));
    return;
  }
  if (!m_host->isReady()) {
    QMessageBox::information(this, QStringLiteral("Can’t export yet"), m_host->blockedReason());
    return;
  }
  ExportSheet sheet(savedRequest(document->options(), document->path()), document->path(), *state.size, this);
  if (sheet.exec() != QDialog::Accepted) return;
  const ExportRequest request = sheet.request();
  saveRequest(request);
  document->setOptions(request.options);
  const QStringList refusals = m_host->submit(document->path(), request);
  updateActions();
  if (!refusals.isEmpty())
    QMessageBox::warning(this, QStringLiteral("Nothing was exported"), refusals.join("\n"));
}

void MainWindow::startExports() {
  m_link->claim();
  m_updates->start();
  // A menu file another program damaged, or one naming a recipe deleted
  // while nothing ran, is put right at launch rather than at the next
  // change. Off the GUI thread: it reads the whole recipe library.
  (void)QtConcurrent::run([tool = commandLineTool()] {
    for (const auto& problem : finder::republishFinderMenu(tool))
      qWarning("tarnbloom-app: %s", problem.c_str());
  });
}

std::filesystem::path MainWindow::commandLineTool() {
  return finder::commandLineToolBeside(QCoreApplication::applicationFilePath().toStdString());
}

void MainWindow::showMenuSettings() {
  MenuSettingsDialog dialog([this] { return m_inspector->options(); }, commandLineTool(), this);
  dialog.exec();
}

void MainWindow::connectInstance() {
  m_notifier = new DesktopNotifier(this);
  m_link = new InstanceLink(stateFolder(), this);
  // The state folder is taken only once this window owns the instance, so
  // that a headless service finishing its jobs is never raced.
  connect(m_link, &InstanceLink::owned, m_host.get(), &ExportHost::start);
  connect(m_link, &InstanceLink::openRequested, this, [this](const QStringList& paths) {
    openFiles(paths);
    if (isMinimized()) showNormal();
    raise();
    activateWindow();
  });
  connect(m_link, &InstanceLink::linkReceived, this, &MainWindow::receiveLink);
  connect(m_link, &InstanceLink::anotherWindow, this, [this] {
    // Another window started at the same moment and owns the instance:
    // it takes this one's photos, and this one goes.
    QStringList paths;
    for (int i = 0; i < m_tabs->count(); ++i)
      paths << qs(pageAt(m_tabs, i)->document()->path().string());
    InstanceLink::handToRunningWindow(stateFolder(), paths);
    close();
  });
  connect(m_host.get(), &ExportHost::announce, this, [this](const agent::AgentResult& result) {
    QString reveal;
    for (const auto& item : result.items)
      if (item.output) reveal = qs(*item.output);
    m_notifier->show(QStringLiteral("Tarnbloom"), qs(agent::notificationSummary(result)), reveal);
  });
  connect(m_host.get(), &ExportHost::itemFinished, this,
          [this](const QString& jobID, const FinishedItem& item) {
            if (!item.output.isEmpty()) m_lastOutput[jobID] = item.output;
          });
  connect(m_host.get(), &ExportHost::jobFinished, this,
          [this](const QString& jobID, const QStringList&) { announceWindowJob(jobID); });
}

void MainWindow::announceWindowJob(const QString& jobID) {
  const QString output = m_lastOutput[jobID];
  m_lastOutput.erase(jobID);
  if (!m_host->isWindowJob(jobID) || isActiveWindow()) return;
  const QString body = output.isEmpty() ? QStringLiteral("The export finished without a file.")
                                        : QStringLiteral("Exported ") + QFileInfo(output).fileName() + ".";
  m_notifier->show(QStringLiteral("Tarnbloom"), body, output);
}

void MainWindow::receiveLink(const QString& link) {
  const std::string text = link.toStdString();
  if (const auto confirmation = agent::AgentURL::parseMenuConfirm(text)) {
    raise();
    activateWindow();
    if (const auto run = confirmMenuRun(this, *confirmation)) m_host->receive(*run);
    return;
  }
  m_host->receive(text);
}

void MainWindow::openArguments(const QStringList& arguments) {
  QStringList files;
  for (const QString& argument : arguments) {
    if (argument.startsWith(QStringLiteral("tarnbloom:"), Qt::CaseInsensitive))
      // Once the window is up: a confirmation is a dialog over it.
      QTimer::singleShot(0, this, [this, argument] { receiveLink(argument); });
    else
      files << argument;
  }
  if (!files.isEmpty()) openFiles(files);
}

void MainWindow::askAboutInterruptedExports() {
  const RecoveryFindings findings = m_host->recover();
  if (!findings.notes.isEmpty())
    QMessageBox::warning(this, QStringLiteral("Export queue"), findings.notes.join("\n\n"));
  if (!findings.interrupted) return;
  QMessageBox box(QMessageBox::Question, QStringLiteral("Resume interrupted exports?"),
                  QStringLiteral("Resume interrupted exports?"), QMessageBox::NoButton, this);
  box.setInformativeText(QStringLiteral("Tarnbloom found unfinished exports from a previous launch. "
                                        "Completed files will not be exported again."));
  auto* resume = box.addButton(QStringLiteral("Resume"), QMessageBox::AcceptRole);
  box.addButton(QStringLiteral("Discard"), QMessageBox::DestructiveRole);
  box.setDefaultButton(resume);
  box.exec();
  if (box.clickedButton() == resume) {
    const QStringList problems = m_host->resumeInterrupted();
    if (!problems.isEmpty())
      QMessageBox::warning(this, QStringLiteral("Resume interrupted exports?"), problems.join("\n"));
  } else {
    m_host->discardInterrupted();
  }
  updateActions();
}

void MainWindow::rememberRecent(const QString& path) {
  Settings settings = Settings::loadDefault();
  nlohmann::json list = nlohmann::json::array({path.toStdString()});
  if (const auto* old = settings.value(kRecentKey); old && old->is_array())
    for (const auto& entry : *old)
      if (entry.is_string() && entry != path.toStdString() && list.size() < kRecentCount) list.push_back(entry);
  settings.set(kRecentKey, list);
  try {
    settings.save();
  } catch (const Error&) {
  }
  rebuildRecentMenu();
}

void MainWindow::rebuildRecentMenu() {
  if (!m_recentMenu) return;
  m_recentMenu->clear();
  const Settings settings = Settings::loadDefault();
  if (const auto* list = settings.value(kRecentKey); list && list->is_array())
    for (const auto& entry : *list) {
      if (!entry.is_string()) continue;
      const QString path = qs(entry.get<std::string>());
      m_recentMenu->addAction(path, this, [this, path] { openFiles({path}); });
    }
  m_recentMenu->setEnabled(!m_recentMenu->isEmpty());
}

void MainWindow::restoreLayout() {
  const Settings settings = Settings::loadDefault();
  if (const auto geometry = settings.string(kGeometryKey))
    restoreGeometry(QByteArray::fromBase64(QByteArray::fromStdString(*geometry)));
  else
    // A first launch fits the screen, however large its scale factor.
    resize(QSize(1280, 820).boundedTo(screen()->availableGeometry().size() * 0.9));
  if (const auto state = settings.string(kSplitterKey))
    m_splitter->restoreState(QByteArray::fromBase64(QByteArray::fromStdString(*state)));
  else
    m_splitter->setSizes({940, 340});
}

void MainWindow::saveLayout() {
  Settings settings = Settings::loadDefault();
  settings.set(kGeometryKey, saveGeometry().toBase64().toStdString());
  settings.set(kSplitterKey, m_splitter->saveState().toBase64().toStdString());
  try {
    settings.save();
  } catch (const Error&) {
  }
}

void MainWindow::closeEvent(QCloseEvent* event) {
  if (m_host->busy()) {
    const auto answer = QMessageBox::question(
        this, QStringLiteral("Stop exporting?"),
        QStringLiteral("An export is running. Quitting stops it after the current step; the rest "
                       "can be resumed at the next launch."),
        QMessageBox::Cancel | QMessageBox::Ok, QMessageBox::Cancel);
    if (answer != QMessageBox::Ok) {
      event->ignore();
      return;
    }
  }
  saveLayout();
  event->accept();
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
  if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
  QStringList paths;
  for (const QUrl& url : event->mimeData()->urls())
    if (url.isLocalFile()) paths << url.toLocalFile();
  if (!paths.isEmpty()) {
    openFiles(paths);
    event->acceptProposedAction();
  }
}

}  // namespace tarnbloom::app
