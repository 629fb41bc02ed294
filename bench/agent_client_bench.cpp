// What handing a job to the running instance costs a caller: one photo
// enlarged 2x through the export controller in this process, against the
// same job written as a request, delivered to a warm `tarnbloom service`
// and followed to its result document (what `tarnbloom enlarge` does).
// Runs alternate; the median of the rounds' differences is the result.
//
//   agent_client_bench TARNBLOOM_EXECUTABLE [WORK_FOLDER]

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include "agent/agent_client.h"
#include "bench_support.h"
#include "export/export_controller.h"
#include "support/settings.h"
#include "support/uuid.h"

using namespace tarnbloom;
using namespace tarnbloom::exporting;
namespace fs = std::filesystem;

namespace {

double inProcess(const fs::path& source, const fs::path& out, const fs::path& state) {
  const auto start = std::chrono::steady_clock::now();
  EventLoop loop;
  LoopExecutor executor(loop, ExportController::kLanes);
  ExportQueueStore queue(state);
  ExportOperationLedger ledger(state / "Operations");
  ExportContext context;
  context.stateFolder = state;
  context.receiptsFolder = state / "Receipts";
  ExportController controller(executor, queue, ledger, context);
  controller.subscribe([&](const ExportEvent& event) {
    if (std::holds_alternative<events::Drained>(event)) loop.quit();
  });
  Submission submission;
  submission.items.push_back({source, out});
  submission.description.options.sizeMode = SizeMode::x2;
  submission.description.options.method = ResampleMethod::exact;
  submission.description.options.formatFollowsSource = true;
  submission.description.options.jpeg.quality = 85;
  submission.description.receiptsBesideExports = true;
  controller.submit(std::move(submission));
  loop.run();
  return bench::secondsSince(start);
}

double throughService(agent::AgentClient& client, const fs::path& source, const fs::path& out) {
  const auto start = std::chrono::steady_clock::now();
  agent::AgentRequest request;
  request.job = makeUuid();
  request.createdAt = std::chrono::system_clock::now();
  request.sources = {{source.string(), agent::AgentSourceKind::file}};
  request.size = agent::AgentSize{};
  request.method = agent::AgentMethod::exact;
  request.format = agent::AgentFormat::same;
  request.out = out.string();
  request.settings = agent::AgentExportSettings{};
  request.settings->receipts = agent::AgentReceipts::beside;
  client.submit(request);
  const auto result = client.follow(request.job, {});
  if (!result || result->counts.completed != 1) {
    std::fprintf(stderr, "the service did not export the photo\n");
    std::exit(1);
  }
  return bench::secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: agent_client_bench TARNBLOOM_EXECUTABLE [WORK_FOLDER]\n");
    return 2;
  }
  const fs::path executable = fs::absolute(argv[1]);
  const fs::path work = fs::absolute(argc > 2 ? argv[2] : "agent-client-bench-work");
  fs::remove_all(work);
  fs::create_directories(work / "in");
  const fs::path source = work / "in" / "photo.jpg";
  bench::writeFile(source, bench::encodeJpeg(bench::samplePhoto("rocket.jpg"), 90));
  const fs::path home = work / "home";
  ::setenv("TARNBLOOM_HOME", home.c_str(), 1);
  // A person has run Tarnbloom here: requests are taken.
  Settings settings = Settings::loadDefault();
  settings.set("onboarding.completed", true);
  settings.save();

  // A warm instance, as a desktop session has one; its start is timed once.
  const auto started = std::chrono::steady_clock::now();
  const pid_t service = ::fork();
  if (service == 0) {
    // --until-idle: it ends by itself however this benchmark ends.
    ::execl(executable.c_str(), executable.c_str(), "service", "--until-idle",
            static_cast<char*>(nullptr));
    ::_exit(127);
  }
  agent::AgentClient client(home, executable);
  fs::create_directories(work / "warm");
  const double cold = throughService(client, source, work / "warm");
  std::printf("first job, with the instance starting: %.0f ms\n",
              std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started)
                  .count());
  (void)cold;

  constexpr int kRounds = 15;
  std::vector<double> local, remote, differences;
  for (int round = 0; round < kRounds; ++round) {
    const fs::path out = work / ("out" + std::to_string(round));
    fs::create_directories(out / "local");
    fs::create_directories(out / "service");
    const fs::path state = work / ("state" + std::to_string(round));
    double a = 0, b = 0;
    if (round % 2 == 0) {
      a = inProcess(source, out / "local", state);
      b = throughService(client, source, out / "service");
    } else {
      b = throughService(client, source, out / "service");
      a = inProcess(source, out / "local", state);
    }
    local.push_back(a);
    remote.push_back(b);
    differences.push_back(b - a);
    std::printf("round %d: in process %.0f ms, through the service %.0f ms (%+.0f ms)\n", round,
                a * 1000, b * 1000, (b - a) * 1000);
  }
  ::kill(service, SIGTERM);
  ::waitpid(service, nullptr, 0);
  const double overhead = bench::median(differences) * 1000;
  std::printf(
      "one photo 2x: in process %.0f ms, through the service %.0f ms (medians of %d): the "
      "route costs %.0f ms (median of the rounds' differences; goal <= 100 ms)\n",
      bench::median(local) * 1000, bench::median(remote) * 1000, kRounds, overhead);
  fs::remove_all(work);
  return overhead <= 100 ? 0 : 1;
}
