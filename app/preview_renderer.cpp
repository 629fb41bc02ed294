#include "app/preview_renderer.h"

#include <QPointer>

#include "app/pixel_image.h"

namespace tarnbloom::app {

PreviewRenderer::PreviewRenderer(QObject* parent)
    : QObject(parent),
      m_fast(std::make_unique<SerialWorker>()),
      m_slow(std::make_unique<SerialWorker>()) {}

PreviewRenderer::~PreviewRenderer() {
  // Queued work sees a newer generation and returns at once; a tile being
  // rendered finishes first. Signals queued for this object die with it.
  cancel();
  m_fast.reset();
  m_slow.reset();
}

void PreviewRenderer::post(SerialWorker& worker, std::function<void()> task) {
  ++m_busy;
  worker.post([this, task = std::move(task)] {
    task();
    if (--m_busy == 0) QMetaObject::invokeMethod(this, [this] { Q_EMIT idle(); }, Qt::QueuedConnection);
  });
}

void PreviewRenderer::cancel() {
  ++m_generation;
  if (m_stopNetwork) m_stopNetwork->store(true);
  m_stopNetwork.reset();
  m_networkEngine = nullptr;
}

std::shared_ptr<std::atomic<bool>> PreviewRenderer::networkFlagFor(const ResampleEngine* engine,
                                                                   const PreviewSettings& settings) {
  const bool needed = settings.method == ResampleMethod::estimate;
  const bool same = needed && m_stopNetwork && engine == m_networkEngine &&
                    settings.target.width == m_networkTarget.width &&
                    settings.target.height == m_networkTarget.height;
  if (same) return m_stopNetwork;
  // The running network computes an estimate nobody will look at.
  if (m_stopNetwork) m_stopNetwork->store(true);
  m_stopNetwork = needed ? std::make_shared<std::atomic<bool>>(false) : nullptr;
  m_networkEngine = needed ? engine : nullptr;
  m_networkTarget = settings.target;
  return m_stopNetwork;
}

uint64_t PreviewRenderer::request(std::shared_ptr<const ResampleEngine> engine,
                                  const PreviewSettings& settings,
                                  std::vector<preview::PixelRect> tiles,
                                  std::vector<preview::PixelRect> exactFirst) {
  const uint64_t generation = ++m_generation;
  auto stopNetwork = networkFlagFor(engine.get(), settings);
  {
    std::lock_guard lock(m_lock);
    m_done.clear();
  }
  if (!exactFirst.empty())
    post(*m_fast, [this, engine, settings, exactFirst = std::move(exactFirst), generation] {
      render(engine, settings, ResampleMethod::exact, exactFirst, generation, nullptr);
    });
  SerialWorker& lane = settings.method == ResampleMethod::estimate ? *m_slow : *m_fast;
  post(lane, [this, engine = std::move(engine), settings, tiles = std::move(tiles), generation,
               stopNetwork = std::move(stopNetwork)] {
    render(engine, settings, settings.method, tiles, generation, stopNetwork.get());
  });
  return generation;
}

void PreviewRenderer::render(const std::shared_ptr<const ResampleEngine>& engine,
                             const PreviewSettings& settings, ResampleMethod method,
                             const std::vector<preview::PixelRect>& tiles, uint64_t generation,
                             const std::atomic<bool>* stopNetwork) {
  const auto stale = [&] { return m_generation.load() != generation; };
  const bool reported = method == settings.method && method != ResampleMethod::exact;
  const auto report = [&](int64_t done, int64_t total) {
    if (!reported) return;
    QMetaObject::invokeMethod(
        this, [this, done = static_cast<int>(done), total = static_cast<int>(total), generation] {
          if (generation == m_generation) Q_EMIT progress(done, total);
        },
        Qt::QueuedConnection);
  };
  // The first Enhance tile may run the network over the whole photo: its
  // tiles count in the same bar as the preview's own.
  int64_t networkTiles = 0;
  const auto tileCount = static_cast<int64_t>(tiles.size());
  const RenderProgress network = [&](int64_t done, int64_t total) {
    networkTiles = total;
    report(done, total + tileCount);
  };
  try {
    int64_t done = 0;
    for (const auto& rect : tiles) {
      if (stale()) return;
      deliver({rect, settings, method, generation,
               toQImage(engine->previewTile(settings.target,
                                            {rect.x, rect.y, rect.width, rect.height}, method,
                                            settings.keepProfile, settings.strength,
                                            done == 0 ? network : RenderProgress{}, stopNetwork))});
      ++done;
      report(networkTiles + done, networkTiles + tileCount);
    }
  } catch (const Error& error) {
    if (stale()) return;
    QString text = QString::fromStdString(error.description());
    if (const auto suggestion = error.recoverySuggestion(); !suggestion.empty())
      text += "\n" + QString::fromStdString(suggestion);
    QMetaObject::invokeMethod(
        this, [this, text, generation] {
          if (generation == m_generation) Q_EMIT failed(text);
        },
        Qt::QueuedConnection);
  } catch (const std::bad_alloc&) {
    QMetaObject::invokeMethod(
        this, [this] { Q_EMIT failed(QStringLiteral("There isn’t enough memory for this preview.")); },
        Qt::QueuedConnection);
  }
}

void PreviewRenderer::deliver(PreviewTile tile) {
  bool wake = false;
  {
    std::lock_guard lock(m_lock);
    // The final method's tile is never replaced by the quick pass's one
    // for the same rect; otherwise the newer tile replaces the waiting one.
    const bool quick = tile.method != tile.settings.method;
    for (const PreviewTile& t : m_done)
      if (quick && t.rect == tile.rect && t.method == t.settings.method) return;
    std::erase_if(m_done, [&](const PreviewTile& t) { return t.rect == tile.rect; });
    wake = m_done.empty();
    m_done.push_back(std::move(tile));
  }
  if (wake) QMetaObject::invokeMethod(this, [this] { Q_EMIT tilesReady(); }, Qt::QueuedConnection);
}

std::vector<PreviewTile> PreviewRenderer::takeTiles() {
  std::vector<PreviewTile> tiles;
  {
    std::lock_guard lock(m_lock);
    tiles.swap(m_done);
  }
  const uint64_t current = m_generation;
  std::erase_if(tiles, [current](const PreviewTile& t) { return t.generation != current; });
  return tiles;
}

}  // namespace tarnbloom::app
