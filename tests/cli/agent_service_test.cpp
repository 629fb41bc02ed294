#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>

#include "test_support.h"

// The automation route as another program uses it: a request file written
// by hand, a tarnbloom:// URL handed over with `tarnbloom url`, and the
// result document in the outbox, with the real service behind it.
namespace tarnbloom {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;

struct Instance {
  testing::TempDir dir;
  fs::path home = dir / "home";

  Instance() {
    fs::create_directories(home);
    // A person ran Tarnbloom once, so URLs from other programs are taken.
    EXPECT_EQ(run("doctor >/dev/null"), 0);
  }
  ~Instance() { stop(); }

  int run(const std::string& arguments, std::string* output = nullptr) const {
    if (output) output->clear();
    return testing::runCommand("TARNBLOOM_HOME='" + home.string() + "' " + TARNBLOOM_CLI + " " +
                                   arguments,
                               output);
  }

  // The instance of this state folder, found by its command line and
  // environment; 0 when none runs.
  pid_t servicePID() const {
    std::string pid;
    testing::runCommand("for p in $(pgrep -f 'tarnbloom service'); do grep -qz 'TARNBLOOM_HOME=" +
                            home.string() + "$' /proc/$p/environ 2>/dev/null && echo $p; done",
                        &pid);
    return pid.empty() ? 0 : std::stoi(pid);
  }
  void stop() const {
    if (const pid_t pid = servicePID()) ::kill(pid, SIGKILL);
  }

  std::string submit(json request) const {
    static int counter = 0;
    char id[37];
    std::snprintf(id, sizeof id, "6f1c2d3e-4b5a-4c6d-8e7f-%012d", ++counter);
    request["schema"] = "com.tarnbloom.agent.request/1";
    request["protocol"] = 1;
    request["job"] = id;
    std::time_t now = std::time(nullptr);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&now));
    request["created_at"] = stamp;
    fs::create_directories(home / "Agent" / "inbox");
    testing::writeText(home / "Agent" / "inbox" / (std::string(id) + ".json"), request.dump());
    EXPECT_EQ(run("url 'tarnbloom://agent?job=" + std::string(id) + "'"), 0);
    return id;
  }

  fs::path outputFolder() const {
    fs::create_directories(dir / "out");
    return dir / "out";
  }
  std::vector<fs::path> photos(int count) const {
    std::vector<fs::path> files;
    for (int i = 0; i < count; ++i) {
      files.push_back(dir / ("cat" + std::to_string(i) + ".png"));
      fs::copy_file(testing::samplePath("chelsea.png"), files.back());
    }
    return files;
  }

  fs::path outbox(const std::string& job) const {
    return home / "Agent" / "outbox" / (job + ".json");
  }
  // The result document once it is final (or after a minute).
  json result(const std::string& job) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (;;) {
      std::error_code error;
      if (fs::exists(outbox(job), error)) {
        const json document = json::parse(testing::readText(outbox(job)));
        if (document["state"] != "running") return document;
      }
      if (std::chrono::steady_clock::now() > deadline) return json();
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
};

json enlargeRequest(const std::vector<fs::path>& files, const fs::path& out) {
  json sources = json::array();
  for (const auto& file : files) sources.push_back({{"path", file.string()}, {"kind", "file"}});
  return {{"command", "enlarge"},
          {"sources", sources},
          {"size", {{"mode", "x2"}}},
          {"method", "exact"},
          {"format", "png"},
          {"out", out.string()}};
}

TEST(AgentService, AForeignRequestExportsWithReceiptsAndARepeatedURLRunsNothingAgain) {
  Instance instance;
  const fs::path out = instance.dir / "out";
  fs::create_directories(out);
  const fs::path photo = instance.dir / "cat.png";
  fs::copy_file(testing::samplePath("chelsea.png"), photo);
  const std::string job = instance.submit(enlargeRequest({photo}, out));
  const json result = instance.result(job);
  ASSERT_EQ(result["state"], "completed") << result.dump(2);
  ASSERT_EQ(result["items"].size(), 1u);
  const json& item = result["items"][0];
  EXPECT_EQ(item["output"], (out / "cat_902x600.png").string());
  EXPECT_TRUE(fs::exists(item["output"].get<std::string>()));
  EXPECT_TRUE(fs::exists(item["receipt"].get<std::string>()));
  EXPECT_EQ(result["counts"]["completed"], 1);

  // The same URL again (twice at once): the outbox answers, nothing runs.
  const std::string url = "url 'tarnbloom://agent?job=" + job + "'";
  EXPECT_EQ(instance.run(url + " & " + TARNBLOOM_CLI + " " + url + "; wait"), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  EXPECT_EQ(testing::filesIn(out).size(), 1u);
  std::string status;
  EXPECT_EQ(instance.run("status " + job, &status), 0);
  EXPECT_NE(status.find("completed"), std::string::npos) << status;

  // A refused request still gets its document: an output folder that is
  // relative.
  json relative = enlargeRequest({photo}, "out");
  const std::string refused = instance.submit(relative);
  const json rejected = instance.result(refused);
  EXPECT_EQ(rejected["state"], "rejected");
  EXPECT_EQ(rejected["error"]["code"], "not_absolute_path");
  EXPECT_EQ(instance.run("status " + refused + " >/dev/null"), 1);
}

TEST(AgentService, AKilledServiceLeavesAJobTheNextInstanceFinishesTruthfully) {
  Instance instance;
  const fs::path out = instance.outputFolder();
  const auto photos = instance.photos(6);
  json request = enlargeRequest(photos, out);
  request["size"] = {{"mode", "x8"}};
  request["method"] = "clarity";
  const std::string job = instance.submit(request);
  // Killed once the document says the first file is published, while the
  // rest are still to come (a staging file in the folder is not enough).
  const auto published = [&] {
    std::error_code error;
    if (!fs::exists(instance.outbox(job), error)) return false;
    const json document = json::parse(testing::readText(instance.outbox(job)), nullptr, false);
    if (document.is_discarded()) return false;
    for (const auto& item : document["items"])
      if (item["state"] == "completed") return true;
    return false;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (!published() && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  instance.stop();

  // Any caller wakes a new instance, which finishes the document from what
  // was really published.
  EXPECT_EQ(instance.run("doctor >/dev/null"), 0);
  const json result = instance.result(job);
  ASSERT_TRUE(result["state"] == "partial" || result["state"] == "failed") << result.dump(2);
  int completed = 0;
  for (const auto& item : result["items"]) {
    if (item["state"] == "completed") {
      ++completed;
      EXPECT_TRUE(fs::exists(item["output"].get<std::string>()));
      EXPECT_TRUE(fs::exists(item["receipt"].get<std::string>()));
    } else {
      EXPECT_EQ(item["state"], "failed");
      EXPECT_EQ(item["error"]["code"], "app_quit");
    }
  }
  EXPECT_EQ(result["counts"]["completed"], completed);
  EXPECT_GE(completed, 1);
  // Nothing was exported twice: every output has its own planned name.
  std::set<std::string> names;
  for (const auto& file : testing::filesIn(out))
    if (file.extension() == ".png") names.insert(file.filename().string());
  EXPECT_EQ(names.count("cat0_7216x4800 2.png"), 0u);
}

TEST(AgentService, ACancelledJobEndsCancelledAndKeepsWhatFinished) {
  Instance instance;
  const fs::path out = instance.outputFolder();
  const auto photos = instance.photos(6);
  json request = enlargeRequest(photos, out);
  request["size"] = {{"mode", "x8"}};
  const std::string job = instance.submit(request);
  EXPECT_EQ(instance.run("cancel " + job), 0);
  const json result = instance.result(job);
  EXPECT_EQ(result["state"], "cancelled") << result.dump(2);
  EXPECT_EQ(result["error"]["code"], "cancelled");
  EXPECT_GE(result["counts"]["cancelled"].get<int>(), 1);
  for (const auto& item : result["items"])
    if (item["state"] == "completed") EXPECT_TRUE(fs::exists(item["output"].get<std::string>()));
  EXPECT_EQ(instance.run("status " + job + " >/dev/null"), 130);
  EXPECT_EQ(instance.run("cancel 00000000-0000-4000-8000-000000000000 2>/dev/null"), 1);
}

}  // namespace
}  // namespace tarnbloom
