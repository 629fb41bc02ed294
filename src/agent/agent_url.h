#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tarnbloom::agent {

// The URLs other programs open to start or cancel a job. A URL carries the
// job id and nothing else: every setting is read from the request file in
// the inbox, so nothing a URL says can change what a job does.
namespace AgentURL {

// The scheme the application registers (x-scheme-handler/tarnbloom).
inline constexpr std::string_view kScheme = "tarnbloom";
inline constexpr std::string_view runHost = "agent";
inline constexpr std::string_view cancelHost = "agent-cancel";
inline constexpr std::string_view jobQueryName = "job";
// Far longer than any URL we make (under 130 characters with every
// character of the id percent-encoded); longer text is refused unread.
inline constexpr size_t maxURLLength = 2048;

struct Route {
  enum class Kind { run, cancel };
  Kind kind = Kind::run;
  std::string jobID;  // as the URL gives it, percent-decoded

  bool operator==(const Route&) const = default;

  static Route run(std::string jobID) { return {Kind::run, std::move(jobID)}; }
  static Route cancel(std::string jobID) { return {Kind::cancel, std::move(jobID)}; }
};

// The route a URL names, or nothing. Accepted: `scheme://host?query`, the
// scheme equal to `expectedScheme` in any case, the host "agent" or
// "agent-cancel" in any case, no user, port, path or fragment, and exactly
// one query item "job" whose percent-decoded value is a job id (other
// items are ignored). Anything else, a character no URL may hold or a bad
// escape included, gives nothing.
std::optional<Route> parse(std::string_view url, std::string_view expectedScheme = kScheme);

// `scheme://agent?job=ID` or `scheme://agent-cancel?job=ID`.
std::string url(std::string_view scheme, const Route& route);
std::string runURL(std::string_view scheme, std::string_view jobID);
std::string cancelURL(std::string_view scheme, std::string_view jobID);

// A file-manager menu entry's first use, waiting for the window's
// confirmation: `tarnbloom://menu-confirm?job=ID&entry=ENTRY`. The request
// is in the inbox already; the window shows it and delivers it, or not.
inline constexpr std::string_view menuConfirmHost = "menu-confirm";
inline constexpr std::string_view entryQueryName = "entry";
struct MenuConfirmation {
  std::string jobID;
  std::string entry;  // "enlarge-2", "recipe:ID": checked by whoever reads it
};
std::string menuConfirmURL(std::string_view jobID, std::string_view entry);
// Nothing for any URL that is not exactly that, with a valid job id.
std::optional<MenuConfirmation> parseMenuConfirm(std::string_view url);

}  // namespace AgentURL

}  // namespace tarnbloom::agent
