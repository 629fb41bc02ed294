#include "app/menu_settings_dialog.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QTabWidget>
#include <QVBoxLayout>

#include "finder/file_manager_integrations.h"
#include "finder/finder_menu_publisher.h"
#include "finder/finder_menu_store.h"
#include "recipes/recipe_store.h"
#include "support/settings.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;
using encoding::ExportFormat;
using finder::FinderIdentity;
using finder::FinderMenuStore;

namespace {

// Each change reads the settings file again: the window and the command
// line write it too, and a copy held open would put back their old values.
template <typename F>
auto withStore(F f) {
  Settings settings = Settings::loadDefault();
  FinderMenuStore store(settings, recipes::RecipeStore::userLibrary());
  return f(store);
}

QString qs(const std::string& text) { return QString::fromStdString(text); }

}  // namespace

MenuSettingsDialog::MenuSettingsDialog(std::function<exporting::ExportOptions()> currentOptions,
                                       fs::path commandLineTool, QWidget* parent)
    : QDialog(parent), m_currentOptions(std::move(currentOptions)), m_tool(std::move(commandLineTool)) {
  setWindowTitle(QStringLiteral("File Manager Menu"));
  setAccessibleName(QStringLiteral("File Manager Menu"));
  auto* intro = new QLabel(QStringLiteral(
      "Right-click photos or folders in your file manager and choose Tarnbloom ▸ Enlarge 2×, "
      "4× or 8×. Each entry exports with its own settings; photos are saved beside themselves."));
  intro->setWordWrap(true);
  auto* tabs = named(new QTabWidget, QStringLiteral("Enlarge entries"));
  const std::array<int, 3> scales{2, 4, 8};
  for (size_t i = 0; i < scales.size(); ++i) {
    m_pages[i].scale = scales[i];
    tabs->addTab(buildPage(m_pages[i]), QStringLiteral("Enlarge %1×").arg(scales[i]));
  }
  m_status = named(new QLabel, QStringLiteral("Menu status"));
  m_status->setWordWrap(true);
  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

  auto* layout = new QVBoxLayout(this);
  layout->addWidget(intro);
  layout->addWidget(tabs, 1);
  layout->addWidget(buildEntriesFooter());
  layout->addWidget(m_status);
  layout->addWidget(buttons);
  for (Page& page : m_pages) showEntry(page);
  setMinimumWidth(640);
}

QWidget* MenuSettingsDialog::buildPage(Page& page) {
  auto* widget = new QWidget;
  auto* form = new QFormLayout(widget);
  const QString entry = QStringLiteral("Enlarge %1× ").arg(page.scale);
  page.origin = named(new QLabel, entry + QStringLiteral("settings origin"));
  page.origin->setWordWrap(true);
  page.origin->setForegroundRole(QPalette::PlaceholderText);
  form->addRow(page.origin);

  page.method = named(new QComboBox, entry + QStringLiteral("method"));
  for (ResampleMethod method : kAllResampleMethods)
    page.method->addItem(qsv(title(method)), static_cast<int>(method));
  form->addRow(QStringLiteral("Method"), page.method);
  page.strength = named(new QSlider(Qt::Horizontal), entry + QStringLiteral("strength"));
  page.strength->setRange(10, 100);
  page.strength->setPageStep(10);
  form->addRow(QStringLiteral("Strength"), page.strength);

  page.format = named(new QComboBox, entry + QStringLiteral("format"));
  page.format->addItem(QStringLiteral("Same as source"), -1);
  for (ExportFormat format : encoding::writableFormats())
    page.format->addItem(qsv(encoding::title(format)), static_cast<int>(format));
  form->addRow(QStringLiteral("Format"), page.format);
  page.quality = named(new QSpinBox, entry + QStringLiteral("quality"));
  page.quality->setRange(1, 100);
  page.quality->setKeyboardTracking(false);
  form->addRow(QStringLiteral("Quality"), page.quality);

  page.policy = PolicyControls::make(true);
  form->addRow(QStringLiteral("Colour"), page.policy.profile);
  auto* keep = new QWidget;
  auto* keepLayout = new QHBoxLayout(keep);
  keepLayout->setContentsMargins(0, 0, 0, 0);
  for (QCheckBox* box : {page.policy.icc, page.policy.exif, page.policy.xmp, page.policy.gps})
    keepLayout->addWidget(box);
  keepLayout->addStretch(1);
  form->addRow(QStringLiteral("Keep"), keep);

  page.subfolders = named(new QCheckBox(QStringLiteral("Include subfolders")),
                          entry + QStringLiteral("include subfolders"));
  form->addRow(QStringLiteral("Folders"), page.subfolders);
  auto* destinationRow = new QWidget;
  auto* destinationLayout = new QHBoxLayout(destinationRow);
  destinationLayout->setContentsMargins(0, 0, 0, 0);
  page.destination = named(new QLineEdit, entry + QStringLiteral("folder destination"));
  page.destination->setReadOnly(true);
  page.destination->setPlaceholderText(QStringLiteral("Beside each folder, in “NAME (Enlarged)”"));
  auto* choose = new QPushButton(QStringLiteral("Choose…"));
  auto* clear = new QPushButton(QStringLiteral("Beside Each Folder"));
  destinationLayout->addWidget(page.destination, 1);
  destinationLayout->addWidget(choose);
  destinationLayout->addWidget(clear);
  form->addRow(QStringLiteral("Save folders in"), destinationRow);

  page.follow = named(new QPushButton(QStringLiteral("Use the Window’s Export Settings")),
                      entry + QStringLiteral("use the window's export settings"));
  page.follow->setToolTip(QStringLiteral(
      "This entry follows whatever you last exported with in the window, at its own size."));
  auto* current = new QPushButton(QStringLiteral("Copy Current Settings"));
  current->setToolTip(QStringLiteral("Keep the settings of the photo shown now for this entry."));
  auto* row = new QHBoxLayout;
  row->addWidget(current);
  row->addWidget(page.follow);
  row->addStretch(1);
  form->addRow(row);

  const auto changed = [this, &page] {
    if (!m_showing) saveOptions(page);
  };
  for (QComboBox* box : {page.method, page.format, page.policy.profile})
    connect(box, &QComboBox::currentIndexChanged, this, changed);
  connect(page.strength, &QSlider::valueChanged, this, changed);
  connect(page.quality, &QSpinBox::valueChanged, this, changed);
  for (QCheckBox* box : {page.policy.icc, page.policy.exif, page.policy.xmp, page.policy.gps})
    connect(box, &QCheckBox::toggled, this, changed);
  connect(page.subfolders, &QCheckBox::toggled, this, [this, &page](bool on) {
    if (m_showing) return;
    withStore([&](FinderMenuStore& store) {
      store.setIncludeSubfolders(on, FinderIdentity::enlarge(page.scale));
      return 0;
    });
    publish();
  });
  connect(choose, &QPushButton::clicked, this, [this, &page] {
    const QString folder = QFileDialog::getExistingDirectory(
        this, QStringLiteral("Save Enlarged Folders In"), page.destination->text());
    if (folder.isEmpty()) return;
    withStore([&](FinderMenuStore& store) {
      store.setFolderDestination(fs::path(folder.toStdString()), FinderIdentity::enlarge(page.scale));
      return 0;
    });
    showEntry(page);
    publish();
  });
  connect(clear, &QPushButton::clicked, this, [this, &page] {
    withStore([&](FinderMenuStore& store) {
      store.setFolderDestination(std::nullopt, FinderIdentity::enlarge(page.scale));
      return 0;
    });
    showEntry(page);
    publish();
  });
  connect(page.follow, &QPushButton::clicked, this, [this, &page] {
    withStore([&](FinderMenuStore& store) {
      store.clearEnlargeOptions(page.scale);
      return 0;
    });
    showEntry(page);
    publish();
  });
  connect(current, &QPushButton::clicked, this, [this, &page] {
    withStore([&](FinderMenuStore& store) {
      store.setEnlargeOptions(m_currentOptions(), page.scale);
      return 0;
    });
    showEntry(page);
    publish();
  });
  return widget;
}

QWidget* MenuSettingsDialog::buildEntriesFooter() {
  auto* footer = new QWidget;
  auto* layout = new QHBoxLayout(footer);
  layout->setContentsMargins(0, 0, 0, 0);
  auto* ask = named(new QPushButton(QStringLiteral("Ask Again Before First Use")),
                    QStringLiteral("Ask again before first use"));
  ask->setToolTip(QStringLiteral(
      "The next run of each menu entry shows its settings and waits for you to agree."));
  auto* install = named(new QPushButton(QStringLiteral("Add to File Managers")),
                        QStringLiteral("Add to file managers"));
  install->setToolTip(QStringLiteral(
      "Adds the Tarnbloom submenu to Files (Nautilus), Dolphin, Nemo and Thunar for you."));
  install->setEnabled(!m_tool.empty());
  layout->addWidget(ask);
  layout->addStretch(1);
  layout->addWidget(install);
  connect(ask, &QPushButton::clicked, this, [this, ask] {
    withStore([](FinderMenuStore& store) {
      store.resetAcknowledgements();
      return 0;
    });
    ask->setEnabled(false);
    m_status->setText(QStringLiteral("Each entry asks again before its next run."));
  });
  ask->setEnabled(withStore([](FinderMenuStore& store) { return store.hasAcknowledgements(); }));
  connect(install, &QPushButton::clicked, this, [this] {
    try {
      const auto menu = withStore([](FinderMenuStore& store) { return store.publish(); });
      const auto report = finder::writeIntegrations(
          menu, m_tool, finder::IntegrationFolders::fromEnvironment(), finder::IntegrationScope::install);
      QStringList lines;
      for (const auto& problem : report.problems) lines << qs(problem);
      m_status->setText(lines.isEmpty()
                            ? QStringLiteral("The Tarnbloom submenu is in your file managers. "
                                             "A file manager that is open may need to be restarted.")
                            : lines.join('\n'));
    } catch (const Error& error) {
      m_status->setText(qs(error.description()));
    }
  });
  return footer;
}

void MenuSettingsDialog::showEntry(Page& page) {
  const FinderIdentity identity = FinderIdentity::enlarge(page.scale);
  struct Shown {
    exporting::ExportOptions options;
    bool custom = false, subfolders = false;
    std::optional<fs::path> destination;
  };
  const Shown shown = withStore([&](FinderMenuStore& store) {
    return Shown{store.enlargeOptions(page.scale), store.hasCustomEnlargeOptions(page.scale),
                 store.includeSubfolders(identity), store.folderDestination(identity)};
  });
  m_showing = true;
  const auto& o = shown.options;
  page.origin->setText(shown.custom ? QStringLiteral("This entry keeps its own settings.")
                                    : QStringLiteral("This entry follows the window’s last export "
                                                     "settings. Change anything to keep its own."));
  page.follow->setEnabled(shown.custom);
  page.method->setCurrentIndex(page.method->findData(static_cast<int>(o.method)));
  page.strength->setValue(static_cast<int>(std::lround(o.estimateStrength * 100)));
  page.strength->setEnabled(o.method == ResampleMethod::estimate);
  page.format->setCurrentIndex(
      page.format->findData(o.formatFollowsSource ? -1 : static_cast<int>(o.format)));
  page.quality->setValue(lossyQuality(o, o.format));
  page.quality->setEnabled(!o.formatFollowsSource && isLossy(o.format));
  page.policy.show(o.colourPolicy);
  page.subfolders->setChecked(shown.subfolders);
  page.destination->setText(shown.destination ? qs(shown.destination->string()) : QString());
  m_showing = false;
}

void MenuSettingsDialog::saveOptions(Page& page) {
  withStore([&](FinderMenuStore& store) {
    exporting::ExportOptions o = store.enlargeOptions(page.scale);
    o.method = static_cast<ResampleMethod>(page.method->currentData().toInt());
    o.estimateStrength = page.strength->value() / 100.0;
    const int format = page.format->currentData().toInt();
    o.formatFollowsSource = format < 0;
    if (format >= 0) {
      // A newly chosen format keeps the quality it had; the spin box shows it.
      if (o.format == static_cast<ExportFormat>(format)) setLossyQuality(o, o.format, page.quality->value());
      o.format = static_cast<ExportFormat>(format);
    }
    page.policy.read(o.colourPolicy);
    store.setEnlargeOptions(o, page.scale);
    return 0;
  });
  showEntry(page);
  publish();
}

void MenuSettingsDialog::publish() {
  const auto problems = finder::republishFinderMenu(m_tool);
  QStringList lines;
  for (const auto& problem : problems) lines << qs(problem);
  if (!lines.isEmpty()) m_status->setText(lines.join('\n'));
}

}  // namespace tarnbloom::app
