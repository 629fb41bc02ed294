#include "export/export_context.h"

#include "support/state_paths.h"

namespace tarnbloom::exporting {

ExportContext ExportContext::standard(EstimateEngine* estimates) {
  ExportContext context;
  context.stateFolder = tarnbloom::stateFolder();
  context.receiptsFolder = context.stateFolder / "Receipts";
  context.estimates = estimates;
  return context;
}

}  // namespace tarnbloom::exporting
