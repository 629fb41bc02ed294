#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "engine/resample_method.h"

namespace tarnbloom {

// Seconds on a monotonic clock; injected so the model can be driven in tests.
using RenderClock = std::function<double()>;
RenderClock monotonicRenderClock();

// Turns the engine's (done, total) progress into what the progress strip
// shows: a fraction that never goes back, a smoothed ETA, and a strip shown
// only for renders that last, lingering when done and then fading.
struct RenderProgressModel {
  enum class Phase { idle, running, cancelled, finished };

  struct StripState {
    enum class Kind { hidden, running, cancelled, done };
    Kind kind = Kind::hidden;
    double opacity = 0;  // for done
    bool operator==(const StripState&) const = default;
  };

  static constexpr double gateDelay = 0.3;
  static constexpr double doneLinger = 2.0;
  static constexpr double doneFade = 0.3;
  static constexpr double etaMinUnits = 2.0;
  static constexpr double etaMinSeconds = 1.5;
  static constexpr double ewmaAlpha = 0.3;

  Phase phase = Phase::idle;
  int64_t generation = 0;
  double startTime = 0;
  double endTime = 0;
  double doneUnits = 0;
  double totalUnits = 0;
  double fraction = 0;
  double rate = 0;
  bool firstSample = true;
  double gate = gateDelay;
  double lastSampleTime = 0;
  double lastSampleUnits = 0;

  void begin(double now, bool skipGate = false);
  void update(double done, double total, double now);
  void finish(double now);
  void cancel(double now);
  void reset();

  bool isGatePassed(double now) const;
  bool stripWasShown() const;
  StripState stripState(double now, bool reduceMotion) const;
  std::optional<double> eta(double now) const;

  static double smoothed(double displayed, double target, double dt, double speed);
  static int percent(double fraction);
  static std::string etaText(double seconds);
  static std::string progressLine(double fraction, std::optional<double> eta);
  static std::string durationText(double seconds);
  // "Rendering Exact · 4×", "Rendering Clarity preview · 2.5×".
  static std::string renderingTitle(ResampleMethod method, const std::string& factorText,
                                    bool isPreview);
};

}  // namespace tarnbloom
