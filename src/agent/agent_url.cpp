#include "agent/agent_url.h"

#include "agent/agent_protocol.h"

namespace tarnbloom::agent::AgentURL {
namespace {

bool isAlpha(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isUnreserved(char c) {
  return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~';
}

// The characters a URL may hold literally: unreserved, reserved and "%".
// Spaces, controls, quotes and bytes above 0x7F only arrive in text that
// some program failed to encode, and such text is not trusted further.
bool isURLCharacter(char c) {
  static constexpr std::string_view reserved = ":/?#[]@!$&'()*+,;=%";
  return isUnreserved(c) || reserved.find(c) != std::string_view::npos;
}

char lower(char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; }

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

// ALPHA *( ALPHA / DIGIT / "+" / "-" / "." )
bool isValidScheme(std::string_view scheme) {
  if (scheme.empty() || !isAlpha(scheme.front())) return false;
  for (char c : scheme)
    if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') return false;
  return true;
}

int hexValue(char c) {
  if (isDigit(c)) return c - '0';
  const char l = lower(c);
  return l >= 'a' && l <= 'f' ? l - 'a' + 10 : -1;
}

// "%2D" → "-". A "%" not followed by two hexadecimal digits gives nothing.
// "+" stays "+": query values here are not form data.
std::optional<std::string> percentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (text.size() - i < 3) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += char(high * 16 + low);
    i += 2;
  }
  return decoded;
}

// The one item `wanted`'s decoded value; nothing when it is missing,
// given twice, or any item is badly escaped.
std::optional<std::string> queryItem(std::string_view query, std::string_view wanted) {
  std::optional<std::string> job;
  while (true) {
    const size_t end = query.find('&');
    const std::string_view item = query.substr(0, end);
    if (!item.empty()) {
      const size_t equals = item.find('=');
      const auto name = percentDecode(item.substr(0, equals));
      if (!name) return std::nullopt;
      const auto value = equals == std::string_view::npos
                             ? std::optional<std::string>(std::string())
                             : percentDecode(item.substr(equals + 1));
      if (!value) return std::nullopt;
      if (*name == wanted) {
        // Two ids leave no way to tell which one the caller meant.
        if (job) return std::nullopt;
        job = *value;
      }
    }
    if (end == std::string_view::npos) break;
    query.remove_prefix(end + 1);
  }
  return job;
}

std::string percentEncode(std::string_view text) {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::string encoded;
  for (char c : text) {
    if (isUnreserved(c)) {
      encoded += c;
    } else {
      const auto byte = static_cast<unsigned char>(c);
      encoded += '%';
      encoded += digits[byte >> 4];
      encoded += digits[byte & 0xF];
    }
  }
  return encoded;
}


struct URLParts {
  std::string_view authority;
  std::string_view query;
};

// The host and query of `scheme://host?query`, or nothing for anything
// else (see parse()).
std::optional<URLParts> split(std::string_view url, std::string_view expectedScheme) {
  if (url.size() > maxURLLength) return std::nullopt;
  for (char c : url)
    if (!isURLCharacter(c)) return std::nullopt;

  const size_t colon = url.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const std::string_view scheme = url.substr(0, colon);
  if (!isValidScheme(scheme) || !equalsIgnoringCase(scheme, expectedScheme)) return std::nullopt;

  std::string_view rest = url.substr(colon + 1);
  if (!rest.starts_with("//")) return std::nullopt;
  rest.remove_prefix(2);
  if (rest.find('#') != std::string_view::npos) return std::nullopt;

  const size_t question = rest.find('?');
  if (question == std::string_view::npos) return std::nullopt;
  const std::string_view query = rest.substr(question + 1);
  const std::string_view authority = rest.substr(0, question);
  // Anything after the host ("/", "/x") is a path, and a route has none.
  if (authority.find('/') != std::string_view::npos) return std::nullopt;
  return URLParts{authority, query};
}

}  // namespace

std::optional<Route> parse(std::string_view url, std::string_view expectedScheme) {
  const auto parts = split(url, expectedScheme);
  if (!parts) return std::nullopt;
  const auto [authority, query] = *parts;
  const auto job = queryItem(query, jobQueryName);
  if (!job || !AgentProtocol::isValidJobID(*job)) return std::nullopt;

  // The authority is compared whole, so a user ("x@agent") or a port
  // ("agent:80") makes it another host.
  if (equalsIgnoringCase(authority, runHost)) return Route::run(*job);
  if (equalsIgnoringCase(authority, cancelHost)) return Route::cancel(*job);
  return std::nullopt;
}

std::string url(std::string_view scheme, const Route& route) {
  const std::string_view host = route.kind == Route::Kind::run ? runHost : cancelHost;
  return std::string(scheme) + "://" + std::string(host) + "?" + std::string(jobQueryName) + "=" +
         percentEncode(route.jobID);
}

std::string runURL(std::string_view scheme, std::string_view jobID) {
  return url(scheme, Route::run(std::string(jobID)));
}

std::string cancelURL(std::string_view scheme, std::string_view jobID) {
  return url(scheme, Route::cancel(std::string(jobID)));
}

std::string menuConfirmURL(std::string_view jobID, std::string_view entry) {
  return std::string(kScheme) + "://" + std::string(menuConfirmHost) + "?" + std::string(jobQueryName) +
         "=" + percentEncode(jobID) + "&" + std::string(entryQueryName) + "=" + percentEncode(entry);
}

std::optional<MenuConfirmation> parseMenuConfirm(std::string_view url) {
  const auto parts = split(url, kScheme);
  if (!parts || !equalsIgnoringCase(parts->authority, menuConfirmHost)) return std::nullopt;
  auto job = queryItem(parts->query, jobQueryName);
  auto entry = queryItem(parts->query, entryQueryName);
  if (!job || !AgentProtocol::isValidJobID(*job) || !entry || entry->empty()) return std::nullopt;
  return MenuConfirmation{std::move(*job), std::move(*entry)};
}

}  // namespace tarnbloom::agent::AgentURL
