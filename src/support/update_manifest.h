#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "support/error.h"
#include "support/iso_time.h"

namespace tarnbloom {

// Why a version manifest or a version number was not accepted.
class UpdateManifestError : public Error {
 public:
  enum class Case {
    notJson,      // the parser's message
    notAnObject,  // the document is JSON but not an object
    missingKey,   // the key
    unknownKey,   // the key
    notAString,   // the key
    badVersion,   // the text
    badURL,       // the text
    badDate,      // the text
    tooLarge,     // the size limit in bytes
  };

  UpdateManifestError(Case c, std::string text) : m_case(c), m_text(std::move(text)) {}
  Case errorCase() const { return m_case; }
  const std::string& text() const { return m_text; }
  std::string description() const override;

 private:
  Case m_case;
  std::string m_text;
};

// A dotted version of one to four numeric parts ("0.10.0"). Missing
// trailing parts count as zero, so "1.2" equals "1.2.0".
class Version {
 public:
  // Throws UpdateManifestError (badVersion) for anything but digits and
  // single dots: no signs, suffixes ("1.0-beta"), spaces or empty parts.
  static Version parse(std::string_view text);

  std::strong_ordering operator<=>(const Version& other) const;
  bool operator==(const Version& other) const { return (*this <=> other) == 0; }

 private:
  std::vector<uint32_t> m_parts;
};

// What the version file at the update URL says about the latest release.
struct UpdateManifest {
  std::string version;    // valid for Version::parse
  std::string url;        // the release notes; always https
  std::string published;  // "YYYY-MM-DD", a real date

  // Bounded by the size of a reasonable manifest, not by what a server sends.
  static constexpr size_t kMaxBytes = 64 * 1024;

  // Exactly the three keys, all strings, each checked; anything else throws
  // UpdateManifestError, so a damaged or foreign file never shows a notice.
  static UpdateManifest parse(std::span<const std::byte> data);
};

// Whether a check is due: only once the user has agreed (`enabled` true),
// and at most once a day. A last check in the future (a clock set back)
// does not hold checks off until the clock catches up.
bool shouldCheck(WallTime now, std::optional<WallTime> lastCheck, std::optional<bool> enabled);

// Whether the manifest deserves a notice: newer than `running` and not the
// version the user skipped. A skipped text that is no version skips nothing.
bool shouldNotify(const UpdateManifest& manifest, std::string_view running,
                  const std::optional<std::string>& skipped);

}  // namespace tarnbloom
