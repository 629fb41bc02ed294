#pragma once

#include <cstdint>
#include <vector>

namespace tarnbloom::preview {

struct ViewPoint {
  double x = 0, y = 0;
};

// Whole pixels of an image (the output of the current settings).
struct PixelRect {
  int64_t x = 0, y = 0, width = 0, height = 0;
  bool empty() const { return width <= 0 || height <= 0; }
  int64_t area() const { return empty() ? 0 : width * height; }
  bool operator==(const PixelRect&) const = default;
};

PixelRect intersected(const PixelRect& a, const PixelRect& b);

// Where an image sits in a viewport. Coordinates are device pixels, so a
// zoom of 1 shows one image pixel per screen pixel whatever the scaling.
// Fit is a mode: it follows the viewport and the image size. The state is
// the zoom and the image point at the viewport's centre; every change is
// clamped so the image never drifts off screen and a smaller image stays
// centred.
class ViewGeometry {
 public:
  static constexpr double kMinZoom = 1.0 / 64;
  static constexpr double kMaxZoom = 32;
  static constexpr double kWheelStep = 1.25;

  void setImageSize(int64_t width, int64_t height);
  void setViewportSize(double width, double height);

  int64_t imageWidth() const { return m_imageWidth; }
  int64_t imageHeight() const { return m_imageHeight; }
  double viewportWidth() const { return m_viewWidth; }
  double viewportHeight() const { return m_viewHeight; }

  bool fits() const { return m_fit; }
  // The whole image in the viewport, never enlarged past 100 %.
  void setFit();
  double fitZoom() const;
  double zoom() const { return m_fit ? fitZoom() : m_zoom; }
  // Keeps the image point under `anchor` (viewport pixels) where it is.
  void setZoom(double zoom, ViewPoint anchor);
  void setZoom(double zoom) { setZoom(zoom, {m_viewWidth / 2, m_viewHeight / 2}); }
  // The next step of the ladder (fit, then powers of two) from here.
  double zoomStep(int direction) const;

  // Image coordinates at the viewport's centre.
  ViewPoint centre() const;
  void setCentre(ViewPoint imagePoint);
  void panBy(double dx, double dy);

  ViewPoint viewToImage(ViewPoint p) const;
  ViewPoint imageToView(ViewPoint p) const;
  // Top-left of the image in the viewport; whole device pixels at or above
  // 100 %, so magnified pixels keep their edges.
  ViewPoint origin() const;

  // The image pixels the viewport shows, clipped to the image.
  PixelRect visibleRect() const;

 private:
  void clamp();

  int64_t m_imageWidth = 0, m_imageHeight = 0;
  double m_viewWidth = 1, m_viewHeight = 1;
  bool m_fit = true;
  double m_zoom = 1;
  ViewPoint m_centre;
};

// The cells of a fixed grid of `tile` pixels that meet `rect`, clipped to
// the image of width × height, the ones nearest the rect's centre first:
// the middle of the view fills in before its edges.
std::vector<PixelRect> tilesCovering(const PixelRect& rect, int64_t tile, int64_t width,
                                     int64_t height);

}  // namespace tarnbloom::preview
