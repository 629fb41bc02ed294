#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include <QImage>
#include <QObject>
#include <QString>

#include "engine/estimate_engine.h"
#include "engine/resample_engine.h"
#include "export/export_options.h"

namespace tarnbloom::app {

// One photo of a tab: its file, its settings, and while it is resident its
// decoded source. Loading runs through the sandboxed decoders on a worker;
// the document only changes on the GUI thread. Knows no widgets.
class PhotoDocument : public QObject {
  Q_OBJECT

 public:
  enum class State { loading, loaded, failed, unloaded };

  PhotoDocument(std::filesystem::path path, exporting::ExportOptions options,
                EstimateEngine* estimates, QObject* parent = nullptr);
  ~PhotoDocument() override;

  const std::filesystem::path& path() const { return m_path; }
  QString fileName() const;
  State state() const { return m_state; }
  // The engine's message (and what to do about it) when loading failed.
  QString errorText() const { return m_error; }

  // Resident only while loaded; shared with renders that may outlive a
  // later unload.
  std::shared_ptr<const ResampleEngine> engine() const { return m_engine; }
  // The upright source, 8 bits per channel, for the compare view.
  const QImage& original() const { return m_original; }
  // Kept when the pixels are dropped, for the tab and the empty view.
  const QImage& thumbnail() const { return m_thumbnail; }
  int64_t uprightWidth() const { return m_width; }
  int64_t uprightHeight() const { return m_height; }
  int bitsPerComponent() const { return m_bits; }

  const exporting::ExportOptions& options() const { return m_options; }
  void setOptions(const exporting::ExportOptions& options);

  // Starts loading (again); the first load fixes the source's digest, and
  // a reload of bytes that no longer match it fails with a message rather
  // than showing other pixels.
  void load();
  // Drops the decoded source and the original, keeping the thumbnail and
  // the settings; load() brings them back.
  void unload();
  // Bytes the resident pixels hold (source, linear copy, original).
  uint64_t residentBytes() const;

 Q_SIGNALS:
  void stateChanged();
  void optionsChanged();

 private:
  struct Loaded;
  void finishLoad(const std::shared_ptr<Loaded>& loaded, uint64_t generation);

  std::filesystem::path m_path;
  exporting::ExportOptions m_options;
  EstimateEngine* m_estimates;
  State m_state = State::unloaded;
  QString m_error;
  std::shared_ptr<const ResampleEngine> m_engine;
  QImage m_original;
  QImage m_thumbnail;
  std::optional<std::string> m_digest;
  int64_t m_width = 0, m_height = 0;
  int m_bits = 8;
  // A load that finishes after a newer load() or an unload() is dropped.
  uint64_t m_generation = 0;
};

}  // namespace tarnbloom::app
