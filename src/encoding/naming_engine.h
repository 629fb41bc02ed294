#pragma once

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "support/error.h"

namespace tarnbloom::encoding {

class NamingError : public Error {
 public:
  enum class Case { unknownToken, unsupportedFormat, malformedTemplate };
  static NamingError unknownToken(std::string name) { return {Case::unknownToken, std::move(name)}; }
  static NamingError unsupportedFormat(std::string token) { return {Case::unsupportedFormat, std::move(token)}; }
  static NamingError malformedTemplate() { return {Case::malformedTemplate, {}}; }
  Case errorCase() const { return m_case; }
  const std::string& text() const { return m_text; }
  std::string description() const override;

 private:
  NamingError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case m_case;
  std::string m_text;
};

// The facts a template is filled from.
struct NamingFacts {
  std::filesystem::path sourcePath;
  int64_t outputWidth = 0;
  int64_t outputHeight = 0;
  std::string method;       // as the caller wants it shown
  std::string formatToken;  // "jpeg", "png", ... ; {format} shows its extension
  std::optional<std::string> sku;
  std::optional<std::string> scaleLabel;
  std::optional<std::tm> exportDate;  // local calendar date; now when unset
  int64_t index = 0;
  std::optional<double> scaleFactor;
};

// Turns a file name template such as "{source}_{w}x{h}" into output paths.
// Stateless; every route that names outputs uses the same rules.
class NamingEngine {
 public:
  static constexpr std::string_view kTokenHelp =
      "Tokens: {source} {sku} {w} {h} {method} {format} {scale} {date} {index} {n}";

  static std::string defaultTemplate(bool legacyScale = false);

  // Throws NamingError (malformed, then the first unknown token).
  static void validateTemplate(std::string_view templ);

  // The file name stem for attempt `n` (1 renders {n} empty).
  static std::string renderTemplate(std::string_view templ, const NamingFacts& facts, int64_t n = 1);

  // The extension for a format token, or none ("jpeg" and "jpg" give "jpg").
  static std::optional<std::string> extensionFor(std::string_view formatToken);

  // The first candidate, with no test whether it is taken.
  static std::filesystem::path firstCandidatePath(const std::filesystem::path& folder,
                                                  std::string_view templ, const NamingFacts& facts);

  // The first candidate `exists` says is free, numbering from 2; the source
  // itself always counts as taken, so an export never replaces it. Throws
  // NamingError, or FileError when the folder cannot be created.
  static std::filesystem::path resolveOutputPath(
      const std::filesystem::path& folder, std::string_view templ, const NamingFacts& facts,
      bool createFolder, const std::function<bool(const std::filesystem::path&)>& exists);

  // `path` itself when `exists` says it is free and it is not the source,
  // else "stem 2.ext", "stem 3.ext", ...: the first free one.
  static std::filesystem::path freePathFrom(
      const std::filesystem::path& path, const std::filesystem::path& source,
      const std::function<bool(const std::filesystem::path&)>& exists);

  // 2.0 gives "2x", 1.5 "1.5x", 3.333 "3.33x".
  static std::string scaleLabel(double factor);
};

}  // namespace tarnbloom::encoding
