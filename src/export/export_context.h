#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <string>

namespace tarnbloom {
class EstimateEngine;
}

namespace tarnbloom::exporting {

// What the export wing needs from whoever hosts it, handed in rather than
// read from the environment, so the command line, the service, the
// application and the tests each choose their own.
struct ExportContext {
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  // The queue file, "Operations" and "ReceiptPublications" live here.
  std::filesystem::path stateFolder;
  // Receipts not kept beside their exports.
  std::filesystem::path receiptsFolder;
  // Enhance renders and their receipts' model identity; none: Enhance
  // exports fail as with a missing model. Owned by the host.
  EstimateEngine* estimates = nullptr;
  Clock clock = [] { return std::chrono::system_clock::now(); };
  std::string appVersion = "0";
  std::string appBuild = "0";

  // The state folder of this user (or $TARNBLOOM_HOME) and its "Receipts".
  static ExportContext standard(EstimateEngine* estimates);
};

}  // namespace tarnbloom::exporting
