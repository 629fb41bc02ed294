#include "agent/agent_inbox.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <future>

#include "agent/agent_file_store.h"
#include "agent/agent_paths.h"
#include "agent/agent_request.h"
#include "test_support.h"

namespace tarnbloom::agent {
namespace {

namespace fs = std::filesystem;
using Kind = AgentInboxFailure::Kind;
using testing::TempDir;
using testing::writeText;

constexpr std::string_view kJob = "0F8A3C2E-5B1D-4E7A-9C6B-2D4F8E1A3B5C";

std::string requestText(std::string_view job = kJob) {
  AgentRequest request;
  request.job = std::string(job);
  request.createdAt = *AgentProtocol::parseTimestamp("2026-11-14T21:06:21Z");
  request.sources = {{"/photos/a.jpg", AgentSourceKind::file}};
  return encodeRequest(request);
}

// The failure a load gives, or nothing when it reads a request.
std::optional<AgentInboxFailure> failureOf(const AgentInboxLoad& loaded) {
  if (const auto* failure = std::get_if<AgentInboxFailure>(&loaded)) return *failure;
  return std::nullopt;
}

class AgentInboxFiles : public ::testing::Test {
 protected:
  fs::path file(std::string_view job = kJob) const { return AgentPaths::jobFile(m_inbox, job); }
  AgentInboxLoad load(std::string_view job = kJob) const {
    return AgentInbox::load(job, m_inbox, ::geteuid());
  }
  std::optional<Kind> kindOf(std::string_view job = kJob) const {
    const auto failure = failureOf(load(job));
    return failure ? std::optional(failure->kind()) : std::nullopt;
  }

  TempDir m_temp;
  fs::path m_inbox = m_temp / "inbox";
  void SetUp() override { fs::create_directory(m_inbox); }
};

TEST_F(AgentInboxFiles, ReadsTheCallersRequestUpToExactlyTheSizeLimit) {
  EXPECT_EQ(kindOf(), Kind::notFound);

  // The URL's id in another case names the same job; the file is looked up
  // under the URL's spelling.
  std::string lower(kJob);
  for (char& c : lower) c = char(std::tolower(c));
  writeText(file(lower), requestText(kJob));
  const auto loaded = load(lower);
  ASSERT_FALSE(failureOf(loaded)) << failureOf(loaded)->details();
  EXPECT_EQ(std::get<AgentRequest>(loaded).job, kJob);

  // Trailing white space is part of the document, so size alone decides.
  const std::string text = requestText();
  writeText(file(), text + std::string(AgentProtocol::maxRequestBytes - text.size(), ' '));
  EXPECT_FALSE(failureOf(load())) << "exactly 1,048,576 bytes is read";
  writeText(file(), text + std::string(AgentProtocol::maxRequestBytes + 1 - text.size(), ' '));
  EXPECT_EQ(kindOf(), Kind::tooLarge);

  writeText(file(), requestText("11111111-2222-3333-4444-555555555555"));
  EXPECT_EQ(kindOf(), Kind::jobMismatch);
}

TEST_F(AgentInboxFiles, RefusesAnythingButARegularFileOfTheUser) {
  const fs::path valid = m_temp / "valid.json";
  writeText(valid, requestText());

  // A link is refused even when it leads to a good request: it could as
  // well lead to a file the caller may not read.
  fs::create_symlink(valid, file());
  EXPECT_EQ(kindOf(), Kind::notRegularFile);
  fs::remove(file());
  fs::create_symlink("/etc/passwd", file());
  EXPECT_EQ(kindOf(), Kind::notRegularFile);
  fs::remove(file());

  fs::create_directory(file());
  EXPECT_EQ(kindOf(), Kind::notRegularFile);
  fs::remove(file());

  // A FIFO with no writer must not block the application's main thread.
  ASSERT_EQ(::mkfifo(file().c_str(), 0600), 0);
  auto pending = std::async(std::launch::async, [&] { return kindOf(); });
  if (pending.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
    // Unblock the reader so the test can end, then fail.
    const int writer = ::open(file().c_str(), O_WRONLY | O_NONBLOCK);
    if (writer >= 0) ::close(writer);
    FAIL() << "loading a FIFO blocked";
  }
  EXPECT_EQ(pending.get(), Kind::notRegularFile);
  fs::remove(file());

  fs::copy_file(valid, file());
  const auto foreign = failureOf(AgentInbox::load(kJob, m_inbox, ::geteuid() + 1));
  ASSERT_TRUE(foreign);
  EXPECT_EQ(foreign->kind(), Kind::wrongOwner);
  EXPECT_EQ(foreign->description(), "The request file is not owned by the current user.");

  if (::geteuid() == 0) {
    // Another user's file in our inbox (root can plant one) is not ours.
    ASSERT_EQ(::chown(file().c_str(), 65534, 65534), 0);
    EXPECT_EQ(kindOf(), Kind::wrongOwner);
  } else {
    // Permissions stop everyone but root.
    fs::permissions(file(), fs::perms::none);
    const auto failure = failureOf(load());
    ASSERT_TRUE(failure);
    EXPECT_EQ(failure->kind(), Kind::unreadable);
    EXPECT_EQ(failure->details(), std::strerror(EACCES));
  }
}

TEST_F(AgentInboxFiles, RefusesDocumentsThatAreNotRequestsAndSaysWhy) {
  const std::string valid = requestText();
  const auto replaced = [&](const std::string& from, const std::string& to) {
    std::string text = valid;
    return text.replace(text.find(from), from.size(), to);
  };
  // Whatever the reader refuses comes out as "invalid", the exact fault
  // kept for the log.
  for (const std::string& text :
       {replaced("a.jpg", "caf\xe9.jpg"), replaced("\"/photos/a.jpg\"", std::string(100'000, '[')),
        replaced("\"job\"", "\"priority\":1,\"job\""),
        replaced("\"job\"", "\"strength\":\"0.5\",\"job\"")}) {
    writeText(file(), text);
    const auto failure = failureOf(load());
    ASSERT_TRUE(failure) << text.substr(0, 200);
    EXPECT_EQ(failure->errorInfo(),
              (AgentErrorInfo{AgentErrorCode::invalidArgument,
                              "The request file is not a valid agent request."}));
    EXPECT_FALSE(failure->details().empty());
  }

  // A newer caller hears that its protocol is not spoken here.
  writeText(file(), replaced("\"protocol\": 1", "\"protocol\": 2"));
  const auto newer = failureOf(load());
  ASSERT_TRUE(newer);
  EXPECT_EQ(newer->kind(), Kind::invalid);
  EXPECT_EQ(newer->errorInfo(), AgentErrorInfo::versionMismatch());

  // Only a job id names a file; "../x" never leaves the inbox.
  EXPECT_EQ(kindOf("../outbox/x"), Kind::notFound);
  EXPECT_THROW(AgentPaths::outboxFile("../../etc/passwd", m_temp.path()), AgentProtocolError);
}

TEST(AgentFileStore, CreatesPrivateFoldersAndReplacesFilesWhole) {
  TempDir temp;
  const fs::path outbox = temp / "Agent" / "outbox";
  AgentFileStore::ensureDirectory(outbox / "");
  AgentFileStore::ensureDirectory(outbox);  // again: nothing to do
  for (const fs::path& folder : {temp / "Agent", outbox})
    EXPECT_EQ(fs::status(folder).permissions() & fs::perms::all, fs::perms::owner_all) << folder;

  const fs::path target = outbox / "result.json";
  AgentFileStore::writeAtomically(std::string_view("first"), target, Durability::ordered);
  AgentFileStore::writeAtomically(std::string_view("second"), target);
  EXPECT_EQ(testing::readText(target), "second");
  EXPECT_EQ(fs::status(target).permissions() & fs::perms::all,
            fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(testing::filesIn(outbox), std::vector<fs::path>{target}) << "no temporary file left";

  // Our files never go where a link or a file in our place points.
  writeText(temp / "plain", "x");
  fs::create_directory_symlink(temp / "Agent", temp / "linked");
  for (const fs::path& taken : {temp / "plain", temp / "linked"}) {
    try {
      AgentFileStore::ensureDirectory(taken);
      ADD_FAILURE() << taken << " was accepted";
    } catch (const FileError& error) {
      EXPECT_EQ(error.errnoValue(), taken == temp / "plain" ? ENOTDIR : ELOOP);
    }
  }

  if (::geteuid() != 0) {
    // The system's own reason reaches the message.
    fs::permissions(outbox, fs::perms::owner_read | fs::perms::owner_exec);
    try {
      AgentFileStore::writeAtomically(std::string_view("third"), target);
      ADD_FAILURE() << "wrote into a read-only folder";
    } catch (const FileError& error) {
      EXPECT_NE(error.description().find(std::strerror(EACCES)), std::string::npos);
    }
    EXPECT_EQ(testing::readText(target), "second");
    fs::permissions(outbox, fs::perms::owner_all);
  }
}

}  // namespace
}  // namespace tarnbloom::agent
