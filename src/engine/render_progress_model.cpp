#include "engine/render_progress_model.h"

#include <algorithm>
#include <cmath>

namespace tarnbloom {
namespace {

// Halves away from zero, as people round.
int64_t roundHalfAway(double value) { return static_cast<int64_t>(std::round(value)); }

}  // namespace

RenderClock monotonicRenderClock() {
  return [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
  };
}

void RenderProgressModel::begin(double now, bool skipGate) {
  const int64_t next = generation + 1;
  *this = RenderProgressModel{};
  generation = next;
  phase = Phase::running;
  startTime = now;
  gate = skipGate ? 0 : gateDelay;
}

void RenderProgressModel::update(double done, double total, double now) {
  if (phase != Phase::running || !(total > 0)) return;
  done = std::clamp(done, 0.0, total);
  doneUnits = std::max(doneUnits, done);
  totalUnits = total;
  fraction = std::max(fraction, std::min(done / total, 0.999));
  if (doneUnits > lastSampleUnits && now > lastSampleTime) {
    const double instant = (doneUnits - lastSampleUnits) / (now - lastSampleTime);
    rate = firstSample ? instant : ewmaAlpha * instant + (1 - ewmaAlpha) * rate;
    firstSample = false;
    lastSampleTime = now;
    lastSampleUnits = doneUnits;
  }
}

void RenderProgressModel::finish(double now) {
  if (phase != Phase::running) return;
  phase = Phase::finished;
  fraction = 1.0;
  endTime = now;
  doneUnits = totalUnits;
}

void RenderProgressModel::cancel(double now) {
  if (phase != Phase::running) return;
  phase = Phase::cancelled;
  endTime = now;
}

void RenderProgressModel::reset() {
  const int64_t kept = generation;
  *this = RenderProgressModel{};
  generation = kept;
}

bool RenderProgressModel::isGatePassed(double now) const {
  return phase == Phase::running && now - startTime >= gate;
}

bool RenderProgressModel::stripWasShown() const {
  return phase == Phase::finished && endTime - startTime >= gate;
}

RenderProgressModel::StripState RenderProgressModel::stripState(double now, bool reduceMotion) const {
  using Kind = StripState::Kind;
  switch (phase) {
    case Phase::idle: return {Kind::hidden, 0};
    case Phase::running: return isGatePassed(now) ? StripState{Kind::running, 1} : StripState{Kind::hidden, 0};
    case Phase::cancelled: return {Kind::cancelled, 1};
    case Phase::finished: {
      if (!stripWasShown()) return {Kind::hidden, 0};
      const double d = now - endTime;
      if (d < doneLinger) return {Kind::done, 1};
      if (reduceMotion || d >= doneLinger + doneFade) return {Kind::hidden, 0};
      return {Kind::done, 1 - (d - doneLinger) / doneFade};
    }
  }
  return {Kind::hidden, 0};
}

std::optional<double> RenderProgressModel::eta(double now) const {
  if (phase != Phase::running || firstSample || !(rate > 0) || !(totalUnits > 0)) return std::nullopt;
  if (doneUnits < etaMinUnits && now - startTime < etaMinSeconds) return std::nullopt;
  return std::max(0.0, (totalUnits - doneUnits) / rate);
}

double RenderProgressModel::smoothed(double displayed, double target, double dt, double speed) {
  if (displayed < target && dt > 0)
    return std::min(target, displayed + (target - displayed) * (1 - std::exp(-speed * dt)));
  return std::max(displayed, 0.0);
}

int RenderProgressModel::percent(double fraction) {
  if (!(fraction > 0)) return 0;
  return static_cast<int>(std::clamp(std::floor(fraction * 100), 0.0, 100.0));
}

std::string RenderProgressModel::etaText(double seconds) {
  if (!std::isfinite(seconds) || seconds < 3) return "a few seconds";
  if (seconds < 57.5) {
    const int64_t rounded = std::max<int64_t>(5, roundHalfAway(seconds / 5) * 5);
    return "about " + std::to_string(rounded) + " s";
  }
  const int64_t minutes = std::max<int64_t>(1, roundHalfAway(seconds / 60));
  if (minutes <= 89) return "about " + std::to_string(minutes) + " min";
  return "about " + std::to_string(roundHalfAway(minutes / 60.0)) + " h";
}

std::string RenderProgressModel::progressLine(double fraction, std::optional<double> eta) {
  std::string line = std::to_string(percent(fraction)) + " %";
  line += eta ? " · " + etaText(*eta) + " left" : " · Estimating…";
  return line;
}

std::string RenderProgressModel::durationText(double seconds) {
  if (!std::isfinite(seconds) || seconds < 0) seconds = 0;
  if (seconds < 10) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
  }
  if (seconds < 60) return std::to_string(roundHalfAway(seconds)) + " s";
  const int64_t total = roundHalfAway(seconds);
  return std::to_string(total / 60) + " min " + std::to_string(total % 60) + " s";
}

std::string RenderProgressModel::renderingTitle(ResampleMethod method, const std::string& factorText,
                                                bool isPreview) {
  return "Rendering " + std::string(title(method)) + (isPreview ? " preview" : "") + " · " + factorText;
}

}  // namespace tarnbloom
