#pragma once

#include <QWidget>

#include "app/policy_controls.h"
#include "export/export_options.h"
#include "preview/inspector_model.h"

class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QPushButton;
class QSlider;
class QSpinBox;

namespace tarnbloom::app {

// The side panel: size, method, strength, format, quality, colour and
// metadata for the active photo. It shows what it is given and emits what
// the user changes; the window decides what that means.
class InspectorPanel : public QWidget {
  Q_OBJECT

 public:
  explicit InspectorPanel(QWidget* parent = nullptr);

  // The options to show and what they resolve to; none disables the panel
  // and says why (no photo, still loading, failed).
  void showOptions(const exporting::ExportOptions& options, const preview::InspectorState& state);
  void showUnavailable(const QString& reason);
  const exporting::ExportOptions& options() const { return m_options; }

 Q_SIGNALS:
  void optionsChanged(const tarnbloom::exporting::ExportOptions& options);
  void exportRequested();

 private:
  void readControls();
  void updateVisibility();

  exporting::ExportOptions m_options;
  bool m_updating = false;
  QComboBox* m_sizeMode;
  QDoubleSpinBox* m_sizeValue;
  QWidget* m_boxRow;
  QDoubleSpinBox* m_boxWidth;
  QDoubleSpinBox* m_boxHeight;
  QLabel* m_sizeNote;
  QLabel* m_resolved;
  QComboBox* m_method;
  QLabel* m_methodNote;
  QWidget* m_strengthRow;
  QSlider* m_strength;
  QLabel* m_strengthValue;
  QComboBox* m_format;
  QSpinBox* m_quality;
  PolicyControls m_policy;
  QLabel* m_message;
  QPushButton* m_export;
};

}  // namespace tarnbloom::app
