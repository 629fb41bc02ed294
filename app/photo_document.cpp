#include "app/photo_document.h"

#include <QFutureWatcher>
#include <QPointer>
#include <QtConcurrent/QtConcurrentRun>

#include "app/pixel_image.h"

namespace tarnbloom::app {

namespace fs = std::filesystem;

// What a worker hands back from one load.
struct PhotoDocument::Loaded {
  std::shared_ptr<const ResampleEngine> engine;
  QImage original;
  std::string error;
};

PhotoDocument::PhotoDocument(fs::path path, exporting::ExportOptions options,
                             EstimateEngine* estimates, QObject* parent)
    : QObject(parent), m_path(std::move(path)), m_options(std::move(options)),
      m_estimates(estimates) {}

PhotoDocument::~PhotoDocument() = default;

QString PhotoDocument::fileName() const {
  return QString::fromStdString(m_path.filename().string());
}

void PhotoDocument::setOptions(const exporting::ExportOptions& options) {
  m_options = options;
  Q_EMIT optionsChanged();
}

void PhotoDocument::load() {
  if (m_state == State::loading || m_state == State::loaded) return;
  const uint64_t generation = ++m_generation;
  m_state = State::loading;
  Q_EMIT stateChanged();
  const fs::path path = m_path;
  EstimateEngine* estimates = m_estimates;
  auto* watcher = new QFutureWatcher<std::shared_ptr<Loaded>>(this);
  connect(watcher, &QFutureWatcherBase::finished, this, [this, watcher, generation] {
    watcher->deleteLater();
    finishLoad(watcher->result(), generation);
  });
  watcher->setFuture(QtConcurrent::run([path, estimates] {
    auto loaded = std::make_shared<Loaded>();
    try {
      auto engine = std::make_shared<const ResampleEngine>(ResampleEngine::load(path), estimates);
      const SourceImage& source = engine->source();
      loaded->original =
          toQImage(ResampleEngine::applyOrientation(*source.bitmap, source.orientation));
      loaded->engine = std::move(engine);
    } catch (const Error& error) {
      loaded->error = error.description();
      if (const auto suggestion = error.recoverySuggestion(); !suggestion.empty())
        loaded->error += "\n" + suggestion;
    } catch (const std::bad_alloc&) {
      loaded->error = "There isn’t enough memory to open “" + path.filename().string() + "”.";
    }
    return loaded;
  }));
}

void PhotoDocument::finishLoad(const std::shared_ptr<Loaded>& loaded, uint64_t generation) {
  if (generation != m_generation) return;
  if (!loaded->engine) {
    m_state = State::failed;
    m_error = QString::fromStdString(loaded->error);
    Q_EMIT stateChanged();
    return;
  }
  const SourceImage& source = loaded->engine->source();
  if (m_digest && source.sourceHash != m_digest) {
    m_state = State::failed;
    m_error = QStringLiteral("“%1” changed on disk since it was opened, so its preview and "
                             "settings no longer describe it. Close this tab and open the photo "
                             "again.")
                  .arg(fileName());
    Q_EMIT stateChanged();
    return;
  }
  m_digest = source.sourceHash;
  m_engine = loaded->engine;
  m_original = loaded->original;
  m_width = source.orientedWidth();
  m_height = source.orientedHeight();
  m_bits = source.bitsPerComponent;
  if (m_thumbnail.isNull())
    m_thumbnail = m_original.scaled(256, 256, Qt::KeepAspectRatio, Qt::SmoothTransformation);
  m_state = State::loaded;
  m_error.clear();
  Q_EMIT stateChanged();
}

void PhotoDocument::unload() {
  if (m_state != State::loaded && m_state != State::loading) return;
  ++m_generation;
  m_engine.reset();
  m_original = QImage();
  m_state = State::unloaded;
  Q_EMIT stateChanged();
}

uint64_t PhotoDocument::residentBytes() const {
  if (!m_engine) return 0;
  const auto& bitmap = *m_engine->source().bitmap;
  return bitmap.data.size() + m_engine->linear().data.size() * sizeof(float) +
         static_cast<uint64_t>(m_original.sizeInBytes());
}

}  // namespace tarnbloom::app
