#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "engine/render_progress_model.h"

namespace tarnbloom::cli {

// A one-line progress bar with ETA on a terminal (standard error), driven by
// the engine's band progress; silent when not a terminal.
class RenderProgressLine {
 public:
  RenderProgressLine(std::string label, bool enabled)
      : m_label(std::move(label)), m_enabled(enabled), m_clock(monotonicRenderClock()) {
    m_model.begin(m_clock());
  }

  void update(int64_t done, int64_t total) {
    const double now = m_clock();
    m_model.update(static_cast<double>(done), static_cast<double>(total), now);
    if (!m_enabled || !m_model.isGatePassed(now)) return;
    const int width = 30;
    const int filled = static_cast<int>(m_model.fraction * width);
    std::fprintf(stderr, "\r%s [%s%s] %s\033[K", m_label.c_str(), std::string(filled, '#').c_str(),
                 std::string(width - filled, '.').c_str(),
                 RenderProgressModel::progressLine(m_model.fraction, m_model.eta(now)).c_str());
    m_drawn = true;
  }

  void finish() {
    m_model.finish(m_clock());
    if (m_drawn) std::fprintf(stderr, "\r\033[K");
  }

 private:
  std::string m_label;
  bool m_enabled;
  RenderClock m_clock;
  RenderProgressModel m_model;
  bool m_drawn = false;
};

}  // namespace tarnbloom::cli
