#pragma once

#include <QDialog>
#include <filesystem>
#include <optional>

#include "app/export_host.h"
#include "app/policy_controls.h"
#include "engine/dimension_resolver.h"

class QCheckBox;
class QComboBox;
class QLabel;
class QLineEdit;
class QPushButton;
class QSpinBox;

namespace tarnbloom::app {

// The export sheet: how and where one photo is written. It only returns a
// request; the window hands it to the export host.
class ExportSheet : public QDialog {
  Q_OBJECT

 public:
  ExportSheet(const ExportRequest& initial, std::filesystem::path source, ResolvedSize size,
              QWidget* parent = nullptr);

  ExportRequest request() const;

 private:
  void refresh();

  std::filesystem::path m_source;
  ResolvedSize m_size;
  ExportRequest m_initial;
  std::optional<encoding::ExportFormat> m_shownFormat;
  QComboBox* m_format;
  QSpinBox* m_quality;
  QSpinBox* m_ceiling;
  PolicyControls m_policy;
  QLineEdit* m_flatten;
  QLineEdit* m_folder;
  QLineEdit* m_template;
  QLabel* m_example;
  QComboBox* m_collision;
  QComboBox* m_receipts;
  QPushButton* m_export;
};

// The request the sheet starts from: the document's options with the
// naming, destination and receipt choices saved last time.
ExportRequest savedRequest(const exporting::ExportOptions& options,
                           const std::filesystem::path& source);
// Saves the choices under the keys the export options and receipts use.
void saveRequest(const ExportRequest& request);

}  // namespace tarnbloom::app
