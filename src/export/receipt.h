#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "canvas/canvas_composer.h"
#include "encoding/export_format.h"
#include "encoding/jpeg_encoder.h"
#include "encoding/webp_encoder.h"
#include "engine/resample_method.h"
#include "export/export_options.h"
#include "support/error.h"
#include "support/iso_time.h"

namespace tarnbloom::exporting {

inline constexpr std::string_view kReceiptExtension = "tarnbloomreceipt";

// A receipt that cannot be built or published as asked.
class ReceiptError : public Error {
 public:
  explicit ReceiptError(std::string reason) : m_reason(std::move(reason)) {}
  // "Invalid receipt: " + reason
  std::string description() const override;
  const std::string& reason() const { return m_reason; }

 private:
  std::string m_reason;
};

// The claims one export makes, and how it may have changed detail.
struct ClaimResolution {
  std::vector<std::string>
      codes;                 // "CLAIM-ESTIMATE-EXPORT", "CLAIM-BG-REMOVE", "WEBP-16BIT-REDUCED"
  std::string detailEffect;  // "never_invents_detail" or "may_alter_detail"
  std::vector<std::string> wording;
};

struct ClaimLaw {
  static ClaimResolution resolve(ResampleMethod method, bool hasBackgroundRemoval,
                                 int sourceBitDepth, encoding::ExportFormat format);
};

// What an Enhance export records about the network that made it.
struct EstimateProvenance {
  std::string modelName;
  std::string modelVersion;
  std::string artifactsSHA256;
  std::string tiling;        // e.g. "256x256 tiles, 16 px context, 128 px feather"
  std::string computeUnits;  // e.g. "CPU (oneDNN)"
  double strength = 0.5;
  std::string precision;  // the engine's own precision text
};

// Everything a receipt states about one export.
struct ReceiptInputs {
  std::filesystem::path sourcePath;
  std::string sourceSHA256;  // of the bytes that were decoded
  int64_t sourceWidth = 0;   // upright
  int64_t sourceHeight = 0;
  int sourceBitDepth = 8;
  std::filesystem::path outputPath;
  std::string outputSHA256;  // of the staged output bytes
  int64_t outputWidth = 0;
  int64_t outputHeight = 0;
  encoding::ExportFormat format = encoding::ExportFormat::png;
  ExportOptions options;  // size mode, method, colour policy as asked
  std::optional<encoding::JPEGEncodeReport> jpegReport;
  std::optional<encoding::WebPOptions> webpOptions;
  std::optional<int> heifQuality;
  std::optional<EstimateProvenance> estimate;
  // Source metadata left out because it could not be read ("xmp", ...).
  std::vector<std::string> metadataDropped;
  // The canvas composed onto and its padding, and a confirmed crop.
  std::optional<canvas::Canvas> canvas;
  canvas::ExactPlacement padding;
  std::optional<canvas::CropRect> crop;
  int64_t resampledWidth = 0, resampledHeight = 0;
  // Seconds per compute stage ("load", "render", "encode").
  std::map<std::string, double> timings;
  // The export queue's job and item and the attempt: lets a resumed export
  // recognise its own output. Recorded when the item id is set.
  std::string jobID, itemID, operationID;
};

struct ReceiptLocation;

struct Receipt {
  static constexpr int kVersion = 1;
  // The document, keys in their fixed order.
  static nlohmann::ordered_json build(const std::string& appVersion, const std::string& appBuild,
                                      WallTime created, const ReceiptInputs& inputs);
  // Pretty-printed JSON text of a document, ending with a newline.
  static std::string text(const nlohmann::ordered_json& document);
  // Whether the receipt at an output's place says that this very item
  // published the file that is there now.
  static bool describesPublishedItem(const std::filesystem::path& output, const std::string& itemID,
                                     const ReceiptLocation& location);
  // The output hash a receipt records, or none when it holds none.
  static std::optional<std::string> outputSHA256(const nlohmann::json& document);
  // Hex SHA-256 of a file, or none when it cannot be read.
  static std::optional<std::string> sha256(const std::filesystem::path& file);
};

// Where an output's receipt lives: beside it ("photo.png.tarnbloomreceipt")
// or in the state folder's "Receipts" ("<sha256 of output path>-photo.png.tarnbloomreceipt").
struct ReceiptLocation {
  // The receipts folder ("Receipts" in the state folder, as a host says).
  std::filesystem::path storeRoot;

  std::filesystem::path url(const std::filesystem::path& output, bool besideExports) const;
  // The receipt of an output where one exists (beside first), else none.
  std::optional<std::filesystem::path> existingURL(const std::filesystem::path& output) const;
  // Creates the receipt's folder; throws FileError.
  static void ensureParentExists(const std::filesystem::path& receipt);
};

// Publishes an output and its receipt as a pair, through a journal record in
// the state folder's "ReceiptPublications", so that a crash or a failure in
// between never leaves one without the other.
class ReceiptPairPublication {
 public:
  // `stagedSize`, when the caller wrote the staged file itself and hashed
  // those very bytes into the receipt, lets the check compare the file's
  // size instead of reading it back.
  // Checks that the receipt's output hash is the staged file's (throws
  // ReceiptError "output_sha256 must match staged image"), writes the
  // receipt beside its final place as `stagedReceipt` (fsynced) and the
  // journal record named by `operationID`. Throws FileError or ReceiptError;
  // nothing is left behind on failure.
  static ReceiptPairPublication prepare(
      const std::string& operationID, const std::filesystem::path& stagedOutput,
      const std::filesystem::path& output, const nlohmann::ordered_json& receipt,
      const std::filesystem::path& receiptPath, const std::filesystem::path& stagedReceipt,
      const std::filesystem::path& journalRoot, std::optional<uint64_t> stagedSize = std::nullopt);

  // Moves the receipt, then the output into place. Without `replacing`, an
  // output that already exists is never replaced: FileError (EEXIST) and
  // nothing changes. On any failure the pair is rolled back and the error
  // rethrown. The journal record is removed once both are in place.
  void publish(bool replacing);
  // For an export whose receipt could not be written at all: moves the
  // staged output into place alone, with the same refusal to replace
  // unasked. Throws FileError; the staged file is the caller's.
  static void publishOutputAlone(const std::filesystem::path& stagedOutput,
                                 const std::filesystem::path& output, bool replacing);
  // Undoes whatever publish() placed and removes the staged files and the
  // journal record. Never throws. After a successful publish() the pair
  // stands and this does nothing.
  void rollback() noexcept;

  // At launch: settles every journal record left by a crash. Where the
  // output was moved into place the pair stands; otherwise a replaced pair
  // is put back, and a receipt that does not describe the file at its
  // output path is kept where it is and reported (the interrupted export
  // replaces it when it runs again).
  struct Recovery {
    std::vector<std::filesystem::path> removed;
    std::vector<std::filesystem::path> mismatchedReceipts;
  };
  static Recovery recoverInterrupted(const std::filesystem::path& journalRoot);

 private:
  ReceiptPairPublication() = default;
  void undo(bool removeStagedOutput) noexcept;

  std::filesystem::path m_journal;
  std::filesystem::path m_stagedOutput, m_output, m_stagedReceipt, m_receipt;
  // Hard links to the files a publication replaces, so that a rollback can
  // put them back instead of leaving the user with neither.
  std::filesystem::path m_previousOutput, m_previousReceipt;
  bool m_receiptPlaced = false, m_outputPlaced = false;
  bool m_stagedReceiptWritten = false, m_previousOutputKept = false, m_previousReceiptKept = false,
       m_outputExisted = false, m_finished = false;
};

}  // namespace tarnbloom::exporting
