#include "app/compare_view.h"

#include <algorithm>
#include <cmath>

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QWheelEvent>

#include "app/photo_document.h"

namespace tarnbloom::app {

using preview::PixelRect;

namespace {

constexpr int kDividerGrab = 8;  // logical pixels either side of the divider

}  // namespace

CompareView::CompareView(QWidget* parent) : QWidget(parent) {
  setAccessibleName(QStringLiteral("Compare view"));
  setFocusPolicy(Qt::StrongFocus);
  setMouseTracking(true);
  setMinimumSize(200, 150);
  setAttribute(Qt::WA_OpaquePaintEvent);
  // Bursts of changes (a slider drag, a resize) restart rendering at a
  // bounded rate rather than once per event.
  m_renderTimer.setSingleShot(true);
  m_renderTimer.setInterval(15);
  connect(&m_renderTimer, &QTimer::timeout, this, &CompareView::requestTiles);
  connect(&m_renderer, &PreviewRenderer::tilesReady, this, &CompareView::takeTiles);
  connect(&m_renderer, &PreviewRenderer::progress, this,
          [this](int done, int total) { Q_EMIT renderProgress(done, total, done < total); });
  connect(&m_renderer, &PreviewRenderer::idle, this, [this] {
    takeTiles();
    Q_EMIT renderProgress(0, 0, false);
  });
  connect(&m_renderer, &PreviewRenderer::failed, this, [this](const QString& message) {
    m_failure = message;
    Q_EMIT renderFailed(message);
    update();
  });
}

void CompareView::setContent(PhotoDocument* document, std::optional<PreviewSettings> settings) {
  const bool newDocument = document != m_document.data();
  const bool newSize = !settings || !m_settings || settings->target != m_settings->target;
  if (newDocument || newSize || !document || document->state() != PhotoDocument::State::loaded)
    m_tiles.clear();
  if (newDocument) m_geometry = preview::ViewGeometry();
  m_document = document;
  m_settings = settings;
  m_failure.clear();
  // A refused size still shows the photo itself, at its own size.
  if (settings)
    m_geometry.setImageSize(settings->target.width, settings->target.height);
  else if (document && document->state() == PhotoDocument::State::loaded)
    m_geometry.setImageSize(document->uprightWidth(), document->uprightHeight());
  updateViewport();
  if (!settings) m_renderer.cancel();
  scheduleRender();
  notifyZoom();
  update();
}

void CompareView::setMode(Mode mode) {
  if (mode == m_mode) return;
  m_mode = mode;
  updateViewport();
  scheduleRender();
  update();
}

void CompareView::setDividerFraction(double fraction) {
  m_divider = std::clamp(fraction, 0.0, 1.0);
  update();
}

void CompareView::setShowOriginal(bool original) {
  if (original == m_showOriginal) return;
  m_showOriginal = original;
  update();
}

void CompareView::zoomToFit() {
  m_geometry.setFit();
  scheduleRender();
  notifyZoom();
  update();
}

void CompareView::zoomTo(double zoom) {
  m_geometry.setZoom(zoom);
  scheduleRender();
  notifyZoom();
  update();
}

void CompareView::zoomStep(int direction) { zoomTo(m_geometry.zoomStep(direction)); }

void CompareView::notifyZoom() { Q_EMIT zoomChanged(m_geometry.zoom(), m_geometry.fits()); }

QRect CompareView::paneRect(int pane) const {
  if (m_mode == Mode::split) return rect();
  const int half = width() / 2;
  return pane == 0 ? QRect(0, 0, half, height()) : QRect(half + 1, 0, width() - half - 1, height());
}

void CompareView::updateViewport() {
  const double dpr = devicePixelRatioF();
  const QRect pane = paneRect(m_mode == Mode::split ? 0 : 1);
  m_geometry.setViewportSize(pane.width() * dpr, pane.height() * dpr);
}

void CompareView::resizeEvent(QResizeEvent*) {
  updateViewport();
  scheduleRender();
  notifyZoom();
}

void CompareView::scheduleRender() {
  if (!m_renderTimer.isActive()) m_renderTimer.start();
}

void CompareView::requestTiles() {
  if (!m_document || !m_settings || m_document->state() != PhotoDocument::State::loaded) return;
  const auto engine = m_document->engine();
  if (!engine) return;
  const PixelRect visible = m_geometry.visibleRect();
  if (visible.area() > kRenderBudget) {
    m_renderer.cancel();
    Q_EMIT renderProgress(0, 0, false);
    update();
    return;
  }
  // A margin of half a tile, so small pans show finished pixels.
  const PixelRect wanted{visible.x - kTile / 2, visible.y - kTile / 2, visible.width + kTile,
                         visible.height + kTile};
  std::vector<PixelRect> need, exactFirst;
  for (const PixelRect& tile :
       preview::tilesCovering(wanted, kTile, m_settings->target.width, m_settings->target.height)) {
    const auto found = m_tiles.find({tile.x, tile.y});
    if (found != m_tiles.end() && found->second.settings == *m_settings &&
        found->second.method == m_settings->method)
      continue;
    need.push_back(tile);
    // Only tiles showing nothing yet get the quick pass; a tile of other
    // settings stays on screen until its replacement arrives.
    if (found == m_tiles.end() && m_settings->method != ResampleMethod::exact)
      exactFirst.push_back(tile);
  }
  // Drop tiles far from the view so panning a large output keeps memory flat.
  const PixelRect keep{visible.x - visible.width, visible.y - visible.height, visible.width * 3,
                       visible.height * 3};
  std::erase_if(m_tiles, [&](const auto& entry) {
    return preview::intersected({entry.first.first, entry.first.second, kTile, kTile}, keep).empty();
  });
  // The status follows the latest request: an Exact view needs none, even
  // while an older Enhance network run finishes behind it.
  const bool slow = !need.empty() && m_settings->method != ResampleMethod::exact;
  Q_EMIT renderProgress(0, static_cast<int>(need.size()), slow);
  if (need.empty()) return;
  m_failure.clear();
  m_renderer.request(engine, *m_settings, std::move(need), std::move(exactFirst));
}

void CompareView::takeTiles() {
  bool changed = false;
  for (auto& tile : m_renderer.takeTiles()) {
    if (!m_settings || tile.settings != *m_settings) continue;
    auto& slot = m_tiles[{tile.rect.x, tile.rect.y}];
    // The quick Exact pass runs beside the slow method: it never covers a
    // finished tile of the method asked for.
    if (tile.method != m_settings->method && slot.settings == *m_settings &&
        slot.method == m_settings->method && !slot.image.isNull())
      continue;
    slot = {tile.settings, tile.method, std::move(tile.image)};
    changed = true;
  }
  if (changed) update();
}

bool CompareView::complete() const {
  if (!m_settings) return false;
  const PixelRect visible = m_geometry.visibleRect();
  if (visible.area() > kRenderBudget) return false;
  for (const PixelRect& tile :
       preview::tilesCovering(visible, kTile, m_settings->target.width, m_settings->target.height)) {
    const auto found = m_tiles.find({tile.x, tile.y});
    if (found == m_tiles.end() || !(found->second.settings == *m_settings) ||
        found->second.method != m_settings->method)
      return false;
  }
  return true;
}

QImage CompareView::resultPixels(const PixelRect& rect) const {
  QImage out(static_cast<int>(rect.width), static_cast<int>(rect.height), QImage::Format_RGBA8888);
  out.fill(Qt::transparent);
  QPainter painter(&out);
  painter.setCompositionMode(QPainter::CompositionMode_Source);
  for (const auto& [key, tile] : m_tiles)
    painter.drawImage(QPoint(static_cast<int>(key.first - rect.x), static_cast<int>(key.second - rect.y)),
                      tile.image.convertToFormat(QImage::Format_RGBA8888));
  return out;
}

void CompareView::paintPane(QPainter& painter, const QRect& pane, bool original,
                            std::optional<double> splitX) {
  const double dpr = devicePixelRatioF();
  const double z = m_geometry.zoom();
  const preview::ViewPoint o = m_geometry.origin();
  const QRectF imageRect(0, 0, static_cast<double>(m_geometry.imageWidth()),
                         static_cast<double>(m_geometry.imageHeight()));
  const bool tooLarge = m_geometry.visibleRect().area() > kRenderBudget;

  const auto draw = [&](bool asOriginal, const QRect& clip) {
    painter.save();
    painter.setClipRect(clip);
    painter.translate(pane.topLeft());
    painter.setTransform(QTransform(z / dpr, 0, 0, z / dpr, o.x / dpr, o.y / dpr), true);
    // Below 100 % the picture is reduced and smoothing is honest; at or
    // above it every pixel must stay a sharp square.
    painter.setRenderHint(QPainter::SmoothPixmapTransform, z < 1);
    painter.drawImage(imageRect, m_document->original());
    if (!asOriginal && !tooLarge)
      for (const auto& [key, tile] : m_tiles)
        painter.drawImage(QRectF(static_cast<double>(key.first), static_cast<double>(key.second),
                                 tile.image.width(), tile.image.height()),
                          tile.image);
    painter.restore();
  };

  if (splitX) {
    const int x = static_cast<int>(std::round(*splitX));
    draw(true, QRect(pane.left(), pane.top(), x - pane.left(), pane.height()));
    draw(m_showOriginal, QRect(x, pane.top(), pane.right() - x + 1, pane.height()));
  } else {
    draw(original, pane);
  }
}

void CompareView::paintEvent(QPaintEvent*) {
  QPainter painter(this);
  painter.fillRect(rect(), palette().color(QPalette::Window).darker(115));
  if (!m_document || m_document->state() != PhotoDocument::State::loaded) return;
  if (!m_settings) {
    paintPane(painter, rect(), true, std::nullopt);
    return;
  }

  const auto label = [&](const QRect& pane, const QString& text, bool right) {
    const QFontMetrics metrics(font());
    QRect box = metrics.boundingRect(text).adjusted(-8, -4, 8, 4);
    box.moveTop(pane.top() + 10);
    if (right)
      box.moveRight(pane.right() - 10);
    else
      box.moveLeft(pane.left() + 10);
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 150));
    painter.drawRoundedRect(box, 6, 6);
    painter.setPen(Qt::white);
    painter.drawText(box, Qt::AlignCenter, text);
    painter.restore();
  };
  const QString resultTitle =
      m_showOriginal ? QStringLiteral("Original")
                     : QString::fromUtf8(std::string(title(m_settings->method)).c_str());

  if (m_mode == Mode::split) {
    const QRect pane = paneRect(0);
    const double x = pane.left() + m_divider * pane.width();
    paintPane(painter, pane, false, x);
    painter.save();
    painter.setPen(QPen(QColor(255, 255, 255, 220), 2));
    painter.drawLine(QPointF(x, pane.top()), QPointF(x, pane.bottom()));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(QColor(255, 255, 255, 230));
    painter.setPen(QPen(QColor(0, 0, 0, 120), 1));
    painter.drawEllipse(QPointF(x, pane.center().y()), 9, 9);
    painter.restore();
    label(pane, QStringLiteral("Original"), false);
    label(pane, resultTitle, true);
  } else {
    paintPane(painter, paneRect(0), true, std::nullopt);
    paintPane(painter, paneRect(1), m_showOriginal, std::nullopt);
    painter.fillRect(QRect(paneRect(0).right() + 1, 0, 1, height()), palette().color(QPalette::Mid));
    label(paneRect(0), QStringLiteral("Original"), false);
    label(paneRect(1), resultTitle, true);
  }

  QString note = m_failure;
  if (note.isEmpty() && m_geometry.visibleRect().area() > kRenderBudget)
    note = QStringLiteral("The result is shown from 100 % (Ctrl+1) or when less of it is in view.");
  if (!note.isEmpty()) {
    const QFontMetrics metrics(font());
    QRect box = metrics.boundingRect(QRect(0, 0, std::min(560, width() - 40), 400),
                                     Qt::TextWordWrap | Qt::AlignCenter, note)
                    .adjusted(-12, -8, 12, 8);
    box.moveCenter(QPoint(width() / 2, height() - box.height() / 2 - 16));
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0, 0, 0, 170));
    painter.drawRoundedRect(box, 8, 8);
    painter.setPen(Qt::white);
    painter.drawText(box, Qt::TextWordWrap | Qt::AlignCenter, note);
  }
}

void CompareView::wheelEvent(QWheelEvent* event) {
  const double steps = event->angleDelta().y() / 120.0;
  if (steps == 0) return;
  const int pane = m_mode == Mode::sideBySide && event->position().x() > width() / 2 ? 1 : 0;
  const QPointF local = event->position() - QPointF(paneRect(pane).topLeft());
  const double dpr = devicePixelRatioF();
  m_geometry.setZoom(m_geometry.zoom() * std::pow(preview::ViewGeometry::kWheelStep, steps),
                     {local.x() * dpr, local.y() * dpr});
  scheduleRender();
  notifyZoom();
  update();
  event->accept();
}

bool CompareView::nearDivider(const QPoint& p) const {
  if (m_mode != Mode::split) return false;
  const double x = m_divider * width();
  return std::abs(p.x() - x) <= kDividerGrab;
}

void CompareView::mousePressEvent(QMouseEvent* event) {
  if (event->button() != Qt::LeftButton) return;
  setFocus(Qt::MouseFocusReason);
  if (nearDivider(event->position().toPoint())) {
    m_draggingDivider = true;
  } else {
    m_panFrom = event->position();
    setCursor(Qt::ClosedHandCursor);
  }
}

void CompareView::mouseMoveEvent(QMouseEvent* event) {
  if (m_draggingDivider) {
    setDividerFraction(event->position().x() / std::max(1, width()));
    return;
  }
  if (m_panFrom) {
    const QPointF delta = event->position() - *m_panFrom;
    m_panFrom = event->position();
    const double dpr = devicePixelRatioF();
    m_geometry.panBy(delta.x() * dpr, delta.y() * dpr);
    scheduleRender();
    notifyZoom();
    update();
    return;
  }
  setCursor(nearDivider(event->position().toPoint()) ? Qt::SplitHCursor : Qt::OpenHandCursor);
}

void CompareView::mouseReleaseEvent(QMouseEvent*) {
  m_draggingDivider = false;
  m_panFrom.reset();
  setCursor(Qt::OpenHandCursor);
}

void CompareView::keyPressEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Space) {
    if (!event->isAutoRepeat()) setShowOriginal(true);
    return;
  }
  QWidget::keyPressEvent(event);
}

void CompareView::keyReleaseEvent(QKeyEvent* event) {
  if (event->key() == Qt::Key_Space) {
    if (!event->isAutoRepeat()) setShowOriginal(false);
    return;
  }
  QWidget::keyReleaseEvent(event);
}

void CompareView::focusOutEvent(QFocusEvent* event) {
  // A Space released elsewhere must not leave the original showing.
  setShowOriginal(false);
  QWidget::focusOutEvent(event);
}

}  // namespace tarnbloom::app
