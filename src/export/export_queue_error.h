#pragma once

#include <string>

#include "support/error.h"

namespace tarnbloom::exporting {

// A failed operation on the export queue.
class ExportQueueError : public Error {
 public:
  enum class Case { permissionLost, saveFailed, unreadableSettings, decoding };

  static ExportQueueError permissionLost(std::string name) {
    return {Case::permissionLost, std::move(name)};
  }
  static ExportQueueError saveFailed(std::string reason) {
    return {Case::saveFailed, std::move(reason)};
  }
  static ExportQueueError unreadableSettings() { return {Case::unreadableSettings, {}}; }
  // A document that does not have the shape of a queue file.
  static ExportQueueError decoding(std::string detail) {
    return {Case::decoding, std::move(detail)};
  }

  Case errorCase() const { return m_case; }
  const std::string& text() const { return m_text; }
  std::string description() const override;

 private:
  ExportQueueError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case m_case;
  std::string m_text;
};

// Why the saved queue file could not be used. The file itself is never
// deleted: it is kept in place or moved aside.
class ExportQueueLoadFailure : public Error {
 public:
  enum class Case { unreadable, damaged, newer };

  static ExportQueueLoadFailure unreadable(std::string reason) {
    return {Case::unreadable, std::move(reason), 0};
  }
  static ExportQueueLoadFailure damaged() { return {Case::damaged, {}, 0}; }
  static ExportQueueLoadFailure newer(int64_t format) { return {Case::newer, {}, format}; }

  Case errorCase() const { return m_case; }
  std::string description() const override;
  std::string recoverySuggestion() const override;

 private:
  ExportQueueLoadFailure(Case c, std::string reason, int64_t format)
      : m_case(c), m_reason(std::move(reason)), m_format(format) {}
  Case m_case;
  std::string m_reason;
  int64_t m_format;
};

}  // namespace tarnbloom::exporting
