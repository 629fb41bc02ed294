#pragma once

#include <filesystem>
#include <memory>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>

#include "agent/instance_channel.h"

namespace tarnbloom::app {

// The window's side of the running instance. One process owns a state
// folder's instance at a time; the window takes it over from a headless
// service (which finishes its work first), so that agent links, `tarnbloom`
// commands, file-manager entries and second launches all reach the window.
class InstanceLink : public QObject {
  Q_OBJECT

 public:
  // What a window answers when asked to leave: it stays.
  static constexpr const char* kWindowReply = "window";

  explicit InstanceLink(const std::filesystem::path& stateFolder, QObject* parent = nullptr);
  ~InstanceLink() override;

  // Before a window exists: hands a launch's arguments (photos and
  // tarnbloom:// links) to a window that already runs, which shows itself.
  // False when there is none (nothing was sent), or when the owner is the
  // headless service: this launch then becomes the window.
  static bool handToRunningWindow(const std::filesystem::path& stateFolder, const QStringList& arguments);

  // Claims the instance, asking a headless owner to leave and trying again
  // until it has; `owned` follows, or `anotherWindow` when a window that
  // started at the same moment won.
  void claim();
  bool owns() const { return m_owner != nullptr; }

 Q_SIGNALS:
  void owned();
  void anotherWindow();
  // Photos another launch asked for; none: just come to the front.
  void openRequested(const QStringList& paths);
  // A tarnbloom:// link, for the export host.
  void linkReceived(const QString& link);

 private:
  void tryClaim();
  std::string answer(const std::string& line);

  agent::InstanceAddress m_address;
  std::unique_ptr<agent::InstanceOwner> m_owner;
  QTimer m_retry;
  int m_attempts = 0;
};

// The message that hands one launch argument over: a link as it stands, a
// file as "open" and its absolute path.
std::string instanceMessageFor(const QString& argument);

}  // namespace tarnbloom::app
