#include <gtest/gtest.h>

#include <cmath>
#include <set>

#include "preview/view_geometry.h"

namespace tarnbloom::preview {
namespace {

TEST(ViewGeometry, FitFollowsTheViewportAndNeverEnlarges) {
  ViewGeometry g;
  g.setViewportSize(1600, 1000);
  g.setImageSize(8000, 4000);
  EXPECT_TRUE(g.fits());
  EXPECT_DOUBLE_EQ(g.zoom(), 0.2);
  EXPECT_EQ(g.visibleRect(), (PixelRect{0, 0, 8000, 4000}));
  g.setViewportSize(800, 1000);
  EXPECT_DOUBLE_EQ(g.zoom(), 0.1) << "fit is a mode, recomputed on resize";

  g.setImageSize(400, 300);  // smaller than the view: shown at 100 %, centred
  EXPECT_DOUBLE_EQ(g.zoom(), 1.0);
  EXPECT_DOUBLE_EQ(g.origin().x, 200);
  EXPECT_DOUBLE_EQ(g.origin().y, 350);
}

TEST(ViewGeometry, ZoomKeepsThePointUnderTheCursorAndStaysOnTheImage) {
  ViewGeometry g;
  g.setViewportSize(1600, 1000);
  g.setImageSize(6000, 4000);
  for (const ViewPoint anchor : {ViewPoint{800, 500}, ViewPoint{300, 200}, ViewPoint{1500, 900}}) {
    g.setFit();
    g.setZoom(0.5, {800, 500});
    const ViewPoint before = g.viewToImage(anchor);
    g.setZoom(2.0, anchor);
    const ViewPoint after = g.imageToView(before);
    // Whole-pixel origins at 100 % and above move a point by under a pixel.
    EXPECT_NEAR(after.x, anchor.x, 1.0);
    EXPECT_NEAR(after.y, anchor.y, 1.0);
  }
  // Panning far past an edge stops at the edge.
  g.setZoom(1.0);
  g.panBy(1e7, -1e7);
  EXPECT_EQ(g.visibleRect(), (PixelRect{0, 3000, 1600, 1000}));
  EXPECT_DOUBLE_EQ(g.origin().x, 0);
  // An image narrower than the view at this zoom is centred on that axis.
  g.setZoom(0.2);
  EXPECT_DOUBLE_EQ(g.centre().x, 3000);
}

TEST(ViewGeometry, MagnifiedPixelsStartOnWholeDevicePixels) {
  ViewGeometry g;
  g.setViewportSize(1001, 777);
  g.setImageSize(5000, 3000);
  g.setCentre({1234.37, 987.61});
  for (double z : {1.0, 2.0, 4.0}) {
    g.setZoom(z);
    EXPECT_DOUBLE_EQ(g.origin().x, std::round(g.origin().x)) << z;
    EXPECT_DOUBLE_EQ(g.origin().y, std::round(g.origin().y)) << z;
  }
}

TEST(ViewGeometry, TheLadderHoldsFitAndActualSize) {
  ViewGeometry g;
  g.setViewportSize(1000, 1000);
  g.setImageSize(3000, 3000);
  const double fit = g.fitZoom();
  g.setZoom(0.25);
  EXPECT_DOUBLE_EQ(g.zoomStep(1), fit);
  g.setZoom(fit);
  EXPECT_DOUBLE_EQ(g.zoomStep(1), 0.5);
  g.setZoom(0.5);
  EXPECT_DOUBLE_EQ(g.zoomStep(1), 1.0);
  EXPECT_DOUBLE_EQ(g.zoomStep(-1), fit);
}

TEST(TilesCovering, CoverTheRectOnceOnAFixedGridMiddleFirst) {
  const PixelRect rect{100, 50, 700, 500};
  const auto tiles = tilesCovering(rect, 256, 1000, 520);
  std::set<std::pair<int64_t, int64_t>> seen;
  int64_t covered = 0;
  for (const auto& t : tiles) {
    EXPECT_EQ(t.x % 256, 0);
    EXPECT_EQ(t.y % 256, 0);
    EXPECT_LE(t.x + t.width, 1000);
    EXPECT_LE(t.y + t.height, 520) << "clipped to the image";
    EXPECT_TRUE(seen.insert({t.x, t.y}).second) << "no tile twice";
    covered += intersected(t, rect).area();
  }
  EXPECT_EQ(covered, intersected(rect, {0, 0, 1000, 520}).area());
  // The tile holding the rect's centre (450, 285) comes first.
  EXPECT_EQ(tiles.front(), (PixelRect{256, 256, 256, 256}));
  EXPECT_TRUE(tilesCovering({2000, 0, 10, 10}, 256, 1000, 520).empty());
}

}  // namespace
}  // namespace tarnbloom::preview
