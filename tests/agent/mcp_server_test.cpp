#include "agent/mcp_server.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <set>

#include "test_support.h"

namespace tarnbloom::agent {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;
using tarnbloom::testing::TempDir;

constexpr std::string_view kJob = "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5C";
const WallTime kNow = *AgentProtocol::parseTimestamp("2026-11-14T21:06:21Z");

// A session whose answers are collected; nothing here reaches an instance,
// since every call below is answered or refused before a job would start.
class Session {
 public:
  Session()
      : m_client(m_home.path()), m_server(m_client, "9.9.9", [this](const std::string& l) {
          m_sent.push_back(json::parse(l));
        }) {}

  std::vector<json> exchange(const std::string& line) {
    m_sent.clear();
    m_server.receive(line);
    return m_sent;
  }
  json answer(const std::string& line) {
    const auto sent = exchange(line);
    EXPECT_EQ(sent.size(), 1u) << line;
    return sent.empty() ? json() : sent.front();
  }

 private:
  TempDir m_home;
  AgentClient m_client;
  std::vector<json> m_sent;
  McpServer m_server;
};

std::string request(const json& id, const std::string& method, const json& params = nullptr) {
  json message = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
  if (!params.is_null()) message["params"] = params;
  return message.dump();
}

const ordered_json& toolNamed(std::string_view name) {
  for (const auto& tool : mcpToolList())
    if (tool["name"] == name) return tool;
  throw std::runtime_error("no tool " + std::string(name));
}

std::string refusalOf(std::string_view tool, const json& arguments) {
  try {
    mcpToolCall(tool, arguments, std::string(kJob), kNow);
  } catch (const McpError& error) {
    EXPECT_EQ(error.code(), McpError::Code::invalidParams);
    return error.description();
  }
  return "(accepted)";
}

AgentItem item(std::string source, AgentItemState state) {
  AgentItem item;
  item.source = std::move(source);
  item.state = state;
  return item;
}

AgentResult finished(AgentResultState state, std::vector<AgentItem> items = {}) {
  AgentResult result;
  result.job = std::string(kJob);
  result.state = state;
  result.app = {"1.0", "100", "com.tarnbloom.app"};
  result.startedAt = result.updatedAt = kNow;
  result.finishedAt = kNow;
  result.request = AgentResultRequest{};
  result.items = std::move(items);
  return result;
}

TEST(McpSession, InitializeNegotiatesTheRevisionAndDeclaresOnlyTools) {
  Session session;
  const auto initialize = [&](const json& version) {
    return session.answer(request(1, "initialize",
                                  {{"protocolVersion", version},
                                   {"capabilities", json::object()},
                                   {"clientInfo", {{"name", "test"}, {"version", "1"}}}}));
  };
  const json answer = initialize("2025-06-18");
  EXPECT_EQ(answer["result"]["protocolVersion"], "2025-06-18");
  EXPECT_EQ(answer["result"]["capabilities"], json::parse(R"({"tools":{"listChanged":false}})"));
  EXPECT_EQ(answer["result"]["serverInfo"]["name"], "tarnbloom");
  EXPECT_EQ(answer["result"]["serverInfo"]["version"], "9.9.9");
  // An older revision we speak is kept; one we do not know gets ours.
  EXPECT_EQ(initialize("2024-11-05")["result"]["protocolVersion"], "2024-11-05");
  EXPECT_EQ(initialize("2099-01-01")["result"]["protocolVersion"], "2025-06-18");
  EXPECT_EQ(initialize(20250618)["result"]["protocolVersion"], "2025-06-18");
  EXPECT_EQ(session.answer(request(2, "initialize", json::object()))["error"]["code"], -32602);
}

TEST(McpSession, AnswersRequestsByTheirIdAndNeverAnswersNotifications) {
  Session session;
  EXPECT_EQ(session.answer(request(7, "ping")),
            json::parse(R"({"jsonrpc":"2.0","id":7,"result":{}})"));
  EXPECT_EQ(session.answer(request("seven", "ping"))["id"], "seven");
  EXPECT_EQ(session.answer(request(-9007199254740993LL, "ping"))["id"], -9007199254740993LL);
  for (const std::string line :
       {R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
        R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":4}})",
        R"({"jsonrpc":"2.0","method":"notifications/whatever","params":{}})",
        // A response to a request we never sent.
        R"({"jsonrpc":"2.0","id":3,"result":{}})", "", "  \r"})
    EXPECT_TRUE(session.exchange(line).empty()) << line;
  EXPECT_EQ(session.answer(request(1, "tools/list"))["result"]["tools"], mcpToolList());
  EXPECT_EQ(session.answer(request(1, "tools/list", {{"cursor", "x"}}))["error"]["code"], -32602);
}

TEST(McpSession, RefusesMalformedLinesWithTheirStandardCodes) {
  Session session;
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  const std::vector<std::tuple<std::string, int, json>> cases = {
      {"{not json", -32700, nullptr},
      // nlohmann would keep the second id silently.
      {R"({"jsonrpc":"2.0","id":1,"method":"ping","id":2})", -32700, nullptr},
      {"{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"p\xC3\x28\"}", -32700, nullptr},
      {deep, -32700, nullptr},
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", -32600, nullptr},
      {R"("ping")", -32600, nullptr},
      {R"({"id":1,"method":"ping"})", -32600, 1},
      {R"({"jsonrpc":"1.0","id":1,"method":"ping"})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":null,"method":"ping"})", -32600, nullptr},
      {R"({"jsonrpc":"2.0","id":1.5,"method":"ping"})", -32600, nullptr},
      {R"({"jsonrpc":"2.0","id":1,"method":42})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"ping","params":[1]})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":1})", -32600, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"resources/list"})", -32601, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{}})", -32602, 1},
      {R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"resize"}})", -32602, 1},
  };
  for (const auto& [line, code, id] : cases) {
    const json answer = session.answer(line);
    EXPECT_EQ(answer["error"]["code"], code) << line;
    EXPECT_EQ(answer["id"], id) << line;
    EXPECT_FALSE(answer["error"]["message"].get<std::string>().empty()) << line;
  }
  // The session goes on after each of them.
  EXPECT_EQ(session.answer(request(2, "ping"))["result"], json::object());
}

TEST(McpSession, ArgumentsThatFailTheSchemaAreInvalidParamsNamingTheArgument) {
  Session session;
  const json answer = session.answer(
      request(5, "tools/call",
              {{"name", "enlarge"},
               {"arguments", {{"sources", {{{"path", "/a.jpg"}, {"kind", "dir"}}}}}}}));
  EXPECT_EQ(answer["id"], 5);
  EXPECT_EQ(answer["error"]["code"], -32602);
  EXPECT_EQ(answer["error"]["message"],
            "Invalid arguments for enlarge: sources[0].kind must be one of “file”, “folder”.");
}

TEST(McpTools, EveryCommandIsOfferedWithSchemasOurCheckerEnforces) {
  std::set<std::string> names;
  for (const auto& tool : mcpToolList()) {
    const std::string name = tool["name"];
    names.insert(name);
    EXPECT_TRUE(fromRawValue<AgentCommand>(name)) << name;
    EXPECT_FALSE(tool["description"].get<std::string>().empty());
    for (const char* schema : {"inputSchema", "outputSchema"}) {
      EXPECT_EQ(tool[schema]["type"], "object") << name << " " << schema;
      // Every required key is a declared property, or no value could pass.
      for (const auto& key : tool[schema].value("required", ordered_json::array()))
        EXPECT_TRUE(tool[schema]["properties"].contains(key.get<std::string>()))
            << name << " " << key;
    }
    const bool readOnly = name == "recipe_list" || name == "status" || name == "doctor";
    EXPECT_EQ(tool["annotations"]["readOnlyHint"], readOnly) << name;
    if (!readOnly) {
      EXPECT_EQ(tool["annotations"]["destructiveHint"], false) << name;
    }
  }
  EXPECT_EQ(names.size(), 6u);

  // Full argument sets pass: a schema keyword the checker did not know
  // would fail them (it refuses what it cannot check).
  const json sources = {{{"path", "/p/a.jpg"}, {"kind", "file"}},
                        {{"path", "/p/folder"}, {"kind", "folder"}}};
  const std::vector<std::pair<std::string, json>> valid = {
      {"enlarge",
       {{"sources", sources},
        {"size", {{"mode", "box"}, {"width", 4000}, {"height", 3000}}},
        {"method", "enhance"},
        {"strength", 0.5},
        {"format", "jpeg"},
        {"quality", 90},
        {"out", "/out"},
        {"name", "{source}_big"},
        {"recursive", true},
        {"if_exists", "skip"},
        {"use_app_settings", false},
        {"dry_run", true},
        {"wait", false}}},
      {"recipe_run", {{"recipe", "Web"}, {"sources", sources}, {"out", "/out"}}},
      {"recipe_list", json::object()},
      {"status", {{"job", kJob}}},
      {"cancel", {{"job", "0f8a3c2e-5b1d-4e7a-9c6b-2d4f8e1a3b5c"}}},
      {"doctor", json::object()}};
  for (const auto& [name, arguments] : valid)
    EXPECT_EQ(mcpSchemaViolation(toolNamed(name)["inputSchema"], arguments), std::nullopt) << name;
}

TEST(McpTools, ArgumentsBecomeTheRequestTheyName) {
  const json arguments = {
      {"sources",
       {{{"path", "/p/a.jpg"}, {"kind", "file"}}, {{"path", "/p/f"}, {"kind", "folder"}}}},
      {"size", {{"mode", "long_edge"}, {"value", 4096}}},
      {"method", "enhance"},
      {"strength", 0.25},
      {"format", "webp"},
      {"quality", 90.0},  // a whole number written as a float is still one
      {"out", "/out"},
      {"name", "{source}@{scale}"},
      {"recursive", true},
      {"if_exists", "overwrite"},
      {"use_app_settings", true},
      {"dry_run", false}};
  const McpToolCall call = mcpToolCall("enlarge", arguments, std::string(kJob), kNow);
  AgentRequest expected;
  expected.job = std::string(kJob);
  expected.command = AgentCommand::enlarge;
  expected.createdAt = kNow;
  expected.sources = {{"/p/a.jpg", AgentSourceKind::file}, {"/p/f", AgentSourceKind::folder}};
  expected.size = AgentSize{AgentSizeMode::longEdge, 4096.0, std::nullopt, std::nullopt};
  expected.method = AgentMethod::enhance;
  expected.strength = 0.25;
  expected.format = AgentFormat::webp;
  expected.quality = 90;
  expected.out = "/out";
  expected.name = "{source}@{scale}";
  expected.recursive = true;
  expected.ifExists = AgentIfExists::overwrite;
  expected.useAppSettings = true;
  expected.dryRun = false;
  EXPECT_EQ(call.request, expected);
  EXPECT_TRUE(call.wait);

  const McpToolCall status = mcpToolCall(
      "status", {{"job", "abcdef01-2345-6789-abcd-ef0123456789"}}, std::string(kJob), kNow);
  EXPECT_EQ(status.request.command, AgentCommand::status);
  EXPECT_EQ(status.request.targetJob, "abcdef01-2345-6789-abcd-ef0123456789");
  EXPECT_TRUE(status.request.sources.empty());

  const McpToolCall run = mcpToolCall(
      "recipe_run",
      {{"recipe", "Web"}, {"sources", {{{"path", "/a"}, {"kind", "file"}}}}, {"wait", false}},
      std::string(kJob), kNow);
  EXPECT_EQ(run.request.recipe, "Web");
  EXPECT_FALSE(run.request.size);
  EXPECT_FALSE(run.wait);
}

TEST(McpTools, RefusesArgumentsThatFailTheSchemaWithASentenceAModelCanAct) {
  const json file = {{{"path", "/a.jpg"}, {"kind", "file"}}};
  const std::vector<std::tuple<std::string, json, std::string>> cases = {
      {"resize", json::object(),
       "Unknown tool “resize”; the tools are enlarge, recipe_run, "
       "recipe_list, status, cancel, doctor."},
      {"enlarge", json::array(), "Invalid arguments for enlarge: arguments must be an object."},
      {"enlarge", json::object(), "Invalid arguments for enlarge: sources is required."},
      {"enlarge", {{"sources", json::array()}}, "sources needs at least 1 entry."},
      {"enlarge", {{"sources", {{{"path", "/a.jpg"}}}}}, "sources[0].kind is required."},
      {"enlarge",
       {{"sources", {{{"path", ""}, {"kind", "file"}}}}},
       "sources[0].path must not be empty."},
      // A misspelt key is named, with the keys there are.
      {"enlarge",
       {{"source", file}},
       "“source” is not an argument; the arguments are sources, size,"},
      {"enlarge",
       {{"sources", file}, {"size", {{"mode", "x3"}}}},
       "size.mode must be one of “x2”,"},
      {"enlarge",
       {{"sources", file}, {"size", {{"mode", "x2"}, {"scale", 2}}}},
       "“scale” is not an argument of size"},
      {"enlarge", {{"sources", file}, {"quality", 101}}, "quality must be at most 100."},
      {"enlarge", {{"sources", file}, {"quality", "90"}}, "quality must be a whole number."},
      {"enlarge", {{"sources", file}, {"quality", 90.5}}, "quality must be a whole number."},
      {"enlarge", {{"sources", file}, {"strength", -0.1}}, "strength must be at least 0."},
      {"enlarge", {{"sources", file}, {"dry_run", "yes"}}, "dry_run must be true or false."},
      // The inbox reader refuses a NUL; the argument is named before a job exists.
      {"enlarge",
       {{"sources", {{{"path", std::string("/a\0b.jpg", 8)}, {"kind", "file"}}}}},
       "holds a NUL"},
      {"recipe_run", {{"sources", file}}, "recipe is required."},
      {"recipe_run",
       {{"recipe", "Web"}, {"sources", file}, {"size", {{"mode", "x2"}}}},
       "“size” is not an argument"},
      {"recipe_list", {{"verbose", true}}, "this tool takes none."},
      {"status", json::object(), "job is required."},
      // A job id becomes a file name in the outbox, so only a UUID is taken.
      {"status", {{"job", "../../etc/passwd"}}, "job is not in the expected form."},
      {"cancel", {{"job", std::string(kJob) + "0"}}, "job is longer than 36 characters."},
  };
  for (const auto& [tool, arguments, expected] : cases)
    EXPECT_NE(refusalOf(tool, arguments).find(expected), std::string::npos)
        << tool << " " << arguments.dump() << ": " << refusalOf(tool, arguments);
}

TEST(McpResults, StructuredContentIsTheDocumentAndConformsToTheOutputSchema) {
  AgentItem done = item("/p/a.jpg", AgentItemState::completed);
  done.output = "/p/a_2x.jpg";
  done.width = 200;
  done.height = 100;
  done.receipt = "/p/a_2x.jpg.receipt.json";
  AgentResult completed = finished(AgentResultState::completed, {done});
  completed.recipes = std::vector<AgentRecipeInfo>{{"R1", "Web", false, "no outputs"}};
  completed.plan = AgentPlan{{{"/p/a.jpg", "/p/a_2x.jpg", 200, 100, AgentFormat::jpeg,
                               AgentMethod::exact, false, AgentPlanAction::number}}};
  completed.dryRun = true;
  AgentResult rejected = finished(AgentResultState::rejected);
  rejected.request.reset();
  rejected.error = AgentErrorInfo::sourceMissing("/p/gone.jpg");
  AgentResult running =
      finished(AgentResultState::running, {item("/p/a.jpg", AgentItemState::pending)});
  running.finishedAt.reset();

  const ordered_json& schema = toolNamed("enlarge")["outputSchema"];
  for (const AgentResult& result : {completed, rejected, running}) {
    const ordered_json answer = mcpToolResult(result, mcpJobFailed(result));
    const ordered_json document = ordered_json::parse(encodeResult(result));
    EXPECT_EQ(answer["structuredContent"], document);
    EXPECT_EQ(mcpSchemaViolation(schema, json::parse(document.dump())), std::nullopt)
        << document.dump();
    // Clients that ignore structured content read the same JSON as text.
    EXPECT_EQ(ordered_json::parse(answer["content"].back()["text"].get<std::string>()), document);
  }
  EXPECT_EQ(mcpToolResult(completed, false)["content"].size(), 1u);
  const ordered_json refused = mcpToolResult(rejected, true);
  EXPECT_EQ(refused["isError"], true);
  EXPECT_EQ(refused["content"][0]["text"], "/p/gone.jpg does not exist.");
}

TEST(McpResults, OnlyJobsThatDidNotCompleteAreErrorsAndTheFirstLineSaysWhy) {
  using S = AgentResultState;
  for (const auto& [state, failed] : std::vector<std::pair<S, bool>>{{S::completed, false},
                                                                     {S::running, false},
                                                                     {S::partial, true},
                                                                     {S::failed, true},
                                                                     {S::cancelled, true},
                                                                     {S::rejected, true}})
    EXPECT_EQ(mcpJobFailed(finished(state)), failed) << rawValue(state);

  AgentItem broken = item("/p/b.jpg", AgentItemState::failed);
  broken.error = AgentErrorInfo::exportFailed();
  AgentResult partial = finished(S::partial, {item("/p/a.jpg", AgentItemState::completed), broken});
  partial.counts = {1, 0, 1, 0};
  EXPECT_EQ(mcpFailureSummary(partial),
            "1 of 2 photos failed; the others are done. /p/b.jpg: The export failed.");
  AgentResult cancelled = finished(S::cancelled);
  cancelled.error = AgentErrorInfo::jobCancelled();
  EXPECT_EQ(mcpFailureSummary(cancelled), "The job was cancelled.");
  EXPECT_EQ(mcpToolFailure("No instance.")["content"][0]["text"], "No instance.");
}

TEST(McpResults, ProgressCountsItemsThatHaveEnded) {
  using S = AgentItemState;
  const AgentResult result =
      finished(AgentResultState::running,
               {item("/a", S::completed), item("/b", S::running), item("/c", S::pending),
                item("/d", S::failed), item("/e", S::skipped), item("/f", S::cancelled)});
  EXPECT_EQ(mcpProgress(result), (McpProgress{4, 6, "4 of 6 photos"}));
  EXPECT_EQ(mcpProgress(finished(AgentResultState::running, {item("/a", S::pending)}))->message,
            "0 of 1 photo");
  EXPECT_EQ(mcpProgress(finished(AgentResultState::completed)), std::nullopt);
}

TEST(McpStdio, ReadsLinesFromAFileDescriptorAndSkipsAnOversizedOne) {
  TempDir folder;
  const std::string oversized(Mcp::maxMessageBytes + 100, 'x');
  // The last message has no newline: the input ended right after it.
  tarnbloom::testing::writeText(folder / "in", request(1, "ping") + "\n" + oversized + "\n" +
                                                   request(2, "ping") + "\r\n" +
                                                   request(3, "ping"));
  const int input = ::open((folder / "in").c_str(), O_RDONLY | O_CLOEXEC);
  const int output = ::open((folder / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(input, 0);
  ASSERT_GE(output, 0);
  AgentClient client(folder.path());
  serveMcp(input, output, client, "9.9.9");
  ::close(input);
  ::close(output);

  std::vector<json> answers;
  std::istringstream lines(tarnbloom::testing::readText(folder / "out"));
  for (std::string line; std::getline(lines, line);) answers.push_back(json::parse(line));
  ASSERT_EQ(answers.size(), 4u);
  EXPECT_EQ(answers[0]["id"], 1);
  EXPECT_EQ(answers[1]["error"]["code"], -32600);
  EXPECT_EQ(answers[1]["id"], nullptr);
  EXPECT_EQ(answers[2]["id"], 2);
  EXPECT_EQ(answers[3]["id"], 3);
}

}  // namespace
}  // namespace tarnbloom::agent
