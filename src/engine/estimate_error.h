#pragma once

#include <string>

#include "support/error.h"

namespace tarnbloom {

// Why an Enhance render could not be made. Nothing partial is ever returned.
class EstimateError : public Error {
 public:
  enum class Case { modelMissing, modelFailed, colourPreparation };

  static EstimateError modelMissing() { return EstimateError(Case::modelMissing, {}); }
  static EstimateError modelFailed(std::string detail) { return EstimateError(Case::modelFailed, std::move(detail)); }
  static EstimateError colourPreparation() { return EstimateError(Case::colourPreparation, {}); }

  Case errorCase() const { return m_case; }
  const std::string& detail() const { return m_detail; }
  std::string description() const override;

 private:
  EstimateError(Case c, std::string detail) : m_case(c), m_detail(std::move(detail)) {}
  Case m_case;
  std::string m_detail;
};

}  // namespace tarnbloom
