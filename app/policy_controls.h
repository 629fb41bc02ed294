#pragma once

#include <QCheckBox>
#include <QComboBox>
#include <QString>
#include <string_view>

#include "encoding/colour_policy.h"
#include "encoding/export_format.h"
#include "export/export_options.h"

namespace tarnbloom::app {

// Text from the core (UTF-8) for a widget.
inline QString qsv(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<int>(text.size()));
}

// Gives a control the name screen readers announce and tests find it by.
template <typename W>
W* named(W* widget, const QString& name) {
  widget->setAccessibleName(name);
  widget->setObjectName(name);
  return widget;
}

// Sets the quality of the lossy format `format` (JPEG, WebP, HEIC, AVIF);
// lossless formats have none.
void setLossyQuality(exporting::ExportOptions& options, encoding::ExportFormat format, int quality);
// The quality `format` is written at; 100 for a lossless format.
int lossyQuality(const exporting::ExportOptions& options, encoding::ExportFormat format);
// Whether `format` has a quality to choose.
bool isLossy(encoding::ExportFormat format);

// The colour profile and metadata choices, made the same way wherever they
// are offered (the inspector, the export sheet).
struct PolicyControls {
  QComboBox* profile = nullptr;
  QCheckBox* icc = nullptr;
  QCheckBox* exif = nullptr;
  QCheckBox* xmp = nullptr;
  QCheckBox* gps = nullptr;

  // `shortLabels`: "ICC", "EXIF"… for a row of boxes; else whole phrases.
  static PolicyControls make(bool shortLabels);
  void show(const encoding::ColourPolicy& policy) const;
  // The profile and the four toggles; the flatten colour is left as it is.
  void read(encoding::ColourPolicy& policy) const;
};

}  // namespace tarnbloom::app
