#include "cli/job_follower.h"

#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <map>

#include "agent/agent_protocol.h"
#include "cli/exit_codes.h"
#include "engine/render_progress_model.h"
#include "support/settings.h"
#include "support/uuid.h"

namespace tarnbloom::cli {

namespace fs = std::filesystem;
using namespace agent;

namespace {

std::atomic<bool> g_interrupted{false};

void onInterrupt(int) {
  g_interrupted = true;
  std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the caller at once
}

std::string plural(int64_t n, const char* one, const char* many) {
  return std::to_string(n) + " " + (n == 1 ? one : many);
}

std::string fileName(const std::string& path) { return fs::path(path).filename().string(); }

// Prints each item once, when it ends, and a bar for the one that runs.
class JobPrinter {
 public:
  void update(const AgentResult& result) {
    for (size_t i = 0; i < result.items.size(); ++i) {
      const AgentItem& item = result.items[i];
      if (item.state == AgentItemState::pending) continue;
      if (item.state == AgentItemState::running) {
        drawBar(i, result.items.size(), item);
        continue;
      }
      if (m_printed.count(i)) continue;
      m_printed.insert({i, true});
      clearBar();
      printItem(item);
    }
  }

  void summary(const AgentResult& result) {
    clearBar();
    const AgentCounts& counts = result.counts;
    if (result.plan) {
      for (const auto& item : result.plan->items)
        std::cout << fileName(item.source) << " → " << item.output << " (" << item.width << " × "
                  << item.height << ")"
                  << (item.action == AgentPlanAction::exportItem
                          ? ""
                          : std::string(" [") + std::string(rawValue(item.action)) + "]")
                  << '\n';
      for (const auto& item : result.items) printItem(item);
      std::cout << plural(result.plan->willExport(), "file", "files") << " would be exported, "
                << result.plan->willSkip() << " skipped. Nothing was exported (dry run).\n";
      return;
    }
    if (result.state == AgentResultState::rejected && result.error) {
      std::cerr << "tarnbloom: " << result.error->message << '\n';
      return;
    }
    if (result.error && (result.error->code == AgentErrorCode::appQuit ||
                         result.error->code == AgentErrorCode::timeout))
      std::cerr << "tarnbloom: " << result.error->message << '\n';
    if (counts.completed == 0)
      std::cout << "No files exported.\n";
    else
      std::cout << "Exported " << plural(counts.completed, "file", "files") << ".\n";
    if (counts.failed > 0) std::cout << counts.failed << " failed. See receipt.\n";
    if (counts.skipped > 0) std::cout << counts.skipped << " skipped. See receipt.\n";
    bool beside = false, enhanced = false, receipts = false;
    for (const auto& item : result.items) {
      if (item.state != AgentItemState::completed || !item.output) continue;
      beside =
          beside || fs::path(*item.output).parent_path() == fs::path(item.source).parent_path();
      enhanced = enhanced || item.aiDetail;
      receipts = receipts || item.receipt;
    }
    if (receipts)
      std::cout << (counts.completed == 1
                        ? "A job receipt (source, settings and AI disclosure) was saved for it.\n"
                        : "Job receipts (source, settings and AI disclosure) were saved for each "
                          "export.\n");
    if (counts.completed > 0 && beside) std::cout << "Saved next to the original.\n";
    if (enhanced) std::cout << "Contains AI-estimated detail.\n";
    std::cout.flush();
  }

 private:
  void printItem(const AgentItem& item) {
    const std::string name = fileName(item.source);
    switch (item.state) {
      case AgentItemState::completed:
        std::cout << name << " → " << item.output.value_or("") << " (" << item.width.value_or(0)
                  << " × " << item.height.value_or(0) << ")\n";
        for (const auto& note : item.notes) std::cout << "  " << note << '\n';
        break;
      case AgentItemState::failed:
        // The export's own reason when there is one, the protocol's else.
        std::cout << name << ": "
                  << (item.notes.empty() ? (item.error ? item.error->message : "failed.")
                                         : item.notes.front())
                  << '\n';
        for (size_t n = 1; n < item.notes.size(); ++n) std::cout << "  " << item.notes[n] << '\n';
        break;
      case AgentItemState::skipped:
        // A taken name is told by name, as a person would look for it.
        if (item.error && item.error->code == AgentErrorCode::outputExists && item.output)
          std::cout << name << ": skipped. “" << fileName(*item.output) << "” already exists.\n";
        else
          std::cout << name << ": skipped. " << (item.error ? item.error->message : "") << '\n';
        break;
      case AgentItemState::cancelled:
        std::cout << name << ": stopped before it was exported.\n";
        break;
      default:
        break;
    }
    std::cout.flush();
  }

  void drawBar(size_t index, size_t total, const AgentItem& item) {
    const std::string label = "[" + std::to_string(index + 1) + "/" + std::to_string(total) + "] " +
                              fileName(item.source);
    if (!m_terminal) {
      if (m_announced.insert({index, true}).second) std::fprintf(stderr, "%s\n", label.c_str());
      return;
    }
    const double fraction =
        (static_cast<double>(index) + item.progress.value_or(0)) / static_cast<double>(total);
    const int width = 24;
    const int filled = static_cast<int>(fraction * width);
    std::fprintf(stderr, "\r%s [%s%s] %d%%\033[K", label.c_str(), std::string(filled, '#').c_str(),
                 std::string(width - filled, '.').c_str(), static_cast<int>(fraction * 100));
    std::fflush(stderr);
    m_drawn = true;
  }

  void clearBar() {
    if (m_drawn) std::fprintf(stderr, "\r\033[K");
    m_drawn = false;
  }

  bool m_terminal = ::isatty(STDERR_FILENO) != 0;
  bool m_drawn = false;
  std::map<size_t, bool> m_printed;
  std::map<size_t, bool> m_announced;
};

}  // namespace

AgentAppInfo appInfo() { return {TARNBLOOM_VERSION, TARNBLOOM_VERSION, "com.tarnbloom.app"}; }

AgentRequest newRequest(AgentCommand command) {
  AgentRequest request;
  request.job = makeUuid();
  request.command = command;
  request.createdAt = std::chrono::system_clock::now();
  return request;
}

void completeOnboarding() {
  Settings settings = Settings::loadDefault();
  if (settings.boolean("onboarding.completed").value_or(false)) return;
  settings.set("onboarding.completed", true);
  try {
    settings.save();
  } catch (const std::exception& error) {
    std::cerr << "tarnbloom: the settings could not be saved: " << error.what() << '\n';
  }
}

int runAgentJob(AgentClient& client, const AgentRequest& request, const FollowOptions& options) {
  try {
    client.submit(request);
  } catch (const AgentProtocolError& error) {
    std::cerr << "tarnbloom: " << error.description();
    if (!error.details().empty()) std::cerr << ' ' << error.details();
    std::cerr << '\n';
    return rawValue(exitCode(error.code()));
  }
  if (options.noWait) {
    std::cout << request.job << '\n';
    return kExitSuccess;
  }
  JobPrinter printer;
  g_interrupted = false;
  auto previous = std::signal(SIGINT, onInterrupt);
  bool cancelSent = false;
  AgentClient::Follow follow;
  if (!options.json) follow.onUpdate = [&](const AgentResult& result) { printer.update(result); };
  follow.stop = [&] {
    if (g_interrupted && !cancelSent) {
      cancelSent = true;
      if (!options.json) std::cerr << "\rStopping after the current step…\033[K\n";
      try {
        client.cancel(request.job);
      } catch (const AgentProtocolError& error) {
        std::cerr << "tarnbloom: " << error.description() << '\n';
      }
    }
    return false;
  };
  std::optional<AgentResult> result;
  try {
    result = client.follow(request.job, follow);
  } catch (const Error& error) {
    std::signal(SIGINT, previous);
    std::cerr << "tarnbloom: " << error.description() << '\n';
    return kExitFailure;
  }
  std::signal(SIGINT, previous);
  if (!result) return kExitCancelled;
  if (options.json)
    std::cout << encodeResult(*result);
  else
    printer.summary(*result);
  return AgentClient::exitStatus(*result);
}

}  // namespace tarnbloom::cli
