#pragma once

#include <map>
#include <memory>
#include <optional>

#include <QPointer>
#include <QTimer>
#include <QWidget>

#include "app/preview_renderer.h"
#include "preview/view_geometry.h"

namespace tarnbloom::app {

class PhotoDocument;

// The original against the result of the current settings, in output
// pixels: a split with a draggable divider, or side by side with one zoom
// and pan for both; holding Space shows the original alone. Only the
// visible tiles are rendered, by the export's own renderer, and at 100 %
// and above every pixel is drawn as a square with no smoothing.
class CompareView : public QWidget {
  Q_OBJECT

 public:
  enum class Mode { split, sideBySide };
  // Above this many output pixels in view the result is not rendered (the
  // fitted view of a large enlargement); the original stands in.
  static constexpr int64_t kRenderBudget = 16'000'000;
  static constexpr int64_t kTile = 256;

  explicit CompareView(QWidget* parent = nullptr);

  // The document and what its pixels should look like; null: nothing.
  void setContent(PhotoDocument* document, std::optional<PreviewSettings> settings);
  const std::optional<PreviewSettings>& settings() const { return m_settings; }

  Mode mode() const { return m_mode; }
  void setMode(Mode mode);
  double dividerFraction() const { return m_divider; }
  void setDividerFraction(double fraction);
  bool showsOriginal() const { return m_showOriginal; }
  void setShowOriginal(bool original);

  preview::ViewGeometry& geometry() { return m_geometry; }
  void zoomToFit();
  void zoomTo(double zoom);
  void zoomStep(int direction);
  // Whether every visible tile holds the final method's pixels.
  bool complete() const;
  // The result's pixels as drawn for `rect` (tests: preview against export).
  QImage resultPixels(const preview::PixelRect& rect) const;
  PreviewRenderer& renderer() { return m_renderer; }

 Q_SIGNALS:
  void zoomChanged(double zoom, bool fit);
  // Rendering the slow method: done of total tiles, or (0, 0) while the
  // engine runs the network before any tile.
  void renderProgress(int done, int total, bool running);
  void renderFailed(const QString& message);

 protected:
  void paintEvent(QPaintEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;
  void wheelEvent(QWheelEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void keyPressEvent(QKeyEvent* event) override;
  void keyReleaseEvent(QKeyEvent* event) override;
  void focusOutEvent(QFocusEvent* event) override;

 private:
  struct CachedTile {
    PreviewSettings settings;
    ResampleMethod method = ResampleMethod::exact;
    QImage image;
  };

  // The panes in widget coordinates: one, or two side by side.
  QRect paneRect(int pane) const;
  void updateViewport();
  void scheduleRender();
  void requestTiles();
  void takeTiles();
  void paintPane(QPainter& painter, const QRect& pane, bool original, std::optional<double> splitX);
  void notifyZoom();
  bool nearDivider(const QPoint& p) const;

  QPointer<PhotoDocument> m_document;
  std::optional<PreviewSettings> m_settings;
  preview::ViewGeometry m_geometry;
  Mode m_mode = Mode::split;
  double m_divider = 0.5;
  bool m_showOriginal = false;
  bool m_draggingDivider = false;
  std::optional<QPointF> m_panFrom;
  std::map<std::pair<int64_t, int64_t>, CachedTile> m_tiles;
  PreviewRenderer m_renderer;
  QTimer m_renderTimer;
  QString m_failure;
};

}  // namespace tarnbloom::app
