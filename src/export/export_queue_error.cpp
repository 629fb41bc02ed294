#include "export/export_queue_error.h"

namespace tarnbloom::exporting {

std::string ExportQueueError::description() const {
  switch (m_case) {
    case Case::permissionLost:
      return "Tarnbloom no longer has permission to read or save " + m_text +
             ". Choose it again, then retry.";
    case Case::saveFailed:
      return "The export queue could not be saved: " + m_text;
    case Case::unreadableSettings:
      return "This queued export has settings that this version cannot read.";
    case Case::decoding:
      return "The saved export queue is damaged: " + m_text;
  }
  return {};
}

std::string ExportQueueLoadFailure::description() const {
  switch (m_case) {
    case Case::unreadable:
      return "The saved export queue could not be read.";
    case Case::damaged:
      return "The saved export queue is damaged.";
    case Case::newer:
      return "This export queue was written by a newer Tarnbloom (format " +
             std::to_string(m_format) + ").";
  }
  return {};
}

std::string ExportQueueLoadFailure::recoverySuggestion() const {
  switch (m_case) {
    case Case::unreadable:
      return m_reason +
             " Check that Tarnbloom still has access to its data folder, then reopen this window. "
             "Nothing was deleted.";
    case Case::damaged:
      return "Its bytes were kept beside the queue file so nothing is lost. New exports will be "
             "queued normally.";
    case Case::newer:
      return "Its bytes were kept unchanged. Update Tarnbloom to open it, or keep using this "
             "version — "
             "new exports are queued normally.";
  }
  return {};
}

}  // namespace tarnbloom::exporting
