#include "engine/estimate_error.h"

namespace tarnbloom {

std::string EstimateError::description() const {
  switch (m_case) {
    case Case::modelMissing:
      return "Estimate needs realesr-general-x4v3.param. Set TARNBLOOM_ESTIMATE_MODEL for an "
             "experimental build.";
    case Case::modelFailed: return "Enhance model failed: " + m_detail;
    case Case::colourPreparation: return "Enhance could not prepare the image in sRGB.";
  }
  return {};
}

}  // namespace tarnbloom
