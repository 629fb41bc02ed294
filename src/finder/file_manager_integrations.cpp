#include "finder/file_manager_integrations.h"

#include <expat.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <stdexcept>
#include <system_error>

#include "support/files.h"
#include "support/sha256.h"
#include "support/utf8.h"

namespace tarnbloom::finder {

// The Nautilus extension's source, compiled in from desktop/nautilus.
std::string_view nautilusExtensionTemplate();

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kSubmenu = "Tarnbloom";
constexpr std::string_view kIcon = "zoom-in";
constexpr std::string_view kMimeTypes = "image/*;inode/directory;";
constexpr std::string_view kNemoPrefix = "tarnbloom-";
constexpr std::string_view kNemoSuffix = ".nemo_action";
constexpr std::string_view kNautilusFileName = "tarnbloom_menu.py";
// The one line of the Nautilus extension that install fills in.
constexpr std::string_view kNautilusExecutableLine =
    "TARNBLOOM = \"tarnbloom\"  # the executable; filled in when installed";
constexpr size_t kMaxThunarFileBytes = size_t{8} << 20;

// --- Escaping -----------------------------------------------------------

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

// Display text on one line: a line break or other control character in a
// title becomes a space.
std::string oneLine(std::string_view text) {
  std::string out(text);
  std::replace_if(out.begin(), out.end(), isControl, ' ');
  return out;
}

std::string replaceAll(std::string_view text, char from, std::string_view to) {
  std::string out;
  for (const char c : text) {
    if (c == from)
      out += to;
    else
      out += c;
  }
  return out;
}

// A key file value (desktop entries, Nemo actions): one line, backslashes
// doubled, a leading space kept as \s since readers trim it.
std::string keyFileValue(std::string_view text) {
  std::string out = replaceAll(oneLine(text), '\\', "\\\\");
  if (!out.empty() && out.front() == ' ') out.replace(0, 1, "\\s");
  return out;
}

// One argument for a shell-like parser (Thunar, Nemo): single quotes, in
// which nothing is special but the quote itself.
std::string shellQuoted(std::string_view text) {
  return "'" + replaceAll(text, '\'', "'\\''") + "'";
}

// One argument of a desktop entry's Exec: double quotes, inside which ",
// `, $ and \ are escaped; % is doubled since it starts field codes.
std::string desktopExecArgument(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '`' || c == '$' || c == '\\') out += '\\';
    out += c;
  }
  return replaceAll(out + "\"", '%', "%%");
}

// Element text (we write no attributes): only &, < and > are special.
std::string xmlText(std::string_view text) {
  std::string out;
  for (const char c : oneLine(text)) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// The command line every entry runs, its parts quoted by `quote`; %F stands
// for the selected paths in all three formats.
template <typename Quote>
std::string command(const fs::path& executable, const MenuEntry& entry, Quote quote) {
  return quote(executable.string()) + " menu-run --entry " +
         quote(entry.identity.commandLineText()) + " -- %F";
}

bool isUsableExecutable(const fs::path& executable) {
  const std::string text = executable.string();
  return executable.is_absolute() && isValidUtf8(text) &&
         std::none_of(text.begin(), text.end(), isControl);
}

// A recipe id as part of a file name: itself when it is plainly safe,
// else its digest.
std::string fileNamePart(const MenuEntry& entry) {
  if (entry.identity.isEnlarge()) return "enlarge-" + std::to_string(entry.identity.scale());
  const std::string& id = entry.identity.recipeID();
  const bool plain = id.size() <= 64 && std::all_of(id.begin(), id.end(), [](char c) {
                       return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                              (c >= '0' && c <= '9') || c == '-' || c == '_';
                     });
  if (plain) return "recipe-" + id;
  return "recipe-sha-" + sha256Hex(std::as_bytes(std::span(id.data(), id.size()))).substr(0, 16);
}

// --- Thunar's uca.xml -----------------------------------------------------

struct ThunarScan {
  struct Action {
    size_t begin = 0;
    size_t end = 0;
    std::string uniqueID;
  };
  XML_Parser parser = nullptr;
  int depth = 0;
  std::optional<std::string> refusal;
  size_t rootBegin = 0;
  size_t rootTagLength = 0;
  std::optional<size_t> rootEnd;  // where "</actions>" starts
  bool rootSelfClosing = false;
  std::vector<Action> actions;
  std::optional<Action> current;
  bool inUniqueID = false;

  void refuse(std::string reason) {
    if (!refusal) refusal = std::move(reason);
    XML_StopParser(parser, XML_FALSE);
  }
  bool isOurs(const Action& action) const {
    std::string id = action.uniqueID;
    const auto first = id.find_first_not_of(" \t\r\n");
    return first != std::string::npos &&
           std::string_view(id).substr(first).starts_with(kThunarIDPrefix);
  }
};

size_t byteIndex(XML_Parser parser) { return static_cast<size_t>(XML_GetCurrentByteIndex(parser)); }

void XMLCALL onStart(void* data, const XML_Char* name, const XML_Char**) {
  auto& scan = *static_cast<ThunarScan*>(data);
  ++scan.depth;
  const std::string_view element(name);
  if (scan.depth == 1) {
    if (element != "actions") return scan.refuse("its root element is not <actions>");
    scan.rootBegin = byteIndex(scan.parser);
    scan.rootTagLength = static_cast<size_t>(XML_GetCurrentByteCount(scan.parser));
  } else if (scan.depth == 2 && element == "action") {
    scan.current = ThunarScan::Action{byteIndex(scan.parser), 0, {}};
  } else if (scan.depth == 3 && scan.current && element == "unique-id") {
    scan.inUniqueID = true;
  }
}

void XMLCALL onEnd(void* data, const XML_Char*) {
  auto& scan = *static_cast<ThunarScan*>(data);
  const size_t at = byteIndex(scan.parser);
  const auto length = static_cast<size_t>(XML_GetCurrentByteCount(scan.parser));
  if (scan.depth == 3) {
    scan.inUniqueID = false;
  } else if (scan.depth == 2 && scan.current) {
    scan.current->end = at + length;
    scan.actions.push_back(std::move(*scan.current));
    scan.current.reset();
  } else if (scan.depth == 1) {
    // An empty-element tag (<actions/>) ends with a zero-length event.
    scan.rootSelfClosing = length == 0;
    scan.rootEnd = at;
  }
  --scan.depth;
}

void XMLCALL onText(void* data, const XML_Char* text, int length) {
  auto& scan = *static_cast<ThunarScan*>(data);
  if (scan.inUniqueID) scan.current->uniqueID.append(text, static_cast<size_t>(length));
}

void XMLCALL onDeclaration(void* data, const XML_Char*, const XML_Char* encoding, int) {
  auto& scan = *static_cast<ThunarScan*>(data);
  if (!encoding) return;
  std::string name(encoding);
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  if (name != "UTF-8") scan.refuse("it is not in UTF-8");
}

void XMLCALL onDoctype(void* data, const XML_Char*, const XML_Char*, const XML_Char*, int) {
  // Thunar never writes one; entity declarations are how XML bombs work.
  static_cast<ThunarScan*>(data)->refuse("it declares a document type");
}

// Throws ThunarActionsError for anything but a well-formed UTF-8 <actions>
// document.
ThunarScan scanThunarActions(std::string_view text) {
  ThunarScan scan;
  std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate("UTF-8"),
                                                                      &XML_ParserFree);
  if (!parser) throw std::bad_alloc();
  scan.parser = parser.get();
  XML_SetUserData(scan.parser, &scan);
  XML_SetElementHandler(scan.parser, onStart, onEnd);
  XML_SetCharacterDataHandler(scan.parser, onText);
  XML_SetXmlDeclHandler(scan.parser, onDeclaration);
  XML_SetStartDoctypeDeclHandler(scan.parser, onDoctype);
  const auto status = XML_Parse(scan.parser, text.data(), static_cast<int>(text.size()), XML_TRUE);
  if (scan.refusal) throw ThunarActionsError(*scan.refusal);
  if (status != XML_STATUS_OK)
    throw ThunarActionsError(std::string(XML_ErrorString(XML_GetErrorCode(scan.parser))) +
                             " at line " + std::to_string(XML_GetCurrentLineNumber(scan.parser)));
  if (!scan.rootEnd) throw ThunarActionsError("it has no <actions> element");
  return scan;
}

std::string thunarAction(const MenuEntry& entry, const fs::path& executable) {
  const auto tag = [](std::string_view name, std::string_view value) {
    return "\t<" + std::string(name) + ">" + std::string(value) + "</" + std::string(name) + ">\n";
  };
  // Thunar expands %f, %F, %d, … anywhere in the command; %% is a percent.
  const auto quote = [](std::string_view text) { return replaceAll(shellQuoted(text), '%', "%%"); };
  std::string description = entry.summary.empty() ? "Tarnbloom" : "Tarnbloom: " + entry.summary;
  return "<action>\n" + tag("icon", kIcon) + tag("name", xmlText(entry.title)) +
         tag("submenu", kSubmenu) +
         tag("unique-id",
             xmlText(std::string(kThunarIDPrefix) + entry.identity.commandLineText())) +
         tag("command", xmlText(command(executable, entry, quote))) +
         tag("description", xmlText(description)) + tag("range", "*") + tag("patterns", "*") +
         "\t<directories/>\n\t<image-files/>\n</action>\n";
}

// --- Files ------------------------------------------------------------------

bool isOurs(const fs::path& path) {
  try {
    const auto bytes = readWholeFile(path, size_t{4} << 20);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return text.starts_with(kGeneratedMarker) &&
           (text.size() == kGeneratedMarker.size() || text[kGeneratedMarker.size()] == '\n');
  } catch (const FileError&) {
    return false;
  }
}

// Writes `content` unless the file already holds it.
void writeOwned(const fs::path& path, std::string_view content, mode_t mode,
                IntegrationReport& report) {
  fs::create_directories(path.parent_path());
  try {
    const auto bytes = readWholeFile(path, content.size() + 1);
    if (std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()) == content &&
        (fs::status(path).permissions() & fs::perms::owner_exec) ==
            ((mode & S_IXUSR) ? fs::perms::owner_exec : fs::perms::none))
      return;
  } catch (const FileError&) {
  }
  AtomicFileWriter writer(path, mode);
  writer.write(content);
  writer.commit();
  // The writer's mode passes through the umask; Dolphin insists on the
  // executable bit of a service menu in the user's folder.
  if (mode & S_IXUSR) ::chmod(path.c_str(), mode & ~static_cast<mode_t>(S_IWGRP | S_IWOTH));
  report.written.push_back(path);
}

void removeOwned(const fs::path& path, IntegrationReport& report) {
  if (removeFileIfPresent(path)) report.removed.push_back(path);
}

void notOurs(const fs::path& path, IntegrationReport& report) {
  report.problems.push_back(path.string() +
                            " was not written by Tarnbloom, so it was left as it is.");
}

void updateDolphin(const FinderMenuFile& menu, const fs::path& executable,
                   const IntegrationFolders& folders, IntegrationScope scope,
                   IntegrationReport& report) {
  const fs::path path = folders.dolphinServiceMenu();
  const bool present = entryExists(path);
  if (present && !isOurs(path)) return notOurs(path, report);
  if (scope == IntegrationScope::remove) return removeOwned(path, report);
  if (scope == IntegrationScope::refreshOnly && !present) return;
  writeOwned(path, dolphinServiceMenu(menu, executable), 0755, report);
}

void updateNemo(const FinderMenuFile& menu, const fs::path& executable,
                const IntegrationFolders& folders, IntegrationScope scope,
                IntegrationReport& report) {
  const fs::path folder = folders.nemoActions();
  std::set<fs::path> ours;
  std::error_code error;
  for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (name.starts_with(kNemoPrefix) && name.ends_with(kNemoSuffix) && isOurs(it->path()))
      ours.insert(it->path());
  }
  if (scope == IntegrationScope::refreshOnly && ours.empty()) return;
  std::set<fs::path> kept;
  if (scope != IntegrationScope::remove) {
    for (const auto& [name, content] : nemoActions(menu, executable)) {
      const fs::path path = folder / name;
      if (entryExists(path) && !ours.contains(path)) {
        notOurs(path, report);
        continue;
      }
      writeOwned(path, content, 0644, report);
      kept.insert(path);
    }
  }
  for (const auto& path : ours)
    if (!kept.contains(path)) removeOwned(path, report);
}

void updateThunar(const FinderMenuFile& menu, const fs::path& executable,
                  const IntegrationFolders& folders, IntegrationScope scope,
                  IntegrationReport& report) {
  fs::path path = folders.thunarActions();
  std::error_code error;
  // A uca.xml kept elsewhere and linked in (a dotfiles folder) is edited
  // where it lives, so the link stays.
  if (fs::is_symlink(path, error)) path = fs::canonical(path);
  std::string existing;
  mode_t mode = 0644;
  if (entryExists(path)) {
    const auto bytes = readWholeFile(path, kMaxThunarFileBytes);
    existing.assign(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    struct stat info {};
    if (::stat(path.c_str(), &info) == 0) mode = info.st_mode & 07777;
  }
  try {
    if (scope != IntegrationScope::install) {
      if (existing.empty()) return;
      const auto scan = scanThunarActions(existing);
      if (std::none_of(scan.actions.begin(), scan.actions.end(),
                       [&](const auto& action) { return scan.isOurs(action); }))
        return;
    }
    const std::string merged = mergeThunarActions(
        existing, scope == IntegrationScope::remove ? nullptr : &menu, executable);
    if (merged == existing) return;
    fs::create_directories(path.parent_path());
    AtomicFileWriter writer(path, mode);
    writer.write(merged);
    writer.commit();
    report.written.push_back(path);
  } catch (const ThunarActionsError& problem) {
    report.problems.push_back(path.string() + ": " + problem.description());
  }
}

void updateNautilus(const fs::path& executable, const IntegrationFolders& folders,
                    IntegrationScope scope, IntegrationReport& report) {
  const fs::path path = folders.nautilusExtension();
  const bool present = entryExists(path);
  if (present && !isOurs(path)) return notOurs(path, report);
  if (scope == IntegrationScope::remove || entryExists(folders.systemNautilusExtension))
    return removeOwned(path, report);
  if (scope == IntegrationScope::refreshOnly && !present) return;
  writeOwned(path, nautilusExtension(executable), 0644, report);
}

fs::path environmentFolder(const char* variable, const fs::path& fallback) {
  const char* value = std::getenv(variable);
  if (value && fs::path(value).is_absolute()) return value;
  if (fallback.empty()) throw FinderMenuError::noHomeFolder();
  return fallback;
}

}  // namespace

std::string ThunarActionsError::description() const {
  return "Thunar’s custom actions could not be read (" + m_reason +
         "), so they were left as they are.";
}

IntegrationFolders IntegrationFolders::fromEnvironment() {
  const char* home = std::getenv("HOME");
  const fs::path homeFolder = home && fs::path(home).is_absolute() ? fs::path(home) : fs::path();
  const auto under = [&](const char* a, const char* b) {
    return homeFolder.empty() ? fs::path() : homeFolder / a / b;
  };
  IntegrationFolders folders;
  folders.dataHome = environmentFolder("XDG_DATA_HOME", under(".local", "share"));
  folders.configHome = environmentFolder("XDG_CONFIG_HOME",
                                         homeFolder.empty() ? fs::path() : homeFolder / ".config");
  return folders;
}

fs::path IntegrationFolders::dolphinServiceMenu() const {
  return dataHome / "kio" / "servicemenus" / "tarnbloom.desktop";
}
fs::path IntegrationFolders::nemoActions() const { return dataHome / "nemo" / "actions"; }
fs::path IntegrationFolders::thunarActions() const { return configHome / "Thunar" / "uca.xml"; }
fs::path IntegrationFolders::nautilusExtension() const {
  return dataHome / "nautilus-python" / "extensions" / kNautilusFileName;
}

std::vector<MenuEntry> menuEntries(const FinderMenuFile& menu) {
  std::vector<MenuEntry> entries;
  for (const int scale : {2, 4, 8})
    entries.push_back(
        {FinderIdentity::enlarge(scale), "Enlarge " + std::to_string(scale) + "×", {}});
  for (const auto& item : menu.items)
    if (isUsableRecipeID(item.id))
      entries.push_back({FinderIdentity::recipe(item.id), item.title, item.summary});
  return entries;
}

std::string dolphinServiceMenu(const FinderMenuFile& menu, const fs::path& executable) {
  const auto entries = menuEntries(menu);
  // Action names are ours (their position), never a recipe's text.
  std::vector<std::string> names;
  for (size_t i = 0; i < entries.size(); ++i)
    names.push_back(entries[i].identity.isEnlarge()
                        ? "enlarge" + std::to_string(entries[i].identity.scale())
                        : "recipe" + std::to_string(i - 2));
  std::string text = std::string(kGeneratedMarker) +
                     "\n[Desktop Entry]\nType=Service\nName=" + std::string(kSubmenu) +
                     "\nX-KDE-ServiceTypes=KonqPopupMenu/Plugin\n"
                     "MimeType=" +
                     std::string(kMimeTypes) + "\nActions=";
  for (const auto& name : names) text += name + ";";
  text += "\nX-KDE-Submenu=" + std::string(kSubmenu) + "\n";
  for (size_t i = 0; i < entries.size(); ++i) {
    // KDE reads a single & as the mark of a keyboard shortcut.
    const std::string title = replaceAll(keyFileValue(entries[i].title), '&', "&&");
    text += "\n[Desktop Action " + names[i] + "]\nName=" + title + "\nIcon=" + std::string(kIcon) +
            "\nExec=" + keyFileValue(command(executable, entries[i], desktopExecArgument)) + "\n";
  }
  return text;
}

std::vector<std::pair<std::string, std::string>> nemoActions(const FinderMenuFile& menu,
                                                             const fs::path& executable) {
  // Nemo expands %-codes in the name and the command alike.
  const auto percent = [](std::string_view text) { return replaceAll(text, '%', "%%"); };
  const auto quote = [&](std::string_view text) { return percent(shellQuoted(text)); };
  std::vector<std::pair<std::string, std::string>> actions;
  for (const auto& entry : menuEntries(menu)) {
    std::string text = std::string(kGeneratedMarker) + "\n[Nemo Action]\n";
    text += "Name=" + keyFileValue(percent(std::string(kSubmenu) + ": " + entry.title)) + "\n";
    if (!entry.summary.empty()) text += "Comment=" + keyFileValue(percent(entry.summary)) + "\n";
    text += "Exec=" + keyFileValue(command(executable, entry, quote)) + "\n";
    // Nemo shows an action when the extension or the type matches: types
    // alone keep it to photos and folders.
    text += "Icon-Name=" + std::string(kIcon) + "\nSelection=notnone\n";
    text += "Mimetypes=" + std::string(kMimeTypes) + "\n";
    actions.emplace_back(std::string(kNemoPrefix) + fileNamePart(entry) + std::string(kNemoSuffix),
                         std::move(text));
  }
  return actions;
}

std::string mergeThunarActions(std::string_view existing, const FinderMenuFile* menu,
                               const fs::path& executable) {
  std::string ours;
  if (menu)
    for (const auto& entry : menuEntries(*menu)) ours += thunarAction(entry, executable);
  if (existing.find_first_not_of(" \t\r\n") == std::string_view::npos)
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<actions>\n" + ours + "</actions>\n";
  const auto scan = scanThunarActions(existing);
  std::string merged;
  size_t at = 0;
  for (const auto& action : scan.actions) {
    if (!scan.isOurs(action)) continue;
    merged.append(existing.substr(at, action.begin - at));
    at = action.end;
    if (at < existing.size() && existing[at] == '\n') ++at;
  }
  if (scan.rootSelfClosing) {
    merged.append(existing.substr(at, scan.rootBegin - at));
    merged += "<actions>\n" + ours + "</actions>";
    at = scan.rootBegin + scan.rootTagLength;
  } else {
    merged.append(existing.substr(at, *scan.rootEnd - at));
    if (!ours.empty() && !merged.empty() && merged.back() != '\n') merged += '\n';
    merged += ours;
    at = *scan.rootEnd;
  }
  merged.append(existing.substr(at));
  // What we made must read back as what we meant, or nothing is written.
  const auto check = scanThunarActions(merged);
  const auto count = std::count_if(check.actions.begin(), check.actions.end(),
                                   [&](const auto& action) { return check.isOurs(action); });
  if (static_cast<size_t>(count) != (menu ? menuEntries(*menu).size() : 0))
    throw ThunarActionsError("the merged file did not read back");
  return merged;
}

std::string nautilusExtension(const fs::path& executable) {
  std::string text(nautilusExtensionTemplate());
  const auto at = text.find(kNautilusExecutableLine);
  if (at == std::string::npos) throw std::logic_error("the Nautilus extension has no path line");
  // A JSON string is a valid Python string literal.
  text.replace(at, kNautilusExecutableLine.size(),
               "TARNBLOOM = " + nlohmann::json(executable.string()).dump());
  return text;
}

IntegrationReport writeIntegrations(const FinderMenuFile& menu, const fs::path& executable,
                                    const IntegrationFolders& folders, IntegrationScope scope) {
  IntegrationReport report;
  if (scope != IntegrationScope::remove && !isUsableExecutable(executable)) {
    report.problems.push_back("The path of tarnbloom (" + oneLine(executable.string()) +
                              ") cannot be written into a menu file; nothing was changed.");
    return report;
  }
  updateDolphin(menu, executable, folders, scope, report);
  updateNemo(menu, executable, folders, scope, report);
  updateThunar(menu, executable, folders, scope, report);
  updateNautilus(executable, folders, scope, report);
  return report;
}

}  // namespace tarnbloom::finder
