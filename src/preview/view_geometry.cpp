#include "preview/view_geometry.h"

#include <algorithm>
#include <cmath>

namespace tarnbloom::preview {

PixelRect intersected(const PixelRect& a, const PixelRect& b) {
  const int64_t x0 = std::max(a.x, b.x), y0 = std::max(a.y, b.y);
  const int64_t x1 = std::min(a.x + a.width, b.x + b.width);
  const int64_t y1 = std::min(a.y + a.height, b.y + b.height);
  if (x1 <= x0 || y1 <= y0) return {};
  return {x0, y0, x1 - x0, y1 - y0};
}

void ViewGeometry::setImageSize(int64_t width, int64_t height) {
  const bool first = m_imageWidth == 0;
  // Keep looking at the same part of the picture when only its size changes
  // (a new scale factor): the centre moves with the image.
  if (!first && width > 0 && height > 0) {
    m_centre.x *= static_cast<double>(width) / static_cast<double>(m_imageWidth);
    m_centre.y *= static_cast<double>(height) / static_cast<double>(m_imageHeight);
  } else {
    m_centre = {width / 2.0, height / 2.0};
  }
  m_imageWidth = std::max<int64_t>(0, width);
  m_imageHeight = std::max<int64_t>(0, height);
  clamp();
}

void ViewGeometry::setViewportSize(double width, double height) {
  m_viewWidth = std::max(1.0, width);
  m_viewHeight = std::max(1.0, height);
  clamp();
}

void ViewGeometry::setFit() {
  m_fit = true;
  clamp();
}

double ViewGeometry::fitZoom() const {
  if (m_imageWidth <= 0 || m_imageHeight <= 0) return 1;
  const double z = std::min(m_viewWidth / static_cast<double>(m_imageWidth),
                            m_viewHeight / static_cast<double>(m_imageHeight));
  return std::clamp(z, kMinZoom, 1.0);
}

void ViewGeometry::setZoom(double zoom, ViewPoint anchor) {
  if (!std::isfinite(zoom)) return;
  const ViewPoint fixed = viewToImage(anchor);
  m_zoom = std::clamp(zoom, kMinZoom, kMaxZoom);
  m_fit = false;
  // Solve for the centre that puts `fixed` back under the anchor.
  m_centre.x = fixed.x - (anchor.x - m_viewWidth / 2) / m_zoom;
  m_centre.y = fixed.y - (anchor.y - m_viewHeight / 2) / m_zoom;
  clamp();
}

double ViewGeometry::zoomStep(int direction) const {
  const double current = zoom();
  const double fit = fitZoom();
  std::vector<double> ladder = {fit};
  for (double z = 1.0 / 16; z <= kMaxZoom; z *= 2) ladder.push_back(z);
  std::sort(ladder.begin(), ladder.end());
  // A step is only a step when it changes the zoom by more than rounding.
  if (direction > 0) {
    for (double z : ladder)
      if (z > current * 1.001) return z;
    return kMaxZoom;
  }
  for (auto it = ladder.rbegin(); it != ladder.rend(); ++it)
    if (*it < current / 1.001) return *it;
  return ladder.front();
}

ViewPoint ViewGeometry::centre() const {
  return m_fit ? ViewPoint{m_imageWidth / 2.0, m_imageHeight / 2.0} : m_centre;
}

void ViewGeometry::setCentre(ViewPoint imagePoint) {
  if (m_fit) m_zoom = fitZoom();
  m_fit = false;
  m_centre = imagePoint;
  clamp();
}

void ViewGeometry::panBy(double dx, double dy) {
  const double z = zoom();
  setCentre({centre().x - dx / z, centre().y - dy / z});
}

ViewPoint ViewGeometry::origin() const {
  const double z = zoom();
  const ViewPoint c = centre();
  ViewPoint o{m_viewWidth / 2 - c.x * z, m_viewHeight / 2 - c.y * z};
  if (z >= 1) o = {std::round(o.x), std::round(o.y)};
  return o;
}

ViewPoint ViewGeometry::viewToImage(ViewPoint p) const {
  const ViewPoint o = origin();
  const double z = zoom();
  return {(p.x - o.x) / z, (p.y - o.y) / z};
}

ViewPoint ViewGeometry::imageToView(ViewPoint p) const {
  const ViewPoint o = origin();
  const double z = zoom();
  return {o.x + p.x * z, o.y + p.y * z};
}

PixelRect ViewGeometry::visibleRect() const {
  const ViewPoint a = viewToImage({0, 0});
  const ViewPoint b = viewToImage({m_viewWidth, m_viewHeight});
  const int64_t x0 = static_cast<int64_t>(std::floor(a.x)), y0 = static_cast<int64_t>(std::floor(a.y));
  const int64_t x1 = static_cast<int64_t>(std::ceil(b.x)), y1 = static_cast<int64_t>(std::ceil(b.y));
  return intersected({x0, y0, x1 - x0, y1 - y0}, {0, 0, m_imageWidth, m_imageHeight});
}

void ViewGeometry::clamp() {
  if (m_fit) return;
  const double z = m_zoom;
  const auto axis = [z](double& c, double length, double view) {
    const double half = view / (2 * z);
    if (length * z <= view)
      c = length / 2;
    else
      c = std::clamp(c, half, length - half);
  };
  axis(m_centre.x, static_cast<double>(m_imageWidth), m_viewWidth);
  axis(m_centre.y, static_cast<double>(m_imageHeight), m_viewHeight);
}

std::vector<PixelRect> tilesCovering(const PixelRect& rect, int64_t tile, int64_t width,
                                     int64_t height) {
  std::vector<PixelRect> tiles;
  const PixelRect area = intersected(rect, {0, 0, width, height});
  if (area.empty() || tile <= 0) return tiles;
  for (int64_t ty = area.y / tile; ty * tile < area.y + area.height; ++ty)
    for (int64_t tx = area.x / tile; tx * tile < area.x + area.width; ++tx)
      tiles.push_back(intersected({tx * tile, ty * tile, tile, tile}, {0, 0, width, height}));
  const double cx = area.x + area.width / 2.0, cy = area.y + area.height / 2.0;
  const auto distance = [&](const PixelRect& r) {
    const double dx = r.x + r.width / 2.0 - cx, dy = r.y + r.height / 2.0 - cy;
    return dx * dx + dy * dy;
  };
  std::stable_sort(tiles.begin(), tiles.end(),
                   [&](const PixelRect& a, const PixelRect& b) { return distance(a) < distance(b); });
  return tiles;
}

}  // namespace tarnbloom::preview
