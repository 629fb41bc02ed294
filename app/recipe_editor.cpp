#include "app/recipe_editor.h"

#include <algorithm>
#include <cmath>

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QDoubleSpinBox>
#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QSpinBox>
#include <QVBoxLayout>

#include "engine/estimate_engine.h"
#include "engine/size_mode.h"

namespace tarnbloom::app {

namespace {

using encoding::ExportFormat;
using recipes::RecipeOutputDraft;

// The formats a recipe can name.
constexpr ExportFormat kRecipeFormats[] = {ExportFormat::png, ExportFormat::jpeg,
                                           ExportFormat::tiff, ExportFormat::webp};

void selectData(QComboBox* box, int value) {
  const int index = box->findData(value);
  if (index >= 0) box->setCurrentIndex(index);
}

}  // namespace

RecipeEditor::RecipeEditor(recipes::RecipeDraft draft, recipes::RecipeStore library,
                           QWidget* parent)
    : QDialog(parent), m_draft(std::move(draft)), m_library(std::move(library)) {
  setWindowTitle(m_draft.name.empty() ? QStringLiteral("New Recipe")
                                      : QStringLiteral("Edit “%1”").arg(qsv(m_draft.name)));
  m_name = named(new QLineEdit(qsv(m_draft.name)), QStringLiteral("Recipe name"));
  m_name->setPlaceholderText(QStringLiteral("Portraits for print"));

  m_outputs = named(new QListWidget, QStringLiteral("Outputs"));
  m_outputs->setMinimumWidth(260);
  auto* add = named(new QPushButton(QStringLiteral("Add Output")), QStringLiteral("Add Output"));
  m_remove = named(new QPushButton(QStringLiteral("Remove Output")), QStringLiteral("Remove Output"));
  connect(add, &QPushButton::clicked, this, &RecipeEditor::addOutput);
  connect(m_remove, &QPushButton::clicked, this, &RecipeEditor::removeOutput);
  auto* outputButtons = new QHBoxLayout;
  outputButtons->addWidget(add);
  outputButtons->addWidget(m_remove);
  outputButtons->addStretch(1);
  auto* left = new QVBoxLayout;
  left->addWidget(new QLabel(QStringLiteral("Each output writes one file per photo.")));
  left->addWidget(m_outputs, 1);
  left->addLayout(outputButtons);

  m_form = buildOutputForm();
  auto* columns = new QHBoxLayout;
  columns->addLayout(left, 2);
  columns->addWidget(m_form, 3);

  m_refusal = named(new QLabel, QStringLiteral("Refusal"));
  m_refusal->setWordWrap(true);
  m_refusal->setStyleSheet(QStringLiteral("color: #c62828;"));
  m_refusal->hide();

  auto* buttons = new QDialogButtonBox(QDialogButtonBox::Save | QDialogButtonBox::Cancel);
  named(buttons->button(QDialogButtonBox::Save), QStringLiteral("Save"));
  connect(buttons, &QDialogButtonBox::accepted, this, [this] {
    if (save()) accept();
  });
  connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);

  auto* form = new QFormLayout;
  form->addRow(QStringLiteral("Name:"), m_name);
  auto* layout = new QVBoxLayout(this);
  layout->addLayout(form);
  layout->addLayout(columns, 1);
  layout->addWidget(m_refusal);
  layout->addWidget(buttons);

  connect(m_outputs, &QListWidget::currentRowChanged, this, [this](int row) {
    if (m_loading) return;
    readOutput();
    showOutput(row);
  });
  refreshOutputList();
  showOutput(m_draft.outputs.empty() ? -1 : 0);
  resize(820, 520);
}

QWidget* RecipeEditor::buildOutputForm() {
  auto* box = new QWidget;
  auto* form = m_fields = new QFormLayout(box);

  m_method = named(new QComboBox, QStringLiteral("Method"));
  const bool enhanceInstalled = recipes::installedMethods().count("estimate") > 0;
  for (ResampleMethod method : kAllResampleMethods) {
    // Enhance is offered where it runs; a recipe made elsewhere keeps it.
    const bool used = std::any_of(m_draft.outputs.begin(), m_draft.outputs.end(),
                                  [](const auto& o) { return o.method == ResampleMethod::estimate; });
    if (method == ResampleMethod::estimate && !enhanceInstalled && !used) continue;
    m_method->addItem(qsv(title(method)), static_cast<int>(method));
  }
  m_strength = named(new QDoubleSpinBox, QStringLiteral("Strength"));
  m_strength->setRange(0.1, 1.0);
  m_strength->setSingleStep(0.05);
  m_strength->setDecimals(2);

  m_sizeMode = named(new QComboBox, QStringLiteral("Size mode"));
  for (SizeMode mode : kAllSizeModes) m_sizeMode->addItem(qsv(title(mode)), static_cast<int>(mode));
  m_sizeValue = named(new QDoubleSpinBox, QStringLiteral("Size value"));
  m_sizeValue->setRange(1, 1000000);
  m_sizeValue->setDecimals(0);
  m_boxWidth = named(new QSpinBox, QStringLiteral("Box width"));
  m_boxHeight = named(new QSpinBox, QStringLiteral("Box height"));
  for (QSpinBox* spin : {m_boxWidth, m_boxHeight}) {
    spin->setRange(1, 1000000);
    spin->setSuffix(QStringLiteral(" px"));
  }
  m_boxRow = new QWidget;
  auto* boxRow = new QHBoxLayout(m_boxRow);
  boxRow->setContentsMargins(0, 0, 0, 0);
  boxRow->addWidget(m_boxWidth);
  boxRow->addWidget(new QLabel(QStringLiteral("×")));
  boxRow->addWidget(m_boxHeight);

  m_format = named(new QComboBox, QStringLiteral("Format"));
  for (ExportFormat format : kRecipeFormats)
    m_format->addItem(qsv(encoding::title(format)), static_cast<int>(format));
  m_quality = named(new QSpinBox, QStringLiteral("Quality"));
  m_quality->setRange(1, 100);
  m_lossless = named(new QCheckBox(QStringLiteral("Lossless")), QStringLiteral("Lossless"));
  m_qualityRow = new QWidget;
  auto* qualityRow = new QHBoxLayout(m_qualityRow);
  qualityRow->setContentsMargins(0, 0, 0, 0);
  qualityRow->addWidget(m_quality);
  qualityRow->addWidget(m_lossless);
  qualityRow->addStretch(1);

  m_policy = PolicyControls::make(true);
  auto* metadataRow = new QHBoxLayout;
  for (QCheckBox* toggle : {m_policy.icc, m_policy.exif, m_policy.xmp, m_policy.gps})
    metadataRow->addWidget(toggle);
  metadataRow->addStretch(1);

  m_template = named(new QLineEdit, QStringLiteral("Name template"));
  m_destinationKind = named(new QComboBox, QStringLiteral("Destination"));
  m_destinationKind->addItem(QStringLiteral("Beside each photo"));
  m_destinationKind->addItem(QStringLiteral("In a folder"));
  m_destination = named(new QLineEdit, QStringLiteral("Destination folder"));
  m_destination->setPlaceholderText(QStringLiteral("A folder, or a name for one beside each photo"));
  m_browse = named(new QPushButton(QStringLiteral("Choose…")), QStringLiteral("Choose folder"));
  connect(m_browse, &QPushButton::clicked, this, [this] {
    const QString folder = QFileDialog::getExistingDirectory(this, QStringLiteral("Save Into"),
                                                             m_destination->text());
    if (!folder.isEmpty()) m_destination->setText(folder);
  });
  auto* destinationRow = new QHBoxLayout;
  destinationRow->addWidget(m_destination, 1);
  destinationRow->addWidget(m_browse);

  form->addRow(QStringLiteral("Method:"), m_method);
  form->addRow(QStringLiteral("Strength:"), m_strength);
  form->addRow(QStringLiteral("Size:"), m_sizeMode);
  form->addRow(QStringLiteral("Value:"), m_sizeValue);
  form->addRow(QStringLiteral("Box:"), m_boxRow);
  form->addRow(QStringLiteral("Format:"), m_format);
  form->addRow(QStringLiteral("Quality:"), m_qualityRow);
  form->addRow(QStringLiteral("Colour:"), m_policy.profile);
  form->addRow(QStringLiteral("Keep:"), metadataRow);
  form->addRow(QStringLiteral("File names:"), m_template);
  form->addRow(QStringLiteral("Save:"), m_destinationKind);
  form->addRow(QString(), destinationRow);

  const auto changed = [this] {
    if (m_loading) return;
    readOutput();
    refreshOutputList();
    refreshVisibility();
  };
  for (QComboBox* combo : {m_method, m_sizeMode, m_format, m_policy.profile, m_destinationKind})
    connect(combo, &QComboBox::currentIndexChanged, this, changed);
  for (QAbstractSpinBox* spin : std::initializer_list<QAbstractSpinBox*>{
           m_strength, m_sizeValue, m_boxWidth, m_boxHeight, m_quality})
    connect(spin, &QAbstractSpinBox::editingFinished, this, changed);
  for (QCheckBox* check : {m_lossless, m_policy.icc, m_policy.exif, m_policy.xmp, m_policy.gps})
    connect(check, &QCheckBox::toggled, this, changed);
  for (QLineEdit* edit : {m_template, m_destination})
    connect(edit, &QLineEdit::editingFinished, this, changed);
  return box;
}

void RecipeEditor::showOutput(int index) {
  m_current = index;
  m_form->setEnabled(index >= 0);
  m_remove->setEnabled(index >= 0);
  if (index < 0) return;
  const RecipeOutputDraft& output = m_draft.outputs[static_cast<size_t>(index)];
  m_loading = true;
  selectData(m_method, static_cast<int>(output.method));
  m_strength->setValue(output.estimateStrength.value_or(EstimateEngine::defaultStrength));
  selectData(m_sizeMode, static_cast<int>(output.sizeMode));
  m_sizeValue->setValue(output.sizeValue > 0 ? output.sizeValue : 100);
  m_boxWidth->setValue(static_cast<int>(output.boxWidth > 0 ? output.boxWidth : 1920));
  m_boxHeight->setValue(static_cast<int>(output.boxHeight > 0 ? output.boxHeight : 1080));
  selectData(m_format, static_cast<int>(output.format));
  m_quality->setValue(output.format == ExportFormat::webp
                          ? static_cast<int>(std::lround(output.webp.lossyQuality))
                          : output.jpeg.quality);
  m_lossless->setChecked(output.webp.lossless);
  m_policy.show(output.colourPolicy);
  m_template->setText(qsv(output.namingTemplate));
  m_destinationKind->setCurrentIndex(output.destination ? 1 : 0);
  m_destination->setText(output.destination ? qsv(*output.destination) : QString());
  m_outputs->setCurrentRow(index);
  m_loading = false;
  refreshVisibility();
}

void RecipeEditor::readOutput() {
  if (m_current < 0 || m_current >= static_cast<int>(m_draft.outputs.size())) return;
  RecipeOutputDraft& output = m_draft.outputs[static_cast<size_t>(m_current)];
  output.method = static_cast<ResampleMethod>(m_method->currentData().toInt());
  if (output.method == ResampleMethod::estimate) {
    if (!output.model) output.model = RecipeOutputDraft::installedEstimateModel();
    output.estimateStrength = m_strength->value();
  } else {
    output.model.reset();
    output.estimateStrength.reset();
  }
  output.sizeMode = static_cast<SizeMode>(m_sizeMode->currentData().toInt());
  output.sizeValue = takesSingleValue(output.sizeMode) ? m_sizeValue->value() : 0;
  output.boxWidth = takesBoundingBox(output.sizeMode) ? m_boxWidth->value() : 0;
  output.boxHeight = takesBoundingBox(output.sizeMode) ? m_boxHeight->value() : 0;
  const auto previous = output.format;
  output.format = static_cast<ExportFormat>(m_format->currentData().toInt());
  // The quality box belongs to the format it showed; a new format starts
  // from its own quality.
  if (output.format == previous) {
    if (output.format == ExportFormat::jpeg) output.jpeg.quality = m_quality->value();
    if (output.format == ExportFormat::webp) {
      output.webp.lossyQuality = static_cast<float>(m_quality->value());
      output.webp.lossless = m_lossless->isChecked();
    }
  }
  m_policy.read(output.colourPolicy);
  output.namingTemplate = m_template->text().toStdString();
  const std::string folder = m_destination->text().trimmed().toStdString();
  if (m_destinationKind->currentIndex() == 1 && !folder.empty())
    output.destination = folder;
  else
    output.destination.reset();
  if (output.format != previous) showOutput(m_current);
}

void RecipeEditor::refreshOutputList() {
  m_loading = true;
  const int keep = m_current;
  m_outputs->clear();
  for (size_t i = 0; i < m_draft.outputs.size(); ++i)
    m_outputs->addItem(QStringLiteral("%1. %2").arg(i + 1).arg(qsv(m_draft.outputs[i].summary())));
  if (keep >= 0 && keep < m_outputs->count()) m_outputs->setCurrentRow(keep);
  m_loading = false;
}

void RecipeEditor::refreshVisibility() {
  const auto setRowVisible = [this](QWidget* field, bool visible) {
    m_fields->setRowVisible(field, visible);
  };
  const auto mode = static_cast<SizeMode>(m_sizeMode->currentData().toInt());
  const auto format = static_cast<ExportFormat>(m_format->currentData().toInt());
  setRowVisible(m_strength,
                static_cast<ResampleMethod>(m_method->currentData().toInt()) == ResampleMethod::estimate);
  setRowVisible(m_sizeValue, takesSingleValue(mode));
  m_sizeValue->setSuffix(mode == SizeMode::percent ? QStringLiteral(" %") : QStringLiteral(" px"));
  setRowVisible(m_boxRow, takesBoundingBox(mode));
  setRowVisible(m_qualityRow, format == ExportFormat::jpeg || format == ExportFormat::webp);
  m_quality->setEnabled(!(format == ExportFormat::webp && m_lossless->isChecked()));
  m_lossless->setVisible(format == ExportFormat::webp);
  const bool inFolder = m_destinationKind->currentIndex() == 1;
  m_destination->setEnabled(inFolder);
  m_browse->setEnabled(inFolder);
}

void RecipeEditor::addOutput() {
  readOutput();
  // A new output starts as a copy of the one shown: most recipes vary one
  // setting between outputs.
  RecipeOutputDraft output = m_current >= 0 ? m_draft.outputs[static_cast<size_t>(m_current)]
                                            : RecipeOutputDraft{};
  m_draft.outputs.push_back(std::move(output));
  m_current = static_cast<int>(m_draft.outputs.size()) - 1;
  refreshOutputList();
  showOutput(m_current);
}

void RecipeEditor::removeOutput() {
  if (m_current < 0) return;
  m_draft.outputs.erase(m_draft.outputs.begin() + m_current);
  m_current = std::min(m_current, static_cast<int>(m_draft.outputs.size()) - 1);
  refreshOutputList();
  showOutput(m_current);
}

recipes::RecipeDraft RecipeEditor::draft() {
  readOutput();
  m_draft.name = m_name->text().trimmed().toStdString();
  return m_draft;
}

bool RecipeEditor::save() {
  const recipes::RecipeDraft candidate = draft();
  std::optional<std::string> refusal = candidate.editorRefusal();
  if (!refusal) {
    try {
      m_saved = m_library.save(candidate);
    } catch (const Error& error) {
      refusal = error.description();
    }
  }
  m_refusal->setText(refusal ? qsv(*refusal) : QString());
  m_refusal->setVisible(refusal.has_value());
  return !refusal;
}

}  // namespace tarnbloom::app
