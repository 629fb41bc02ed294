#include "app/inspector_panel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSlider>
#include <QSpinBox>
#include <QVBoxLayout>
#include <cmath>

namespace tarnbloom::app {

using encoding::ExportFormat;

namespace {

QDoubleSpinBox* pixelSpin(const QString& name) {
  auto* spin = named(new QDoubleSpinBox, name);
  spin->setDecimals(0);
  spin->setRange(1, 1'000'000);
  spin->setKeyboardTracking(false);
  return spin;
}


}  // namespace

InspectorPanel::InspectorPanel(QWidget* parent) : QWidget(parent) {
  setAccessibleName(QStringLiteral("Inspector"));
  auto* layout = new QVBoxLayout(this);

  auto* sizeBox = new QGroupBox(QStringLiteral("Size"));
  auto* sizeForm = new QFormLayout(sizeBox);
  m_sizeMode = named(new QComboBox, QStringLiteral("Size mode"));
  for (SizeMode mode : kAllSizeModes) m_sizeMode->addItem(qsv(title(mode)), static_cast<int>(mode));
  sizeForm->addRow(QStringLiteral("Mode"), m_sizeMode);
  m_sizeValue = pixelSpin(QStringLiteral("Size value"));
  sizeForm->addRow(QStringLiteral("Value"), m_sizeValue);
  m_boxRow = new QWidget;
  auto* boxLayout = new QHBoxLayout(m_boxRow);
  boxLayout->setContentsMargins(0, 0, 0, 0);
  m_boxWidth = pixelSpin(QStringLiteral("Box width"));
  m_boxHeight = pixelSpin(QStringLiteral("Box height"));
  boxLayout->addWidget(m_boxWidth);
  boxLayout->addWidget(new QLabel(QStringLiteral("×")));
  boxLayout->addWidget(m_boxHeight);
  sizeForm->addRow(QStringLiteral("Box"), m_boxRow);
  m_sizeNote = named(new QLabel, QStringLiteral("Size explanation"));
  m_sizeNote->setWordWrap(true);
  m_sizeNote->setForegroundRole(QPalette::PlaceholderText);
  sizeForm->addRow(m_sizeNote);
  m_resolved = named(new QLabel, QStringLiteral("Output size"));
  m_resolved->setTextInteractionFlags(Qt::TextSelectableByMouse);
  sizeForm->addRow(QStringLiteral("Output"), m_resolved);
  layout->addWidget(sizeBox);

  auto* methodBox = new QGroupBox(QStringLiteral("Method"));
  auto* methodForm = new QFormLayout(methodBox);
  m_method = named(new QComboBox, QStringLiteral("Method"));
  for (ResampleMethod method : kAllResampleMethods)
    m_method->addItem(qsv(title(method)), static_cast<int>(method));
  methodForm->addRow(QStringLiteral("Method"), m_method);
  m_methodNote = named(new QLabel, QStringLiteral("Method note"));
  m_methodNote->setWordWrap(true);
  m_methodNote->setForegroundRole(QPalette::PlaceholderText);
  methodForm->addRow(m_methodNote);
  m_strengthRow = new QWidget;
  auto* strengthLayout = new QHBoxLayout(m_strengthRow);
  strengthLayout->setContentsMargins(0, 0, 0, 0);
  m_strength = named(new QSlider(Qt::Horizontal), QStringLiteral("Enhance strength"));
  m_strength->setRange(10, 100);
  m_strength->setPageStep(10);
  m_strengthValue = new QLabel;
  m_strengthValue->setMinimumWidth(m_strengthValue->fontMetrics().horizontalAdvance("0.00") + 4);
  strengthLayout->addWidget(m_strength);
  strengthLayout->addWidget(m_strengthValue);
  methodForm->addRow(QStringLiteral("Strength"), m_strengthRow);
  layout->addWidget(methodBox);

  auto* outputBox = new QGroupBox(QStringLiteral("Output"));
  auto* outputForm = new QFormLayout(outputBox);
  m_format = named(new QComboBox, QStringLiteral("Format"));
  m_format->addItem(QStringLiteral("Same as source"), -1);
  for (ExportFormat format : encoding::writableFormats())
    m_format->addItem(qsv(encoding::title(format)), static_cast<int>(format));
  outputForm->addRow(QStringLiteral("Format"), m_format);
  m_quality = named(new QSpinBox, QStringLiteral("Quality"));
  m_quality->setRange(1, 100);
  m_quality->setKeyboardTracking(false);
  outputForm->addRow(QStringLiteral("Quality"), m_quality);
  m_policy = PolicyControls::make(false);
  outputForm->addRow(QStringLiteral("Colour"), m_policy.profile);
  for (QCheckBox* box : {m_policy.icc, m_policy.exif, m_policy.xmp, m_policy.gps})
    outputForm->addRow(box);
  layout->addWidget(outputBox);

  m_message = named(new QLabel, QStringLiteral("Inspector message"));
  m_message->setWordWrap(true);
  m_message->setTextInteractionFlags(Qt::TextSelectableByMouse);
  m_message->hide();
  layout->addWidget(m_message);
  m_export = named(new QPushButton(QStringLiteral("Export…")), QStringLiteral("Export"));
  m_export->setToolTip(QStringLiteral("Export (Ctrl+E)"));
  layout->addWidget(m_export);
  layout->addStretch(1);

  const auto changed = [this] {
    if (m_updating) return;
    readControls();
    Q_EMIT optionsChanged(m_options);
  };
  for (QComboBox* box : {m_sizeMode, m_method, m_format, m_policy.profile})
    connect(box, &QComboBox::currentIndexChanged, this, changed);
  for (QDoubleSpinBox* spin : {m_sizeValue, m_boxWidth, m_boxHeight})
    connect(spin, &QDoubleSpinBox::valueChanged, this, changed);
  connect(m_quality, &QSpinBox::valueChanged, this, changed);
  connect(m_strength, &QSlider::valueChanged, this, changed);
  for (QCheckBox* box : {m_policy.icc, m_policy.exif, m_policy.xmp, m_policy.gps})
    connect(box, &QCheckBox::toggled, this, changed);
  connect(m_export, &QPushButton::clicked, this, &InspectorPanel::exportRequested);
  showUnavailable(QStringLiteral("Open a photo to choose its size and method."));
}

void InspectorPanel::readControls() {
  auto& o = m_options;
  o.sizeMode = static_cast<SizeMode>(m_sizeMode->currentData().toInt());
  if (o.sizeMode == SizeMode::boundingBox) {
    o.boxWidth = m_boxWidth->value();
    o.boxHeight = m_boxHeight->value();
  } else if (takesSingleValue(o.sizeMode)) {
    o.sizeValue = m_sizeValue->value();
  }
  o.method = static_cast<ResampleMethod>(m_method->currentData().toInt());
  o.estimateStrength = m_strength->value() / 100.0;
  const int format = m_format->currentData().toInt();
  o.formatFollowsSource = format < 0;
  if (format >= 0) o.format = static_cast<ExportFormat>(format);
  setLossyQuality(o, o.format, m_quality->value());
  m_policy.read(o.colourPolicy);
  updateVisibility();
}

void InspectorPanel::updateVisibility() {
  const SizeMode mode = m_options.sizeMode;
  m_sizeValue->setEnabled(takesSingleValue(mode));
  m_sizeValue->setSuffix(" " + qsv(unit(mode)));
  m_boxRow->setEnabled(takesBoundingBox(mode));
  m_sizeNote->setText(qsv(explanation(mode)));
  m_methodNote->setText(qsv(note(m_options.method)));
  m_strengthRow->setEnabled(m_options.method == ResampleMethod::estimate);
  m_strengthValue->setText(QString::number(m_options.estimateStrength, 'f', 2));
  const bool lossy =
      !m_options.formatFollowsSource &&
      (m_options.format == ExportFormat::jpeg || m_options.format == ExportFormat::webp ||
       m_options.format == ExportFormat::avif || m_options.format == ExportFormat::heic);
  m_quality->setEnabled(lossy);
}

void InspectorPanel::showOptions(const exporting::ExportOptions& options,
                                 const preview::InspectorState& state) {
  m_updating = true;
  for (QWidget* w : findChildren<QGroupBox*>()) w->setEnabled(true);
  // A refusal reads as one: white on red, in the panel, beside the choice.
  m_message->setStyleSheet(
      QStringLiteral("color: white; background: #b3261e; border-radius: 6px; "
                     "padding: 6px;"));
  m_options = options;
  m_sizeMode->setCurrentIndex(m_sizeMode->findData(static_cast<int>(options.sizeMode)));
  if (takesSingleValue(options.sizeMode)) m_sizeValue->setValue(options.sizeValue);
  m_boxWidth->setValue(options.boxWidth);
  m_boxHeight->setValue(options.boxHeight);
  m_method->setCurrentIndex(m_method->findData(static_cast<int>(options.method)));
  m_strength->setValue(static_cast<int>(std::lround(options.estimateStrength * 100)));
  m_format->setCurrentIndex(
      m_format->findData(options.formatFollowsSource ? -1 : static_cast<int>(options.format)));
  m_quality->setValue(lossyQuality(options, options.format));
  m_policy.show(options.colourPolicy);
  updateVisibility();
  m_resolved->setText(state.size ? QString::fromStdString(state.sizeText) : QStringLiteral("—"));
  m_message->setText(QString::fromStdString(state.message));
  m_message->setVisible(!state.message.empty());
  m_export->setEnabled(state.canExport);
  m_export->setToolTip(state.canExport ? QStringLiteral("Export (Ctrl+E)")
                                       : QString::fromStdString(state.exportBlockedReason));
  m_updating = false;
}

void InspectorPanel::showUnavailable(const QString& reason) {
  m_updating = true;
  for (QWidget* w : findChildren<QGroupBox*>()) w->setEnabled(false);
  m_resolved->setText(QStringLiteral("—"));
  m_message->setStyleSheet(QStringLiteral("padding: 6px;"));
  m_message->setText(reason);
  m_message->setVisible(!reason.isEmpty());
  m_export->setEnabled(false);
  m_export->setToolTip(reason);
  m_updating = false;
}

}  // namespace tarnbloom::app
