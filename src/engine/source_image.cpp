#include "engine/source_image.h"

namespace tarnbloom {

std::string SourceProtectionError::description() const {
  switch (m_case) {
    case Case::destinationIsSource:
      return "The original cannot be replaced. Choose a different output name.";
    case Case::sourceChanged:
      return "The source file changed after loading. Reopen it before exporting.";
  }
  return {};
}

}  // namespace tarnbloom
