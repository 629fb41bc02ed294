#include "app/policy_controls.h"

#include <cmath>

namespace tarnbloom::app {

using encoding::MetadataToggle;

void setLossyQuality(exporting::ExportOptions& options, encoding::ExportFormat format,
                     int quality) {
  switch (format) {
    case encoding::ExportFormat::jpeg:
      options.jpeg.quality = quality;
      break;
    case encoding::ExportFormat::webp:
      options.webp.lossyQuality = static_cast<float>(quality);
      break;
    case encoding::ExportFormat::avif:
    case encoding::ExportFormat::heic:
      options.heifQuality = quality;
      break;
    default:
      break;
  }
}

int lossyQuality(const exporting::ExportOptions& options, encoding::ExportFormat format) {
  switch (format) {
    case encoding::ExportFormat::jpeg:
      return options.jpeg.quality;
    case encoding::ExportFormat::webp:
      return static_cast<int>(std::lround(options.webp.lossyQuality));
    case encoding::ExportFormat::avif:
    case encoding::ExportFormat::heic:
      return options.heifQuality.value_or(encoding::kImageWriterLossyQuality);
    default:
      return 100;
  }
}

bool isLossy(encoding::ExportFormat format) {
  using encoding::ExportFormat;
  return format == ExportFormat::jpeg || format == ExportFormat::webp ||
         format == ExportFormat::avif || format == ExportFormat::heic;
}

PolicyControls PolicyControls::make(bool shortLabels) {
  PolicyControls controls;
  controls.profile = named(new QComboBox, QStringLiteral("Colour profile"));
  controls.profile->addItem(QStringLiteral("Keep the photo’s profile"));
  controls.profile->addItem(QStringLiteral("Convert to sRGB"));
  const auto box = [shortLabels](const char* label, const char* name) {
    return named(new QCheckBox(QString::fromUtf8(shortLabels ? label : name)),
                 QString::fromUtf8(name));
  };
  controls.icc = box("ICC", "Embed ICC profile");
  controls.exif = box("EXIF", "Keep EXIF");
  controls.xmp = box("XMP", "Keep XMP");
  controls.gps = box("GPS", "Keep GPS location");
  return controls;
}

void PolicyControls::show(const encoding::ColourPolicy& policy) const {
  profile->setCurrentIndex(policy.profile == encoding::ProfilePolicy::keep ? 0 : 1);
  icc->setChecked(policy.icc == MetadataToggle::keep);
  exif->setChecked(policy.exif == MetadataToggle::keep);
  xmp->setChecked(policy.xmp == MetadataToggle::keep);
  gps->setChecked(policy.gps == MetadataToggle::keep);
}

void PolicyControls::read(encoding::ColourPolicy& policy) const {
  policy.profile =
      profile->currentIndex() == 0 ? encoding::ProfilePolicy::keep : encoding::ProfilePolicy::srgb;
  const auto toggle = [](const QCheckBox* box) {
    return box->isChecked() ? MetadataToggle::keep : MetadataToggle::strip;
  };
  policy.icc = toggle(icc);
  policy.exif = toggle(exif);
  policy.xmp = toggle(xmp);
  policy.gps = toggle(gps);
}

}  // namespace tarnbloom::app
