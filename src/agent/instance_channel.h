#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "support/error.h"
#include "support/files.h"

namespace tarnbloom::agent {

// The longest message one connection carries, its newline not counted.
inline constexpr size_t kInstanceMessageLimit = 4096;

// A runtime folder we must not trust, a socket path the system cannot bind,
// or a message that is not one line.
class InstanceChannelError : public Error {
 public:
  enum class Kind { unsafeFolder, socketPathTooLong, invalidMessage };
  InstanceChannelError(Kind kind, std::filesystem::path path, std::string reason = {});
  Kind kind() const { return m_kind; }
  const std::filesystem::path& path() const { return m_path; }
  std::string description() const override;
  std::string recoverySuggestion() const override;

 private:
  Kind m_kind;
  std::filesystem::path m_path;
  std::string m_reason;
};

// Where the owner of a state folder listens. Every process that names the
// same state folder (after resolving links) gets the same address.
struct InstanceAddress {
  std::filesystem::path folder;  // private to this user: 0700, ours, no link
  std::filesystem::path socket;  // <folder>/<first 16 hex of SHA-256 of the state folder>.sock
  std::filesystem::path lock;    // same name, ".lock"; its flock decides who owns the socket

  // The address in runtimeFolder().
  static InstanceAddress forStateFolder(const std::filesystem::path& stateFolder);
  // The address in a folder the caller chooses (created on claim()).
  static InstanceAddress inFolder(const std::filesystem::path& folder,
                                  const std::filesystem::path& stateFolder);
};

// $XDG_RUNTIME_DIR/tarnbloom when XDG_RUNTIME_DIR names a folder of ours we
// can write and a socket path there fits, else /tmp/tarnbloom-<uid>. Only
// the choice: nothing is created or checked for safety here.
std::filesystem::path runtimeFolder();

// The owner's side: one per address, for the owner's whole life.
class InstanceOwner {
 public:
  // Takes one message line, returns the reply line. Runs on the listener
  // thread, one message at a time; an exception drops that connection
  // unanswered. It must not destroy the owner.
  using Handler = std::function<std::string(const std::string& line)>;

  // Creates the folder (0700) when missing and refuses one that is a link,
  // another user's or open to others (InstanceChannelError). Takes the lock,
  // replaces a socket a dead owner left, listens (0600) and serves on its
  // own thread. Returns nullptr when a live owner holds the lock; throws
  // FileError with the system's reason when the lock or socket cannot be made.
  static std::unique_ptr<InstanceOwner> claim(const InstanceAddress& address, Handler onMessage);

  // Stops serving (unanswered connections are closed), removes the socket,
  // then releases the lock.
  ~InstanceOwner();
  InstanceOwner(const InstanceOwner&) = delete;
  InstanceOwner& operator=(const InstanceOwner&) = delete;

 private:
  InstanceOwner(InstanceAddress address, Handler onMessage, FileDescriptor lock);
  void listen();
  void serve();

  InstanceAddress m_address;
  Handler m_onMessage;
  FileDescriptor m_lock;
  FileDescriptor m_listener;
  FileDescriptor m_wake;  // eventfd: written once to stop the listener thread
  bool m_bound = false;
  std::thread m_thread;
};

// One message, one reply line. Nothing when no owner listens (no folder or
// socket, a socket nobody listens on), when the owner went away, or when it
// did not answer within `timeout`. Throws InstanceChannelError for an unsafe
// folder or a message that is not one line of at most kInstanceMessageLimit
// bytes, FileError when the socket refuses us for another reason.
std::optional<std::string> sendToOwner(const InstanceAddress& address, const std::string& message,
                                       std::chrono::milliseconds timeout);

// Like sendToOwner, but when no owner listens it starts
// `executable service --until-idle` (its own session, working folder "/",
// standard streams on /dev/null, this environment) and keeps trying until
// one answers or `timeout` passes. Starting is harmless when another caller
// starts one too: only one can claim the address. A message the owner took
// but did not answer is never sent twice. Throws like sendToOwner, and
// FileError when the executable cannot be run.
std::optional<std::string> deliverToOwner(const InstanceAddress& address,
                                          const std::string& message,
                                          const std::filesystem::path& executable,
                                          std::chrono::milliseconds timeout);

}  // namespace tarnbloom::agent
