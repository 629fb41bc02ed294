#include "finder/file_manager_integrations.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "finder_test_support.h"
#include "test_support.h"

namespace tarnbloom::finder {
namespace {

namespace fs = std::filesystem;
using testing::readText;
using testing::runCommand;
using testing::TempDir;
using testing::writeText;

// A title and an id that try every way out of each format.
const std::string kHostileTitle =
    "Evil\nExec=/bin/false\n[Desktop Action x]\r</name><command>boom</command> & %F; \"q\" '\\";
const std::string kHostileID = "id' ; false ; '\"$(id)`id`%F%%<&>\\;x";

FinderMenuFile hostileMenu() {
  FinderMenuFile menu;
  menu.items.push_back({kHostileID, kHostileTitle, "1 output · <b>&amp;</b>\n2"});
  menu.items.push_back({"plain-id", "Web", "1 output · Exact"});
  return menu;
}

size_t countLines(const std::string& text, const std::string& prefix) {
  size_t count = 0;
  size_t at = 0;
  while (at < text.size()) {
    const size_t end = std::min(text.find('\n', at), text.size());
    if (std::string_view(text).substr(at, end - at).starts_with(prefix)) ++count;
    at = end + 1;
  }
  return count;
}

// A stand-in for tarnbloom that writes the arguments it was given, one per
// line, so a command line can be checked by running it.
fs::path argumentRecorder(const TempDir& dir) {
  const fs::path script = dir / "bin dir" / "tarn'bloom";
  fs::create_directories(script.parent_path());
  writeText(script, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done > \"$RECORD\"\n");
  fs::permissions(script, fs::perms::owner_all);
  return script;
}

// Thunar's reading of uca.xml, done with an independent parser: the command
// of each action whose unique-id starts with "tarnbloom-", in order, and the
// number of all actions.
std::pair<std::vector<std::string>, int> thunarCommands(const fs::path& file) {
  const fs::path probe = file.parent_path() / "read_uca.py";
  const std::string script =
      "import sys, xml.etree.ElementTree as E\n"
      "root = E.parse(sys.argv[1]).getroot()\n"
      "assert root.tag == 'actions'\n"
      "print(len(root.findall('action')))\n"
      "for a in root.findall('action'):\n"
      "    if a.findtext('unique-id').startswith('tarnbloom-'):\n"
      "        print(a.findtext('command').replace('\\n', '<NL>'))\n";
  writeText(probe, script);
  std::string output;
  EXPECT_EQ(runCommand("python3 '" + probe.string() + "' '" + file.string() + "'", &output), 0);
  std::vector<std::string> lines;
  size_t at = 0;
  while (at < output.size()) {
    const size_t end = output.find('\n', at);
    lines.push_back(output.substr(at, end - at));
    at = end + 1;
  }
  if (lines.empty()) return {{}, -1};
  const int count = std::stoi(lines.front());
  lines.erase(lines.begin());
  return {lines, count};
}

// Runs a Thunar or Nemo command as they do (%F replaced by quoted paths,
// %% by %, then a shell-like split) and returns the arguments received.
std::string runAsFileManager(std::string command, const fs::path& record) {
  std::string expanded;
  for (size_t i = 0; i < command.size(); ++i) {
    if (command[i] == '%' && i + 1 < command.size()) {
      ++i;
      expanded += command[i] == 'F' ? "'/photos/a b.jpg'" : std::string(1, command[i]);
    } else {
      expanded += command[i];
    }
  }
  writeText(record.parent_path() / "command.sh", expanded + "\n");
  EXPECT_EQ(runCommand("RECORD='" + record.string() + "' sh '" +
                       (record.parent_path() / "command.sh").string() + "'"),
            0)
      << expanded;
  return readText(record);
}

TEST(FileManagerIntegrations, HostileTitlesAndIDsStayInsideTheirEntries) {
  TempDir dir;
  const fs::path tarnbloom = argumentRecorder(dir);
  const auto menu = hostileMenu();
  const std::string expected =
      "menu-run\n--entry\nrecipe:" + kHostileID + "\n--\n/photos/a b.jpg\n";

  // Dolphin: five actions with one Name and one Exec each; nothing else.
  const std::string dolphin = dolphinServiceMenu(menu, tarnbloom);
  EXPECT_EQ(countLines(dolphin, "[Desktop Action "), 5u);
  EXPECT_EQ(countLines(dolphin, "Exec="), 5u);
  EXPECT_EQ(countLines(dolphin, "Name="), 6u) << "the submenu's and one per action";
  EXPECT_EQ(countLines(dolphin, "["), 6u) << dolphin;
  EXPECT_NE(dolphin.find("Actions=enlarge2;enlarge4;enlarge8;recipe1;recipe2;\n"),
            std::string::npos);
  if (runCommand("command -v desktop-file-validate >/dev/null") == 0) {
    writeText(dir / "tarnbloom.desktop", dolphin);
    std::string output;
    runCommand("desktop-file-validate '" + (dir / "tarnbloom.desktop").string() + "' 2>&1",
               &output);
    // The validator knows only applications; KDE's service menus are
    // Type=Service, which it reports for MimeType and Actions.
    for (size_t at = 0; at < output.size();) {
      const size_t end = output.find('\n', at);
      const std::string line = output.substr(at, end - at);
      if (line.find("error") != std::string::npos) {
        EXPECT_NE(line.find("the type is \"Service\""), std::string::npos) << line;
      }
      at = end == std::string::npos ? output.size() : end + 1;
    }
  }

  // Nemo: one file per entry, each one action whose command runs as meant.
  const auto nemo = nemoActions(menu, tarnbloom);
  ASSERT_EQ(nemo.size(), 5u);
  for (const auto& [name, content] : nemo) {
    EXPECT_EQ(name.find('/'), std::string::npos);
    EXPECT_EQ(countLines(content, "Exec="), 1u) << content;
    EXPECT_EQ(countLines(content, "["), 1u) << content;
  }
  EXPECT_EQ(nemo[3].first.find(kHostileID), std::string::npos) << "unsafe ids become digests";
  EXPECT_EQ(nemo[4].first, "tarnbloom-recipe-plain-id.nemo_action");
  const std::string nemoExec = nemo[3].second.substr(nemo[3].second.find("\nExec=") + 6);
  std::string unescaped;  // the key file's escapes, as GLib reads them
  for (size_t i = 0; i < nemoExec.find('\n'); ++i)
    unescaped += (nemoExec[i] == '\\' && nemoExec[i + 1] == '\\') ? nemoExec[++i] : nemoExec[i];
  EXPECT_EQ(runAsFileManager(unescaped, dir / "nemo.args"), expected);

  // Thunar: a well-formed file whose command gives the same arguments.
  writeText(dir / "uca.xml", mergeThunarActions("", &menu, tarnbloom));
  const auto [commands, actions] = thunarCommands(dir / "uca.xml");
  EXPECT_EQ(actions, 5);
  ASSERT_EQ(commands.size(), 5u);
  EXPECT_EQ(runAsFileManager(commands[3], dir / "thunar.args"), expected);
  EXPECT_EQ(runAsFileManager(commands[0], dir / "thunar.args"),
            "menu-run\n--entry\nenlarge-2\n--\n/photos/a b.jpg\n");
}

TEST(FileManagerIntegrations, ThunarMergeKeepsTheUsersActionsAndRefusesWhatItCannotRead) {
  TempDir dir;
  const std::string userAction =
      "<action>\n\t<icon>utilities-terminal</icon>\n\t<name>Open Terminal &amp; Here</name>\n"
      "\t<unique-id>1234-1</unique-id>\n\t<command>exo-open --working-directory %f</command>\n"
      "\t<!-- mine -->\n\t<patterns>*</patterns>\n\t<directories/>\n</action>\n";
  const std::string user =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<actions>\n" + userAction + "</actions>\n";
  auto menu = hostileMenu();
  const std::string first = mergeThunarActions(user, &menu, "/usr/bin/tarnbloom");
  EXPECT_NE(first.find(userAction), std::string::npos) << "the user's action, byte for byte";
  menu.items.erase(menu.items.begin());
  const std::string second = mergeThunarActions(first, &menu, "/usr/bin/tarnbloom");
  EXPECT_NE(second.find(userAction), std::string::npos);
  writeText(dir / "uca.xml", second);
  const auto [commands, actions] = thunarCommands(dir / "uca.xml");
  EXPECT_EQ(actions, 5) << "the user's one and our four: the old ones were replaced";
  EXPECT_EQ(commands.size(), 4u);
  EXPECT_EQ(mergeThunarActions(second, nullptr, "/usr/bin/tarnbloom"), user);
  EXPECT_EQ(mergeThunarActions(second, &menu, "/usr/bin/tarnbloom"), second);
  EXPECT_NE(mergeThunarActions("<actions/>", &menu, "/x").find("<actions>\n<action>"),
            std::string::npos);

  for (const char* unreadable : {"<actions><action>", "<menu></menu>", "not xml",
                                 "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><actions/>",
                                 "<!DOCTYPE actions [<!ENTITY a \"x\">]><actions/>"})
    EXPECT_THROW(mergeThunarActions(unreadable, &menu, "/x"), ThunarActionsError) << unreadable;
}

TEST(FileManagerIntegrations, WritesOnlyOurFilesAndRemovesDroppedRecipes) {
  TempDir dir;
  const IntegrationFolders folders{dir / "data", dir / "config"};
  const auto menu = hostileMenu();
  fs::create_directories(folders.nemoActions());
  fs::create_directories(folders.thunarActions().parent_path());
  writeText(folders.nemoActions() / "tarnbloom-mine.nemo_action", "[Nemo Action]\nName=Mine\n");
  writeText(folders.thunarActions(), "<actions><action><name>x</action></actions>");

  auto report = writeIntegrations(menu, "/usr/bin/tarnbloom", folders, IntegrationScope::install);
  EXPECT_EQ(report.written.size(), 7u) << "Dolphin, five Nemo actions, Nautilus";
  ASSERT_EQ(report.problems.size(), 1u);
  EXPECT_NE(report.problems[0].find("uca.xml"), std::string::npos);
  EXPECT_EQ(readText(folders.thunarActions()), "<actions><action><name>x</action></actions>");
  struct stat info {};
  ASSERT_EQ(::stat(folders.dolphinServiceMenu().c_str(), &info), 0);
  EXPECT_TRUE(info.st_mode & S_IXUSR) << "Dolphin ignores a service menu it may not execute";

  // The recipe leaves the menu: its action goes; the user's file stays.
  writeText(folders.thunarActions(), "");
  FinderMenuFile shorter = menu;
  shorter.items.pop_back();
  report = writeIntegrations(shorter, "/usr/bin/tarnbloom", folders, IntegrationScope::refreshOnly);
  EXPECT_TRUE(report.problems.empty());
  EXPECT_FALSE(fs::exists(folders.nemoActions() / "tarnbloom-recipe-plain-id.nemo_action"));
  EXPECT_EQ(readText(folders.thunarActions()), "") << "a refresh installs nothing new";
  EXPECT_EQ(readText(folders.dolphinServiceMenu()).find("Name=Web"), std::string::npos);

  report = writeIntegrations({}, "/usr/bin/tarnbloom", folders, IntegrationScope::remove);
  EXPECT_EQ(testing::filesIn(dir / "data"),
            std::vector<fs::path>{folders.nemoActions() / "tarnbloom-mine.nemo_action"});
}

TEST(FileManagerIntegrations, NautilusExtensionShowsEnlargeAloneForAMissingOrDamagedMenu) {
  TempDir dir;
  const IntegrationFolders folders{dir / "data", dir / "config"};
  writeIntegrations({}, "/opt/tarn \"bloom\"/tarnbloom", folders, IntegrationScope::install);
  const std::string probe =
      "import runpy, sys\n"
      "m = runpy.run_path(sys.argv[1])\n"
      "print(m['TARNBLOOM'])\n"
      "for e in m['menu_entries'](): print(e[0] + '|' + e[1])\n";
  writeText(dir / "probe.py", probe);
  fs::create_directories(dir / "Group");
  const auto entries = [&](const std::string& menuFile) {
    writeText(dir / "Group" / "finder-menu.json", menuFile);
    std::string output;
    EXPECT_EQ(runCommand("TARNBLOOM_MENU_CONTAINER='" + (dir / "Group").string() + "' python3 '" +
                             (dir / "probe.py").string() + "' '" +
                             folders.nautilusExtension().string() + "'",
                         &output),
              0);
    return output;
  };
  const std::string enlarge =
      "/opt/tarn \"bloom\"/tarnbloom\nenlarge-2|Enlarge 2×\nenlarge-4|Enlarge 4×\n"
      "enlarge-8|Enlarge 8×\n";
  EXPECT_EQ(entries(hostileMenu().encode()),
            enlarge + "recipe:" + kHostileID +
                "|Evil Exec=/bin/false [Desktop Action x] "
                "</name><command>boom</command> & %F; \"q\" '\\\nrecipe:plain-id|Web\n");
  EXPECT_EQ(entries("{\"version\":1,\"items\":[{\"id\":\"a\"}]}"), enlarge);
  EXPECT_EQ(entries("{\"version\":1,\"items\":[],\"items\":[]}"), enlarge);
  EXPECT_EQ(entries("\xff"), enlarge);
}

}  // namespace
}  // namespace tarnbloom::finder
