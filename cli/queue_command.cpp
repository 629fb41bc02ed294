#include "cli/queue_command.h"

#include <iostream>
#include <map>
#include <utility>

#include "cli/exit_codes.h"
#include "cli/export_session.h"
#include "cli/help_option.h"
#include "export/file_bookmark.h"

namespace tarnbloom::cli {

using namespace exporting;

namespace {

constexpr const char* kUsage =
    "Usage: tarnbloom queue            list the saved export queue\n"
    "       tarnbloom queue resume     finish exports a quit or crash interrupted\n"
    "       tarnbloom queue retry      run failed and stopped exports again\n";

void list(ExportSession& session) {
  const auto& jobs = session.queue().jobs();
  if (jobs.empty()) {
    std::cout << "The export queue is empty.\n";
    return;
  }
  for (const auto& job : jobs) {
    std::map<ExportQueueItemState, int> counts;
    for (const auto& item : job.items) ++counts[item.state];
    std::string settings;
    try {
      const ExportOptions options = job.options.options();
      settings = std::string(title(options.method)) + ", " + options.sizeLabel() + ", " +
                 (options.formatFollowsSource ? "same format"
                                              : std::string(encoding::title(options.format)));
    } catch (const ExportQueueError& error) {
      settings = error.description();
    }
    std::cout << "Job " << job.id << "  " << job.created.value_or("") << "  " << settings << '\n';
    std::cout << "  " << job.items.size() << (job.items.size() == 1 ? " file:" : " files:");
    const char* separator = " ";
    for (const auto& [state, count] : counts) {
      std::cout << separator << count << ' ' << rawValue(state);
      separator = ", ";
    }
    std::cout << '\n';
    for (const auto& item : job.items) {
      if (item.state == ExportQueueItemState::completed) continue;
      std::cout << "    " << rawValue(item.state) << "  " << item.sourceName;
      if (const auto path = FileBookmark::recordedPath(item.inputBookmark))
        std::cout << "  (" << path->string() << ")";
      if (item.errorText) std::cout << "\n      " << *item.errorText;
      std::cout << '\n';
    }
  }
}

}  // namespace

int runQueue(const std::vector<std::string>& arguments) {
  if (wantsHelp(arguments)) {
    std::cout << kUsage;
    return kExitSuccess;
  }
  if (arguments.size() > 1 ||
      (arguments.size() == 1 && arguments[0] != "resume" && arguments[0] != "retry")) {
    std::cerr << kUsage;
    return kExitUsage;
  }
  std::unique_ptr<ExportSession> session;
  try {
    session = std::make_unique<ExportSession>();
  } catch (const Error& error) {
    std::cerr << "tarnbloom queue: " << error.description() << '\n';
    return kExitFailure;
  }
  session->reportLoadFailure();
  if (arguments.empty()) {
    list(*session);
    return kExitSuccess;
  }
  const RecoveryReport recovery = session->recover(true);
  if (recovery.completed > 0)
    std::cout << recovery.completed
              << (recovery.completed == 1 ? " interrupted export was already complete"
                                          : " interrupted exports were already complete")
              << " and will not be exported again.\n";
  int unreadable = 0;
  if (arguments[0] == "resume") {
    std::vector<std::string> ids;
    for (const auto* job : session->queue().pendingJobs()) ids.push_back(job->id);
    for (const auto& id : ids) {
      const auto* job = session->queue().job(id);
      try {
        session->controller().resume(*job);
      } catch (const ExportQueueError& error) {
        std::cout << "Job " << id << ": " << error.description() << '\n';
        ++unreadable;
      }
    }
    if (ids.empty()) std::cout << "No interrupted exports to resume.\n";
  } else {
    std::vector<std::pair<std::string, std::vector<std::string>>> byJob;
    for (const auto& job : session->queue().jobs()) {
      std::vector<std::string> items;
      for (const auto* item : session->queue().retryableItems(job)) items.push_back(item->id);
      if (!items.empty()) byJob.emplace_back(job.id, std::move(items));
    }
    // Each job's failures become a new job of their own.
    for (const auto& [jobID, items] : byJob) {
      try {
        session->controller().retry(items);
      } catch (const ExportQueueError& error) {
        std::cout << "Couldn’t retry export: " << error.description() << '\n';
        ++unreadable;
      }
    }
    if (byJob.empty()) std::cout << "No failed exports to retry.\n";
  }
  session->countFailedBeforeRun(unreadable + static_cast<int>(recovery.leftOut.size()));
  return session->run();
}

}  // namespace tarnbloom::cli
