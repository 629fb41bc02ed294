#include "agent/agent_url_handler.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>

#include "agent/agent_file_store.h"
#include "agent/agent_paths.h"
#include "agent/agent_url.h"
#include "support/uuid.h"
#include "test_support.h"

namespace tarnbloom::agent {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Route = AgentURL::Route;

constexpr std::string_view kJob = "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5C";
const WallTime kNow = *AgentProtocol::parseTimestamp("2026-11-14T21:06:21Z");
const AgentAppInfo kApp{"1.0", "1", "com.tarnbloom.app"};

std::string lowerCased(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(), [](char c) { return std::tolower(c); });
  return text;
}

TEST(AgentURL, AcceptsOnlyARouteWithOneJobIdAndNothingElse) {
  const std::string id(kJob);
  const std::vector<std::pair<std::string, Route>> accepted = {
      {"tarnbloom://agent?job=" + id, Route::run(id)},
      {"TarnBloom://AGENT?job=" + id, Route::run(id)},
      {"tarnbloom://agent-cancel?job=" + lowerCased(id), Route::cancel(lowerCased(id))},
      {"tarnbloom://agent?job=%30F8A3C2E%2d5B1D-4E7A-9C6B-2D4F8E1A3B5C", Route::run(id)},
      {"tarnbloom://agent?from=script&job=" + id + "&&x", Route::run(id)},
  };
  for (const auto& [url, route] : accepted) EXPECT_EQ(AgentURL::parse(url), route) << url;

  // "ID" stands for the job id.
  const auto withID = [&](std::string url) {
    for (size_t at; (at = url.find("ID")) != std::string::npos;) url.replace(at, 2, id);
    return url;
  };
  for (const char* url :
       {"", "tarnbloom://agent/?job=ID", "tarnbloom://agent", "tarnbloom://agent?job=not-a-job",
        "tarnbloom://agent?JOB=ID", "tarnbloom://agent?job=ID&job=ID", "tarnbloom://agent?job=ID%",
        "tarnbloom://agent?job=ID&x=%zz", "tarnbloom://agent?job=ID%00",
        "tarnbloom://agent?job=ID#run", "tarnbloom://agent?job=ID ",
        "tarnbloom://agent?job=ID&note=caf\xc3\xa9", "other://agent?job=ID",
        "tarnbloom:agent?job=ID", "tarnbloom://user@agent?job=ID", "tarnbloom://agent:80?job=ID",
        "tarnbloom://?job=ID"})
    EXPECT_FALSE(AgentURL::parse(withID(url))) << url;
  EXPECT_FALSE(AgentURL::parse(withID("tarnbloom://agent?job=ID&x=") +
                               std::string(AgentURL::maxURLLength, 'a')));
  EXPECT_FALSE(AgentURL::parse("1x://agent?job=" + id, "1x")) << "not a scheme";

  for (const Route& route : {Route::run(id), Route::cancel(lowerCased(id))})
    EXPECT_EQ(AgentURL::parse(AgentURL::url(AgentURL::kScheme, route)), route);
  EXPECT_EQ(AgentURL::cancelURL("tarnbloom", id), "tarnbloom://agent-cancel?job=" + id);
}

// The application around the handler: a state folder on disk, and a job
// service that records what it is asked and writes documents as the real
// one does.
class Host {
 public:
  Host() {
    AgentFileStore::ensureDirectory(AgentPaths::inboxDirectory(m_temp.path()));
    AgentFileStore::ensureDirectory(AgentPaths::outboxDirectory(m_temp.path()));
  }

  AgentURLHandler::Dependencies dependencies() {
    return {
        .inboxDirectory = AgentPaths::inboxDirectory(m_temp.path()),
        .effectiveUID = ::geteuid(),
        .onboardingDone = [this] { return onboarded; },
        .outboxExists = [this](const std::string& id) { return fs::exists(outboxFile(id)); },
        .submit =
            [this](const AgentRequest& request, bool,
                   std::function<void(const AgentResult&)> done) {
              submitted.push_back(request);
              if (writesAtOnce) write(makeResult(request.job, AgentResultState::running));
              pending[request.job] = std::move(done);
            },
        .cancel = [this](const std::string& id) { return pending.count(id) > 0; },
        .reject =
            [this](const std::string& id, const std::optional<AgentRequest>& request,
                   AgentErrorCode code, const std::string& message) {
              if (rejectFails) throw FileError(outboxFile(id), "write", EACCES);
              write(makeRejectedResult(id, request, {code, message}, kApp, now));
            },
        .notify = [this](const AgentResult& result) { notified.push_back(result.job); },
        .quitIfIdle = [this] { ++quits; },
        .log = [this](const std::string& text) { logs.push_back(text); },
        .answerInfo = [this](const AgentRequest& request) { answered.push_back(request.job); },
        .now = [this] { return now; },
    };
  }

  fs::path outboxFile(const std::string& id) const {
    return AgentPaths::outboxFile(id, m_temp.path());
  }

  std::string writeRequest(WallTime createdAt, AgentCommand command = AgentCommand::enlarge,
                           std::string id = makeUuid()) {
    AgentRequest request;
    request.job = id;
    request.command = command;
    request.createdAt = createdAt;
    request.sources = {{"/photos/a.jpg", AgentSourceKind::file}};
    request.dryRun = true;
    testing::writeText(AgentPaths::inboxFile(id, m_temp.path()), encodeRequest(request));
    return id;
  }

  std::optional<AgentResult> outbox(const std::string& id) const {
    if (!fs::exists(outboxFile(id))) return std::nullopt;
    return decodeResult(testing::readBytes(outboxFile(id)));
  }

  // The job ends: its final document, then the completion. `id` is a copy,
  // since callers pass a key of `pending`, which this erases.
  void finish(std::string id) {
    const auto done = std::move(pending.at(id));
    pending.erase(id);
    const AgentResult result = makeResult(id, AgentResultState::completed);
    write(result);
    done(result);
  }

  bool onboarded = true;
  bool writesAtOnce = true;
  bool rejectFails = false;
  WallTime now = kNow;
  std::vector<AgentRequest> submitted;
  std::map<std::string, std::function<void(const AgentResult&)>> pending;
  std::vector<std::string> notified, answered, logs;
  int quits = 0;

 private:
  AgentResult makeResult(const std::string& id, AgentResultState state) const {
    AgentResult result = makeRejectedResult(id, std::nullopt, {}, kApp, now);
    result.state = state;
    result.error.reset();
    return result;
  }
  void write(const AgentResult& result) {
    AgentFileStore::writeAtomically(encodeResult(result), outboxFile(result.job),
                                    Durability::ordered);
  }

  testing::TempDir m_temp;
};

TEST(AgentURLHandler, RunsAJobOnceHoweverOftenItsURLArrives) {
  Host host;
  AgentURLHandler handler(host.dependencies());
  const std::string id = host.writeRequest(kNow);
  handler.handleURL(AgentURL::runURL("tarnbloom", id), true);
  ASSERT_EQ(host.submitted.size(), 1u);
  EXPECT_EQ(host.quits, 0) << "the job service quits when the job is done";
  handler.handleURL("TARNBLOOM://AGENT?job=" + id, false);
  EXPECT_EQ(host.submitted.size(), 1u);
  EXPECT_EQ(host.logs, std::vector<std::string>{"job " + id +
                                                " already has an outbox document; ignoring the "
                                                "repeat"});

  // A service that writes its first document later: the repeat in between
  // still finds the job taken, and after the end the document does.
  host.writesAtOnce = false;
  host.logs.clear();
  const std::string later = host.writeRequest(kNow);
  handler.handle(Route::run(later), false);
  handler.handle(Route::run(lowerCased(later)), false);
  EXPECT_EQ(host.submitted.size(), 2u);
  host.finish(later);
  EXPECT_EQ(host.notified, std::vector<std::string>{later});
  handler.handle(Route::run(later), false);
  EXPECT_EQ(host.submitted.size(), 2u);
  EXPECT_EQ(host.logs,
            (std::vector<std::string>{
                "job " + lowerCased(later) + " is already running; ignoring the repeat",
                "job " + later + " already has an outbox document; ignoring the repeat"}));

  // The URL's spelling of the id names every document of the job.
  const std::string upper = host.writeRequest(kNow);
  std::filesystem::rename(
      AgentPaths::jobFile(host.dependencies().inboxDirectory, upper),
      AgentPaths::jobFile(host.dependencies().inboxDirectory, lowerCased(upper)));
  handler.handle(Route::run(lowerCased(upper)), false);
  ASSERT_EQ(host.submitted.size(), 3u);
  EXPECT_EQ(host.submitted.back().job, lowerCased(upper));
}

TEST(AgentURLHandler, RefusalsReachTheCallerAsRejectedDocuments) {
  Host host;
  AgentURLHandler handler(host.dependencies());
  // Handles a run URL that launched the application; a refusal must let it
  // quit again.
  const auto refused = [&](const std::string& id) {
    const int quits = host.quits;
    const size_t submitted = host.submitted.size();
    handler.handle(Route::run(id), true);
    EXPECT_EQ(host.submitted.size(), submitted) << id;
    EXPECT_EQ(host.quits, quits + 1) << id;
    const auto result = host.outbox(id);
    if (result) {
      EXPECT_EQ(result->state, AgentResultState::rejected);
    }
    return result;
  };

  host.onboarded = false;
  auto result = refused(host.writeRequest(kNow));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error, onboardingIncompleteError());
  EXPECT_EQ(exitCode(*result), AgentExitCode::appUnavailable);
  host.onboarded = true;

  const std::string absent = makeUuid();
  EXPECT_FALSE(refused(absent)) << "no caller to tell";
  EXPECT_EQ(host.logs.back(), "no inbox file for job " + absent);

  const std::string garbage = makeUuid();
  testing::writeText(AgentPaths::jobFile(host.dependencies().inboxDirectory, garbage), "{");
  result = refused(garbage);
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error->message, "The request file is not a valid agent request.");
  EXPECT_FALSE(result->request) << "nothing could be read to echo";

  // Five minutes of clock difference are tolerated, a day's age too.
  for (const auto createdAt : {kNow + 299s, kNow - 24h}) {
    const std::string id = host.writeRequest(createdAt);
    handler.handle(Route::run(id), false);
    EXPECT_EQ(host.submitted.back().job, id);
  }
  result = refused(host.writeRequest(kNow + 301s));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error, AgentErrorInfo::requestFromTheFuture());
  ASSERT_TRUE(result->request) << "a request that was read is echoed";
  EXPECT_EQ(result->dryRun, true);
  result = refused(host.writeRequest(kNow - 24h - 1s));
  ASSERT_TRUE(result);
  EXPECT_EQ(result->error, AgentErrorInfo::requestExpired());

  // An outbox that cannot be written leaves only the log, with its reason.
  host.rejectFails = true;
  EXPECT_NO_THROW(refused(host.writeRequest(kNow + 1h)));
  EXPECT_NE(host.logs.back().find(std::strerror(EACCES)), std::string::npos) << host.logs.back();
}

TEST(AgentURLHandler, AnswersInformationAndCancelsOnlyKnownJobs) {
  Host host;
  AgentURLHandler handler(host.dependencies());
  const std::string status = host.writeRequest(kNow, AgentCommand::status);
  const std::string work = host.writeRequest(kNow, AgentCommand::cancel);
  handler.handle(Route::run(status), false);
  handler.handle(Route::run(work), false);
  EXPECT_EQ(host.answered, std::vector<std::string>{status});
  ASSERT_EQ(host.submitted.size(), 1u) << "a cancel request is a job of its own";
  EXPECT_EQ(host.submitted[0].job, work);

  host.logs.clear();
  handler.handleURL(AgentURL::cancelURL("tarnbloom", work), false);
  EXPECT_TRUE(host.logs.empty());
  const std::string unknown = makeUuid();
  handler.handleURL(AgentURL::cancelURL("tarnbloom", unknown), true);
  handler.handleURL("tarnbloom://agent-cancel?job=" + unknown + "/", true);
  EXPECT_EQ(host.logs,
            (std::vector<std::string>{"cancel for unknown job " + unknown,
                                      "ignored an agent URL with a missing or invalid job id"}));
  EXPECT_EQ(host.quits, 2);
}

TEST(AgentURLHandler, ABurstOfURLsStartsEachJobOnce) {
  Host host;
  AgentURLHandler handler(host.dependencies());
  std::mt19937 random(1114);
  std::vector<std::string> withFile, withoutFile;
  for (int i = 0; i < 200; ++i) withFile.push_back(host.writeRequest(kNow));
  for (int i = 0; i < 50; ++i) withoutFile.push_back(makeUuid());

  // Jobs end at random points of the burst; half the service's documents
  // appear only when the job ends.
  size_t invalid = 0;
  for (int i = 0; i < 5000; ++i) {
    host.writesAtOnce = random() % 2;
    const auto pick = [&](const std::vector<std::string>& ids) {
      return ids[random() % ids.size()];
    };
    switch (random() % 5) {
      case 0:
      case 1:
        handler.handleURL("tarnbloom://" + std::string(random() % 2 ? "agent" : "Agent") +
                              "?job=" + pick(withFile),
                          false);
        break;
      case 2:
        handler.handleURL(AgentURL::runURL("tarnbloom", pick(withoutFile)), false);
        break;
      case 3:
        handler.handleURL(AgentURL::runURL("tarnbloom", pick(withFile)).substr(0, 40), false);
        ++invalid;
        break;
      case 4:
        if (!host.pending.empty()) host.finish(host.pending.begin()->first);
        break;
    }
  }
  std::map<std::string, int> runs;
  for (const AgentRequest& request : host.submitted) ++runs[request.job];
  for (const auto& [id, count] : runs) EXPECT_EQ(count, 1) << id;
  EXPECT_GT(runs.size(), 150u);
  for (const std::string& id : withoutFile) EXPECT_FALSE(host.outbox(id)) << id;
  EXPECT_EQ(std::count(host.logs.begin(), host.logs.end(),
                       "ignored an agent URL with a missing or invalid job id"),
            static_cast<long>(invalid));
}

}  // namespace
}  // namespace tarnbloom::agent
