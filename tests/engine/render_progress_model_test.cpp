#include <gtest/gtest.h>

#include <cmath>

#include "engine/render_progress_model.h"

namespace tarnbloom {
namespace {

using Model = RenderProgressModel;
using Kind = Model::StripState::Kind;

TEST(RenderProgress, GatesLingersAndFades) {
  Model quick;
  quick.begin(10.0);
  quick.update(1, 2, 10.1);
  EXPECT_EQ(quick.stripState(10.2, false).kind, Kind::hidden);
  quick.finish(10.25);
  EXPECT_FALSE(quick.stripWasShown());
  EXPECT_EQ(quick.stripState(10.3, false).kind, Kind::hidden) << "a quick render never shows, not even done";

  Model slow;
  slow.begin(0.0);
  EXPECT_EQ(slow.stripState(0.29, false).kind, Kind::hidden);
  EXPECT_EQ(slow.stripState(0.3, false).kind, Kind::running);
  slow.finish(5.0);
  EXPECT_EQ(slow.stripState(6.9, false), (Model::StripState{Kind::done, 1.0}));
  const auto fading = slow.stripState(7.15, false);
  EXPECT_EQ(fading.kind, Kind::done);
  EXPECT_NEAR(fading.opacity, 0.5, 1e-9);
  EXPECT_EQ(slow.stripState(7.3, false).kind, Kind::hidden);
  EXPECT_EQ(slow.stripState(7.0, true).kind, Kind::hidden) << "reduce motion: gone at 2.0 s, no fade";
  EXPECT_EQ(slow.stripState(6.99, true).kind, Kind::done);

  Model skipped;
  skipped.begin(0.0, true);
  EXPECT_EQ(skipped.stripState(0.0, false).kind, Kind::running);
  skipped.cancel(1.0);
  EXPECT_EQ(skipped.stripState(9.0, false).kind, Kind::cancelled);
  EXPECT_EQ(skipped.generation, 1);
  skipped.begin(10.0);
  EXPECT_EQ(skipped.generation, 2);
}

TEST(RenderProgress, NeverGoesBackAndStopsShortOfDone) {
  Model m;
  m.update(1, 2, 1.0);
  EXPECT_EQ(m.fraction, 0.0) << "ignored unless running";
  m.begin(0.0);
  m.update(6, 10, 1.0);
  m.update(3, 10, 2.0);
  EXPECT_EQ(m.doneUnits, 6);
  EXPECT_DOUBLE_EQ(m.fraction, 0.6);
  m.update(10, 10, 3.0);
  EXPECT_DOUBLE_EQ(m.fraction, 0.999);
  EXPECT_EQ(Model::percent(m.fraction), 99);
  m.finish(4.0);
  EXPECT_EQ(Model::percent(m.fraction), 100);
  m.cancel(5.0);
  EXPECT_EQ(m.phase, Model::Phase::finished) << "cancel only from running";
}

TEST(RenderProgress, EstimatesOnlyOnceThereIsEvidence) {
  Model m;
  m.begin(0.0);
  m.update(1, 10, 1.0);  // first sample: 1 unit/s
  EXPECT_FALSE(m.eta(1.0)) << "one unit and under 1.5 s";
  EXPECT_EQ(Model::progressLine(m.fraction, m.eta(1.0)), "10 % · Estimating…");
  EXPECT_TRUE(m.eta(1.5));
  m.update(3, 10, 2.0);  // 2 units/s, smoothed: 0.3 × 2 + 0.7 × 1 = 1.3
  EXPECT_NEAR(m.rate, 1.3, 1e-9);
  ASSERT_TRUE(m.eta(2.0));
  EXPECT_NEAR(*m.eta(2.0), 7 / 1.3, 1e-9);
  EXPECT_EQ(Model::progressLine(0.3, 5.4), "30 % · about 5 s left");
}

TEST(RenderProgress, WordsTimesAsPeopleRoundThem) {
  EXPECT_EQ(Model::etaText(2.9), "a few seconds");
  EXPECT_EQ(Model::etaText(-1), "a few seconds");
  EXPECT_EQ(Model::etaText(3), "about 5 s");
  EXPECT_EQ(Model::etaText(12.5), "about 15 s");
  EXPECT_EQ(Model::etaText(57.4), "about 55 s");
  EXPECT_EQ(Model::etaText(57.5), "about 1 min");
  EXPECT_EQ(Model::etaText(89 * 60), "about 89 min");
  EXPECT_EQ(Model::etaText(89.5 * 60), "about 2 h");
  EXPECT_EQ(Model::etaText(150 * 60), "about 3 h");
  EXPECT_NEAR(Model::smoothed(0.2, 0.6, 0.1, 10), 0.2 + 0.4 * (1 - std::exp(-1.0)), 1e-12);
  EXPECT_EQ(Model::smoothed(0.7, 0.6, 0.1, 10), 0.7);
  EXPECT_EQ(Model::renderingTitle(ResampleMethod::estimate, "4×", true), "Rendering Enhance (AI) preview · 4×");
}

}  // namespace
}  // namespace tarnbloom
