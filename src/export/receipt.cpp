#include "export/receipt.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "canvas/canvas_json.h"
#include "encoding/colour_policy.h"
#include "engine/size_mode.h"
#include "support/files.h"
#include "support/sha256.h"

namespace tarnbloom::exporting {
namespace fs = std::filesystem;

namespace {

constexpr std::string_view kSchema = "com.tarnbloom.receipt";
constexpr std::string_view kJournalFolder = "ReceiptPublications";
// A receipt is a few kilobytes; anything far larger at a receipt path is not
// one of ours and is not worth reading into memory.
constexpr size_t kMaximumReceiptBytes = size_t{16} << 20;

constexpr std::string_view kClaimNote =
    "Claims describe this operation only. colour.flatten_colour is a policy value; transparent "
    "PNG output was not necessarily flattened. Timings exclude save panels, receipt IO and "
    "publication. A receipt does not prove correct masking or preserved text.";
constexpr std::string_view kTimingScope =
    "Compute stages plus separate human inspection time when applicable; excludes save panels, "
    "receipt IO and publication.";

bool isDigest(std::string_view text) {
  if (text.size() != 64) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

bool removeEntry(const fs::path& path) { return ::unlink(path.c_str()) == 0; }

fs::path absoluteOrSame(const fs::path& path) {
  std::error_code error;
  fs::path absolute = fs::absolute(path, error);
  return error ? path : absolute.lexically_normal();
}

// Where a publication keeps a hard link to a file it is about to replace.
fs::path previousCopyPath(const fs::path& file, const std::string& operationID) {
  return file.parent_path() / ("." + file.filename().string() + "." + operationID + ".previous");
}

// False where the file system cannot link; the publication then goes on
// without a way back, as a plain rename would.
bool keepLink(const fs::path& file, const fs::path& link) {
  return ::link(file.c_str(), link.c_str()) == 0;
}

fs::path folderOf(const fs::path& path) {
  return path.has_parent_path() ? path.parent_path() : fs::path(".");
}

// Creates `path`, never opening a file that is already there; a file it
// created but could not finish is removed again.
// Moves the staged output into place. Without replacing, a name that gets
// taken between the early check and here is still refused.
void moveOutput(const fs::path& staged, const fs::path& output, bool replacing) {
  if (replacing) {
    if (::rename(staged.c_str(), output.c_str()) != 0) throw FileError(output, "write", errno);
    return;
  }
  if (::renameat2(AT_FDCWD, staged.c_str(), AT_FDCWD, output.c_str(), RENAME_NOREPLACE) == 0)
    return;
  if (errno != EINVAL && errno != ENOSYS) throw FileError(output, "write", errno);
  // File systems without renameat2 flags: a hard link also refuses a taken name.
  if (::link(staged.c_str(), output.c_str()) != 0) throw FileError(output, "write", errno);
  ::unlink(staged.c_str());
}

std::optional<nlohmann::json> readJson(const fs::path& path) {
  try {
    const auto bytes = readWholeFile(path, kMaximumReceiptBytes);
    auto json = nlohmann::json::parse(reinterpret_cast<const char*>(bytes.data()),
                                      reinterpret_cast<const char*>(bytes.data()) + bytes.size(),
                                      nullptr, false);
    if (json.is_discarded()) return std::nullopt;
    return json;
  } catch (const Error&) {
    return std::nullopt;
  }
}

std::string_view methodVersion(ResampleMethod method,
                               const std::optional<EstimateProvenance>& estimate) {
  switch (method) {
    case ResampleMethod::exact:
      return "lanczos3-linear/1";
    case ResampleMethod::clarity:
      return "lanczos3-linear+clarity/1";
    case ResampleMethod::estimate:
      return estimate ? std::string_view(estimate->modelVersion) : "";
  }
  return "";
}

nlohmann::ordered_json dimensionsMode(const ExportOptions& options) {
  nlohmann::ordered_json mode;
  mode["mode"] = std::string(rawValue(options.sizeMode));
  if (auto factor = quickFactor(options.sizeMode))
    mode["value"] = *factor;
  else if (takesSingleValue(options.sizeMode))
    mode["value"] = options.sizeValue;
  else
    mode["value"] = nullptr;
  if (takesBoundingBox(options.sizeMode))
    mode["box"] = {{"width", options.boxWidth}, {"height", options.boxHeight}};
  else
    mode["box"] = nullptr;
  return mode;
}

nlohmann::ordered_json colourSection(const encoding::ColourPolicy& policy,
                                     const std::vector<std::string>& dropped) {
  nlohmann::ordered_json colour;
  colour["profile_policy"] = std::string(encoding::rawValue(policy.profile));
  colour["flatten_colour"] = policy.flatten;
  colour["metadata_policy"] = {{"icc", std::string(encoding::rawValue(policy.icc))},
                               {"exif", std::string(encoding::rawValue(policy.exif))},
                               {"xmp", std::string(encoding::rawValue(policy.xmp))},
                               {"gps", std::string(encoding::rawValue(policy.gps))}};
  // Source metadata the policy would have kept but that could not be read:
  // it was left out rather than carried unexamined.
  colour["metadata_dropped"] = dropped;
  return colour;
}

template <typename T>
nlohmann::ordered_json valueOrNull(const std::optional<T>& value) {
  return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json subsamplingOrNull(const std::optional<encoding::JPEGSubsampling>& value) {
  return value ? nlohmann::ordered_json(std::string(encoding::rawValue(*value)))
               : nlohmann::ordered_json(nullptr);
}

nlohmann::ordered_json encoderSection(const ReceiptInputs& inputs) {
  using encoding::ExportFormat;
  nlohmann::ordered_json encoder;
  encoder["format"] = std::string(encoding::rawValue(inputs.format));
  switch (inputs.format) {
    case ExportFormat::jpeg: {
      if (!inputs.jpegReport) throw ReceiptError("a JPEG export needs its encoder report");
      const auto& report = *inputs.jpegReport;
      encoder["quality_requested"] = report.qualityRequested;
      encoder["quality_used"] = report.qualityUsed;
      encoder["subsampling_requested"] = subsamplingOrNull(report.subsamplingRequested);
      encoder["subsampling_actual"] = subsamplingOrNull(report.subsamplingActual);
      encoder["max_bytes"] = valueOrNull(report.maxBytes);
      encoder["floor"] = report.floor;
      encoder["floor_hit"] = report.floorHit;
      encoder["bytes_actual"] = report.bytesActual;
      break;
    }
    case ExportFormat::webp: {
      const auto webp = inputs.webpOptions.value_or(inputs.options.webp).normalized();
      encoder["lossless"] = webp.lossless;
      // Lossless WebP ignores the lossy quality; record what the encoder used.
      encoder["quality"] = webp.lossless ? 100.0 : static_cast<double>(webp.lossyQuality);
      encoder["effort"] = webp.effort;
      break;
    }
    case ExportFormat::heic:
    case ExportFormat::avif:
      encoder["quality"] = inputs.heifQuality.value_or(
          inputs.options.heifQuality.value_or(encoding::kImageWriterLossyQuality));
      break;
    case ExportFormat::png:
    case ExportFormat::tiff:
      encoder["lossless"] = true;
      break;
  }
  return encoder;
}

}  // namespace

std::string ReceiptError::description() const { return "Invalid receipt: " + m_reason; }

ClaimResolution ClaimLaw::resolve(ResampleMethod method, bool hasBackgroundRemoval,
                                  int sourceBitDepth, encoding::ExportFormat format) {
  ClaimResolution claims;
  switch (method) {
    case ResampleMethod::exact:
      claims.wording.push_back(
          "Exact: resampled from the source pixels only; no detail was generated.");
      break;
    case ResampleMethod::clarity:
      claims.wording.push_back(
          "Clarity: resampled from the source pixels, then edges already in the photo were "
          "sharpened within bounds; no detail was generated.");
      break;
    case ResampleMethod::estimate:
      claims.codes.push_back("CLAIM-ESTIMATE-EXPORT");
      claims.wording.push_back(
          "Enhance: fine detail was estimated by an AI model and blended with the Exact "
          "enlargement at the recorded strength. Estimated detail was not in the source. Inspect "
          "before use.");
      break;
  }
  if (hasBackgroundRemoval) {
    claims.codes.push_back("CLAIM-BG-REMOVE");
    claims.wording.push_back(
        "AI estimated the mask; no new product detail was generated. Mask edges, colour "
        "conversion and the chosen export format can change the result. Inspect before use.");
  }
  if (sourceBitDepth > 8 && format == encoding::ExportFormat::webp) {
    claims.codes.push_back("WEBP-16BIT-REDUCED");
    claims.wording.push_back(
        "The 16-bit source was reduced to 8 bits per channel because WebP stores 8-bit "
        "channels.");
  }
  const bool inventsNothing = method != ResampleMethod::estimate && !hasBackgroundRemoval;
  claims.detailEffect = inventsNothing ? "never_invents_detail" : "may_alter_detail";
  return claims;
}

nlohmann::ordered_json Receipt::build(const std::string& appVersion, const std::string& appBuild,
                                      WallTime created, const ReceiptInputs& inputs) {
  if (!isDigest(inputs.outputSHA256))
    throw ReceiptError("output_sha256 must be a lower-case SHA-256 digest");
  const ResampleMethod method = inputs.options.method;
  const bool enhance = method == ResampleMethod::estimate;
  if (enhance && !inputs.estimate) throw ReceiptError("an Enhance export must name its model");

  using Json = nlohmann::ordered_json;
  Json document;
  document["schema"] = std::string(kSchema);
  document["version"] = kVersion;
  document["app_version"] = appVersion;
  document["app_build"] = appBuild;
  document["created"] = formatIso8601(created);

  Json source;
  source["filename"] = inputs.sourcePath.filename().string();
  source["path"] = inputs.sourcePath.string();
  source["hash"] = inputs.sourceSHA256.empty() ? Json(nullptr) : Json(inputs.sourceSHA256);
  source["width"] = inputs.sourceWidth;
  source["height"] = inputs.sourceHeight;
  source["bit_depth"] = inputs.sourceBitDepth;
  document["source"] = std::move(source);

  Json output;
  output["filename"] = inputs.outputPath.filename().string();
  output["path"] = inputs.outputPath.string();
  output["width"] = inputs.outputWidth;
  output["height"] = inputs.outputHeight;
  output["format"] = std::string(encoding::rawValue(inputs.format));
  output["sha256"] = inputs.outputSHA256;
  document["output"] = std::move(output);

  document["method"] = {{"name", std::string(rawValue(method))},
                        {"version", std::string(methodVersion(method, inputs.estimate))}};
  document["dimensions_mode"] = dimensionsMode(inputs.options);
  // Background masks are not made by this build; the key stays so that
  // readers find every section in every receipt.
  if (inputs.canvas) {
    Json canvas = canvas::canvasJson(*inputs.canvas);
    canvas["resampled_width"] = inputs.resampledWidth;
    canvas["resampled_height"] = inputs.resampledHeight;
    canvas["padding"] = {{"left", inputs.padding.left},
                         {"top", inputs.padding.top},
                         {"right", inputs.padding.right},
                         {"bottom", inputs.padding.bottom}};
    document["canvas"] = std::move(canvas);
  } else {
    document["canvas"] = nullptr;
  }
  if (inputs.crop)
    document["crop"] = {{"x", inputs.crop->x},
                        {"y", inputs.crop->y},
                        {"w", inputs.crop->w},
                        {"h", inputs.crop->h},
                        {"confirmed", true}};
  else
    document["crop"] = nullptr;
  document["masks"] = {{"resolved_mask_sha256", nullptr}};
  document["colour"] = colourSection(inputs.options.colourPolicy, inputs.metadataDropped);
  document["encoder"] = encoderSection(inputs);
  document["text_check"] = nullptr;
  document["quality_flags"] = Json::array();

  const auto claims = ClaimLaw::resolve(method, false, inputs.sourceBitDepth, inputs.format);
  Json claimSection;
  claimSection["codes"] = claims.codes;
  claimSection["claim_scope"] = "this_operation_only";
  claimSection["detail_effect"] = claims.detailEffect;
  claimSection["wording"] = claims.wording;
  document["claims"] = std::move(claimSection);
  document["claim_note"] = std::string(kClaimNote);
  document["vision_provenance"] = Json::array();
  document["timing_scope"] = std::string(kTimingScope);
  Json timings = Json::object();
  for (const auto& [stage, seconds] : inputs.timings) timings[stage] = seconds;
  document["timings"] = std::move(timings);

  if (!inputs.itemID.empty())
    document["operation"] = {
        {"job_id", inputs.jobID}, {"item_id", inputs.itemID}, {"operation_id", inputs.operationID}};

  if (enhance) {
    const auto& estimate = *inputs.estimate;
    Json section;
    section["tiling"] = estimate.tiling;
    section["compute_units"] = estimate.computeUnits;
    section["estimate_strength"] = estimate.strength;
    section["precision"] = estimate.precision;
    section["model"] = {{"name", estimate.modelName},
                        {"version", estimate.modelVersion},
                        {"model_artifacts_sha256", estimate.artifactsSHA256}};
    document["estimate"] = std::move(section);
  }
  return document;
}

bool Receipt::describesPublishedItem(const fs::path& output, const std::string& itemID,
                                     const ReceiptLocation& location) {
  const auto receipt = location.existingURL(output);
  if (!receipt || itemID.empty()) return false;
  try {
    const auto bytes = readWholeFile(*receipt, size_t{1} << 24);
    const auto document = nlohmann::json::parse(
        reinterpret_cast<const char*>(bytes.data()),
        reinterpret_cast<const char*>(bytes.data() + bytes.size()), nullptr, false);
    if (!document.is_object()) return false;
    const auto operation = document.find("operation");
    if (operation == document.end() || !operation->is_object() ||
        operation->value("item_id", std::string()) != itemID)
      return false;
    const auto recorded = outputSHA256(document);
    return recorded && sha256(output) == recorded;
  } catch (const Error&) {
    return false;
  }
}

std::string Receipt::text(const nlohmann::ordered_json& document) {
  // Linux file names need not be UTF-8; a path with stray bytes gets U+FFFD
  // in the receipt rather than failing the export.
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::optional<std::string> Receipt::outputSHA256(const nlohmann::json& document) {
  if (!document.is_object()) return std::nullopt;
  const auto output = document.find("output");
  if (output == document.end() || !output->is_object()) return std::nullopt;
  const auto sha = output->find("sha256");
  if (sha == output->end() || !sha->is_string()) return std::nullopt;
  return sha->get<std::string>();
}

std::optional<std::string> Receipt::sha256(const fs::path& file) { return sha256OfFile(file); }

fs::path ReceiptLocation::url(const fs::path& output, bool besideExports) const {
  const std::string name = output.filename().string() + "." + std::string(kReceiptExtension);
  if (besideExports) return output.parent_path() / name;
  // The digest keeps two exports named alike in different folders apart.
  const std::string key = absoluteOrSame(output).string();
  return storeRoot / (sha256Hex(std::as_bytes(std::span(key.data(), key.size()))) + "-" + name);
}

std::optional<fs::path> ReceiptLocation::existingURL(const fs::path& output) const {
  for (bool beside : {true, false}) {
    const fs::path candidate = url(output, beside);
    std::error_code error;
    if (fs::is_regular_file(candidate, error)) return candidate;
  }
  return std::nullopt;
}

void ReceiptLocation::ensureParentExists(const fs::path& receipt) {
  const fs::path folder = folderOf(receipt);
  std::error_code error;
  fs::create_directories(folder, error);
  if (error) throw FileError(folder, "create", error.value());
  if (!fs::is_directory(folder, error)) throw FileError(folder, "create", ENOTDIR);
}

ReceiptPairPublication ReceiptPairPublication::prepare(
    const std::string& operationID, const fs::path& stagedOutput, const fs::path& output,
    const nlohmann::ordered_json& receipt, const fs::path& receiptPath,
    const fs::path& stagedReceipt, const fs::path& journalRoot,
    std::optional<uint64_t> stagedSize) {
  // The id names files; a separator would let it point anywhere.
  if (operationID.empty() || operationID == "." || operationID == ".." ||
      operationID.find('/') != std::string::npos)
    throw ReceiptError("operation id must be a plain name");

  std::string recordedSHA;
  if (receipt.is_object() && receipt.contains("output") && receipt["output"].is_object() &&
      receipt["output"].contains("sha256") && receipt["output"]["sha256"].is_string())
    recordedSHA = receipt["output"]["sha256"].get<std::string>();
  if (stagedSize) {
    struct stat info {};
    if (::stat(stagedOutput.c_str(), &info) != 0) throw FileError(stagedOutput, "open", errno);
    if (static_cast<uint64_t>(info.st_size) != *stagedSize)
      throw ReceiptError("output_sha256 must match staged image");
  } else {
    {
      FileDescriptor probe(::open(stagedOutput.c_str(), O_RDONLY | O_CLOEXEC));
      if (probe.get() < 0) throw FileError(stagedOutput, "open", errno);
    }
    const auto stagedSHA = sha256OfFile(stagedOutput);
    if (!stagedSHA) throw FileError(stagedOutput, "read", EIO);
    if (recordedSHA != *stagedSHA) throw ReceiptError("output_sha256 must match staged image");
  }

  const std::string text = Receipt::text(receipt);
  ReceiptLocation::ensureParentExists(receiptPath);

  ReceiptPairPublication publication;
  publication.m_stagedOutput = absoluteOrSame(stagedOutput);
  publication.m_output = absoluteOrSame(output);
  publication.m_stagedReceipt = absoluteOrSame(stagedReceipt);
  publication.m_receipt = absoluteOrSame(receiptPath);
  publication.m_previousOutput = previousCopyPath(publication.m_output, operationID);
  publication.m_previousReceipt = previousCopyPath(publication.m_receipt, operationID);

  const fs::path journalFolder = journalRoot / kJournalFolder;
  std::error_code error;
  fs::create_directories(journalFolder, error);
  if (error) throw FileError(journalFolder, "create", error.value());

  // The record goes down before any file of ours exists, so that a crash at
  // any later point leaves something recoverInterrupted() can settle.
  nlohmann::ordered_json record;
  record["operation_id"] = operationID;
  record["output_sha256"] = recordedSHA;
  record["staged_output"] = publication.m_stagedOutput.string();
  record["output"] = publication.m_output.string();
  record["staged_receipt"] = publication.m_stagedReceipt.string();
  record["receipt"] = publication.m_receipt.string();
  record["previous_output"] = publication.m_previousOutput.string();
  record["previous_receipt"] = publication.m_previousReceipt.string();
  const fs::path journal = journalFolder / (operationID + ".json");
  if (entryExists(journal)) throw FileError(journal, "write", EEXIST);
  std::string recordText;
  try {
    recordText = record.dump(2) + "\n";
  } catch (const nlohmann::json::exception&) {
    // A lossy path here would point recovery at the wrong files.
    throw ReceiptError("the output's path is not valid UTF-8");
  }
  // Bookkeeping: atomic for a crash; the pair's own files are synced.
  writeFileAtomically(journal, recordText, Durability::ordered);
  publication.m_journal = journal;

  try {
    writeNewFile(publication.m_stagedReceipt, std::as_bytes(std::span(text.data(), text.size())));
    publication.m_stagedReceiptWritten = true;
  } catch (...) {
    // The staged output is the caller's: it was there before prepare().
    publication.undo(false);
    throw;
  }
  return publication;
}

void ReceiptPairPublication::publish(bool replacing) {
  if (m_finished || m_journal.empty())
    throw ReceiptError("this publication was already published or rolled back");
  try {
    if (!replacing && entryExists(m_output)) throw FileError(m_output, "write", EEXIST);

    // Receipt first: an output must never stand without one, while a receipt
    // whose output has not arrived is what recovery knows how to remove.
    if (entryExists(m_receipt)) m_previousReceiptKept = keepLink(m_receipt, m_previousReceipt);
    if (::rename(m_stagedReceipt.c_str(), m_receipt.c_str()) != 0)
      throw FileError(m_receipt, "write", errno);
    m_receiptPlaced = true;
    m_stagedReceiptWritten = false;
    // Beside the output, one sync of the folder below covers both moves.
    if (folderOf(m_receipt) != folderOf(m_output)) syncFolder(folderOf(m_receipt));

    m_outputExisted = entryExists(m_output);
    if (m_outputExisted) m_previousOutputKept = keepLink(m_output, m_previousOutput);
    moveOutput(m_stagedOutput, m_output, replacing);
    m_outputPlaced = true;
    syncFolder(folderOf(m_output));
  } catch (...) {
    rollback();
    throw;
  }

  // Both are in place: from here the pair stands whatever else fails.
  m_finished = true;
  if (m_previousReceiptKept) removeEntry(m_previousReceipt);
  if (m_previousOutputKept) removeEntry(m_previousOutput);
  removeEntry(m_journal);
}

void ReceiptPairPublication::publishOutputAlone(const fs::path& stagedOutput,
                                                const fs::path& output, bool replacing) {
  moveOutput(stagedOutput, output, replacing);
  syncFolder(folderOf(output));
}

void ReceiptPairPublication::rollback() noexcept {
  if (m_finished) return;
  undo(true);
}

void ReceiptPairPublication::undo(bool removeStagedOutput) noexcept {
  m_finished = true;
  // An output replaced without a link to the old one cannot be given back;
  // the new pair is then left standing rather than leaving neither.
  bool pairStands = false;
  if (m_outputPlaced) {
    if (m_previousOutputKept) {
      if (::rename(m_previousOutput.c_str(), m_output.c_str()) == 0) m_previousOutputKept = false;
    } else if (!m_outputExisted) {
      removeEntry(m_output);
    } else {
      pairStands = true;
    }
  }
  if (m_receiptPlaced && !pairStands) {
    if (m_previousReceiptKept) {
      if (::rename(m_previousReceipt.c_str(), m_receipt.c_str()) == 0)
        m_previousReceiptKept = false;
    } else {
      removeEntry(m_receipt);
    }
  }
  if (m_previousOutputKept) removeEntry(m_previousOutput);
  if (m_previousReceiptKept) removeEntry(m_previousReceipt);
  if (m_stagedReceiptWritten) removeEntry(m_stagedReceipt);
  if (removeStagedOutput && !m_outputPlaced) removeEntry(m_stagedOutput);
  if (!m_journal.empty()) removeEntry(m_journal);
  m_outputPlaced = m_receiptPlaced = m_stagedReceiptWritten = false;
  m_previousOutputKept = m_previousReceiptKept = false;
}

namespace {

struct JournalRecord {
  std::string outputSHA;
  fs::path stagedOutput, output, stagedReceipt, receipt, previousOutput, previousReceipt;
};

std::optional<JournalRecord> readJournal(const fs::path& path) {
  const auto json = readJson(path);
  if (!json || !json->is_object()) return std::nullopt;
  auto text = [&](const char* key) -> std::optional<std::string> {
    const auto it = json->find(key);
    if (it == json->end() || !it->is_string()) return std::nullopt;
    return it->get<std::string>();
  };
  JournalRecord record;
  const auto sha = text("output_sha256");
  if (!sha || !isDigest(*sha)) return std::nullopt;
  record.outputSHA = *sha;
  const std::pair<const char*, fs::path*> paths[] = {
      {"staged_output", &record.stagedOutput},     {"output", &record.output},
      {"staged_receipt", &record.stagedReceipt},   {"receipt", &record.receipt},
      {"previous_output", &record.previousOutput}, {"previous_receipt", &record.previousReceipt}};
  for (const auto& [key, target] : paths) {
    const auto value = text(key);
    // Only absolute paths: a damaged record must not aim removals at the
    // working folder of whoever runs recovery.
    if (!value || value->empty() || (*value)[0] != '/') return std::nullopt;
    *target = *value;
  }
  return record;
}

}  // namespace

ReceiptPairPublication::Recovery ReceiptPairPublication::recoverInterrupted(
    const fs::path& journalRoot) {
  Recovery recovery;
  auto remove = [&](const fs::path& path) {
    if (removeEntry(path)) recovery.removed.push_back(path);
  };

  std::vector<fs::path> journals;
  std::error_code error;
  for (fs::directory_iterator it(journalRoot / kJournalFolder, error), end; !error && it != end;
       it.increment(error)) {
    const fs::path& path = it->path();
    if (path.extension() == ".json" && path.filename().string().front() != '.')
      journals.push_back(path);
  }

  for (const fs::path& journal : journals) {
    const auto record = readJournal(journal);
    if (!record) {
      // Kept for a person to look at: it may name files nobody else knows of.
      fs::path aside = journal;
      aside += ".damaged";
      ::rename(journal.c_str(), aside.c_str());
      continue;
    }

    const bool outputPresent = entryExists(record->output);
    const auto outputSHA = outputPresent ? sha256OfFile(record->output) : std::nullopt;
    // An output we cannot read now cannot be judged; try again next launch.
    if (outputPresent && !outputSHA) continue;

    if (outputSHA == record->outputSHA) {
      // The output arrived, so its receipt did before it: only leftovers go.
      remove(record->previousOutput);
      remove(record->previousReceipt);
      remove(record->stagedReceipt);
    } else {
      if (entryExists(record->previousOutput)) {
        if (!outputPresent)
          ::rename(record->previousOutput.c_str(), record->output.c_str());
        else
          remove(record->previousOutput);
      }
      const auto placed = readJson(record->receipt);
      const bool receiptIsOurs =
          placed && Receipt::outputSHA256(*placed) == std::optional(record->outputSHA);
      if (entryExists(record->previousReceipt)) {
        if (::rename(record->previousReceipt.c_str(), record->receipt.c_str()) == 0 &&
            receiptIsOurs)
          recovery.removed.push_back(record->receipt);
      } else if (receiptIsOurs) {
        recovery.mismatchedReceipts.push_back(record->receipt);
      }
      remove(record->stagedReceipt);
      // The staged output belongs to the export's own operation record,
      // which decides whether the item runs again.
    }
    removeEntry(journal);
  }
  return recovery;
}

}  // namespace tarnbloom::exporting
