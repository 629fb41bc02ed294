#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include <QImage>
#include <QObject>
#include <QString>

#include "engine/resample_engine.h"
#include "preview/view_geometry.h"
#include "support/event_loop.h"

namespace tarnbloom::app {

// Everything a preview's pixels depend on besides the source.
struct PreviewSettings {
  ResampleTarget target;
  ResampleMethod method = ResampleMethod::exact;
  double strength = 0.5;
  bool keepProfile = true;
  bool operator==(const PreviewSettings&) const = default;
};

// One rendered tile of the output at some settings.
struct PreviewTile {
  preview::PixelRect rect;
  PreviewSettings settings;
  // The method these pixels come from: Exact while a slower method's tile
  // is still on its way.
  ResampleMethod method = ResampleMethod::exact;
  uint64_t generation = 0;
  QImage image;
};

// Renders tiles of the output with the engine's own previewTile, so each
// tile holds the export's pixels for its rect. Long-lived workers run the
// requests in order: one for Exact and Clarity, one for Enhance, whose
// first tile runs the network on the whole photo and cannot be stopped, so
// a switch back to Exact never waits for it. A new request makes every
// older one stale, and stale work stops at the next tile boundary; the
// network itself stops at its next tile unless the new request needs the
// same estimate (a pan, another strength). Finished tiles gather in a
// guarded list; only the first tile into an empty list wakes the GUI
// thread, which takes them all.
class PreviewRenderer : public QObject {
  Q_OBJECT

 public:
  explicit PreviewRenderer(QObject* parent = nullptr);
  ~PreviewRenderer() override;

  // `exactFirst`: tiles that first get a quick Exact pass (only for
  // another method). Returns the request's generation.
  uint64_t request(std::shared_ptr<const ResampleEngine> engine, const PreviewSettings& settings,
                   std::vector<preview::PixelRect> tiles,
                   std::vector<preview::PixelRect> exactFirst);
  void cancel();
  uint64_t generation() const { return m_generation; }
  bool busy() const { return m_busy.load() > 0; }

  // GUI thread: the tiles finished since the last call, stale ones removed.
  std::vector<PreviewTile> takeTiles();

 Q_SIGNALS:
  void tilesReady();
  // The slow pass of the current request: tiles done of total.
  void progress(int done, int total);
  void failed(const QString& message);
  void idle();

 private:
  // Renders `tiles` with `method`; progress is reported for the final one.
  void render(const std::shared_ptr<const ResampleEngine>& engine, const PreviewSettings& settings,
              ResampleMethod method, const std::vector<preview::PixelRect>& tiles,
              uint64_t generation, const std::atomic<bool>* stopNetwork);
  // GUI thread: the flag that stops the network run `settings` needs,
  // raising the one of a run it does not need.
  std::shared_ptr<std::atomic<bool>> networkFlagFor(const ResampleEngine* engine,
                                                    const PreviewSettings& settings);
  void post(SerialWorker& worker, std::function<void()> task);
  void deliver(PreviewTile tile);

  std::atomic<uint64_t> m_generation{0};
  // The estimate the slow lane is (or was last) asked for, and its stop flag.
  const ResampleEngine* m_networkEngine = nullptr;
  ResampleTarget m_networkTarget;
  std::shared_ptr<std::atomic<bool>> m_stopNetwork;
  std::atomic<int> m_busy{0};
  std::mutex m_lock;
  std::vector<PreviewTile> m_done;
  std::unique_ptr<SerialWorker> m_fast;
  std::unique_ptr<SerialWorker> m_slow;
};

}  // namespace tarnbloom::app
