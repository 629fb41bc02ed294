#include "app/export_sheet.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>
#include <cmath>

#include "encoding/naming_engine.h"
#include "support/settings.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;
using encoding::ExportFormat;
using exporting::CollisionPolicy;

namespace {

constexpr const char* kTemplateKey = "export.nameTemplate";
constexpr const char* kFolderKey = "export.lastFolder";
constexpr const char* kCollisionKey = "export.ifExists";
constexpr const char* kReceiptsKey = "saveReceiptsBesideExports";

}  // namespace

ExportRequest savedRequest(const exporting::ExportOptions& options, const fs::path& source) {
  const Settings settings = Settings::loadDefault();
  ExportRequest request;
  request.options = options;
  request.nameTemplate =
      settings.string(kTemplateKey).value_or(encoding::NamingEngine::defaultTemplate());
  // Beside the source until the user picks a folder; then the last one.
  if (const auto folder = settings.string(kFolderKey); folder && !folder->empty())
    request.folder = fs::path(*folder);
  const auto collision = settings.string(kCollisionKey).value_or("number");
  request.collision = collision == "skip"      ? CollisionPolicy::skip
                      : collision == "replace" ? CollisionPolicy::replace
                                               : CollisionPolicy::number;
  request.receiptsBesideExports = settings.boolean(kReceiptsKey).value_or(false);
  (void)source;
  return request;
}

void saveRequest(const ExportRequest& request) {
  Settings settings = Settings::loadDefault();
  request.options.save(settings);
  settings.set(kTemplateKey, request.nameTemplate);
  settings.set(kFolderKey, request.folder ? request.folder->string() : std::string());
  settings.set(kCollisionKey, request.collision == CollisionPolicy::skip      ? "skip"
                              : request.collision == CollisionPolicy::replace ? "replace"
                                                                              : "number");
  settings.set(kReceiptsKey, request.receiptsBesideExports);
  try {
    settings.save();
  } catch (const Error&) {
    // Unsaved choices only cost the user retyping them next time.
  }
}

ExportSheet::ExportSheet(const ExportRequest& initial, fs::path source, ResolvedSize size,
                         QWidget* parent)
    : QDialog(parent), m_source(std::move(source)), m_size(size), m_initial(initial) {
  setWindowTitle(
      QStringLiteral("Export “%1”").arg(QString::fromStdString(m_source.filename().string())));
  setAccessibleName(QStringLiteral("Export sheet"));
  setModal(true);
  const auto& o = initial.options;
  auto* form = new QFormLayout;

  m_format = named(new QComboBox, QStringLiteral("Format"));
  m_format->addItem(QStringLiteral("Same as source"), -1);
  for (ExportFormat format : encoding::writableFormats())
    m_format->addItem(qsv(encoding::title(format)), static_cast<int>(format));
  m_format->setCurrentIndex(
      m_format->findData(o.formatFollowsSource ? -1 : static_cast<int>(o.format)));
  form->addRow(QStringLiteral("Format"), m_format);
  m_quality = named(new QSpinBox, QStringLiteral("Quality"));
  m_quality->setRange(1, 100);
  form->addRow(QStringLiteral("Quality"), m_quality);
  m_ceiling = named(new QSpinBox, QStringLiteral("JPEG size limit"));
  m_ceiling->setRange(0, 1'000'000);
  m_ceiling->setSuffix(QStringLiteral(" KB"));
  m_ceiling->setSpecialValueText(QStringLiteral("No limit"));
  m_ceiling->setValue(o.jpeg.maxBytes ? static_cast<int>(*o.jpeg.maxBytes / 1000) : 0);
  form->addRow(QStringLiteral("JPEG size limit"), m_ceiling);

  m_policy = PolicyControls::make(true);
  m_policy.show(o.colourPolicy);
  form->addRow(QStringLiteral("Colour"), m_policy.profile);
  auto* metadata = new QWidget;
  auto* metadataLayout = new QHBoxLayout(metadata);
  metadataLayout->setContentsMargins(0, 0, 0, 0);
  for (QCheckBox* box : {m_policy.icc, m_policy.exif, m_policy.xmp, m_policy.gps})
    metadataLayout->addWidget(box);
  metadataLayout->addStretch(1);
  form->addRow(QStringLiteral("Keep"), metadata);
  m_flatten = named(new QLineEdit(QString::fromStdString(o.colourPolicy.flatten)),
                    QStringLiteral("Flatten colour"));
  m_flatten->setPlaceholderText(QStringLiteral("white, black or #RRGGBB"));
  form->addRow(QStringLiteral("Flatten onto"), m_flatten);

  auto* folderRow = new QWidget;
  auto* folderLayout = new QHBoxLayout(folderRow);
  folderLayout->setContentsMargins(0, 0, 0, 0);
  m_folder = named(new QLineEdit(QString::fromStdString(
                       (initial.folder ? *initial.folder : m_source.parent_path()).string())),
                   QStringLiteral("Destination folder"));
  auto* choose = named(new QPushButton(QStringLiteral("Choose…")), QStringLiteral("Choose folder"));
  folderLayout->addWidget(m_folder, 1);
  folderLayout->addWidget(choose);
  form->addRow(QStringLiteral("Save in"), folderRow);
  m_template = named(new QLineEdit(QString::fromStdString(initial.nameTemplate)),
                     QStringLiteral("Name template"));
  m_template->setToolTip(qsv(encoding::NamingEngine::kTokenHelp));
  form->addRow(QStringLiteral("Name"), m_template);
  m_example = named(new QLabel, QStringLiteral("Name example"));
  m_example->setWordWrap(true);
  m_example->setTextInteractionFlags(Qt::TextSelectableByMouse);
  form->addRow(QString(), m_example);
  m_collision = named(new QComboBox, QStringLiteral("If a file exists"));
  m_collision->addItem(QStringLiteral("Add a number"), static_cast<int>(CollisionPolicy::number));
  m_collision->addItem(QStringLiteral("Skip"), static_cast<int>(CollisionPolicy::skip));
  m_collision->addItem(QStringLiteral("Replace"), static_cast<int>(CollisionPolicy::replace));
  m_collision->setCurrentIndex(m_collision->findData(static_cast<int>(initial.collision)));
  form->addRow(QStringLiteral("If a file exists"), m_collision);
  m_receipts = named(new QComboBox, QStringLiteral("Receipts"));
  m_receipts->addItem(QStringLiteral("In Tarnbloom’s Receipts folder"));
  m_receipts->addItem(QStringLiteral("Beside each export"));
  m_receipts->setCurrentIndex(initial.receiptsBesideExports ? 1 : 0);
  form->addRow(QStringLiteral("Receipts"), m_receipts);

  auto* buttons = new QDialogButtonBox;
  buttons->addButton(QDialogButtonBox::Cancel);
  m_export = named(buttons->addButton(QStringLiteral("Export"), QDialogButtonBox::AcceptRole),
                   QStringLiteral("Export"));
  m_export->setDefault(true);
  m_export->setAutoDefault(true);
  connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  connect(choose, &QPushButton::clicked, this, [this] {
    const QString folder = QFileDialog::getExistingDirectory(
        this, QStringLiteral("Save Exports In"), m_folder->text());
    if (!folder.isEmpty()) m_folder->setText(folder);
  });

  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addWidget(buttons);
  for (QLineEdit* edit : {m_flatten, m_folder, m_template})
    connect(edit, &QLineEdit::textChanged, this, &ExportSheet::refresh);
  connect(m_format, &QComboBox::currentIndexChanged, this, &ExportSheet::refresh);
  refresh();
  m_export->setFocus();
  setMinimumWidth(520);
}

ExportRequest ExportSheet::request() const {
  ExportRequest r = m_initial;
  auto& o = r.options;
  const int format = m_format->currentData().toInt();
  o.formatFollowsSource = format < 0;
  if (format >= 0) o.format = static_cast<ExportFormat>(format);
  setLossyQuality(o, o.resolvedFormat(m_source), m_quality->value());
  if (m_ceiling->value() > 0)
    o.jpeg.maxBytes = static_cast<int64_t>(m_ceiling->value()) * 1000;
  else
    o.jpeg.maxBytes.reset();
  m_policy.read(o.colourPolicy);
  try {
    o.colourPolicy.flatten =
        encoding::ColourPolicy::canonicalFlattenColour(m_flatten->text().trimmed().toStdString());
  } catch (const Error&) {
    // refresh() keeps Export disabled while the colour is not understood.
  }
  const fs::path folder = m_folder->text().trimmed().toStdString();
  if (folder.empty() || folder == m_source.parent_path())
    r.folder.reset();
  else
    r.folder = folder;
  r.nameTemplate = m_template->text().toStdString();
  r.collision = static_cast<CollisionPolicy>(m_collision->currentData().toInt());
  r.receiptsBesideExports = m_receipts->currentIndex() == 1;
  return r;
}

void ExportSheet::refresh() {
  exporting::ExportOptions format0 = m_initial.options;
  const int chosen = m_format->currentData().toInt();
  format0.formatFollowsSource = chosen < 0;
  if (chosen >= 0) format0.format = static_cast<ExportFormat>(chosen);
  const ExportFormat format = format0.resolvedFormat(m_source);
  // A newly chosen format starts from the quality saved for it.
  if (!m_shownFormat || *m_shownFormat != format) {
    m_shownFormat = format;
    m_quality->setValue(lossyQuality(m_initial.options, format));
  }
  const ExportRequest r = request();
  m_quality->setEnabled(isLossy(format));
  m_ceiling->setEnabled(format == ExportFormat::jpeg);
  QString problem;
  try {
    encoding::ColourPolicy::canonicalFlattenColour(m_flatten->text().trimmed().toStdString());
  } catch (const Error& error) {
    problem = QString::fromStdString(error.description());
  }
  QString example;
  try {
    encoding::NamingEngine::validateTemplate(r.nameTemplate);
    encoding::NamingFacts facts;
    facts.sourcePath = m_source;
    facts.outputWidth = m_size.width;
    facts.outputHeight = m_size.height;
    facts.method = std::string(rawValue(r.options.method));
    facts.formatToken = std::string(encoding::rawValue(format));
    facts.index = 1;
    facts.scaleFactor = m_size.scaleFactor;
    const fs::path folder = r.folder ? *r.folder : m_source.parent_path();
    example = QString::fromStdString(
        encoding::NamingEngine::firstCandidatePath(folder, r.nameTemplate, facts).string());
  } catch (const Error& error) {
    if (problem.isEmpty()) problem = QString::fromStdString(error.description());
  }
  m_example->setText(problem.isEmpty() ? QStringLiteral("Example: %1").arg(example) : problem);
  m_export->setEnabled(problem.isEmpty());
}

}  // namespace tarnbloom::app
