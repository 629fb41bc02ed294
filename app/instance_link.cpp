#include "app/instance_link.h"

#include <QDir>
#include <QFileInfo>
#include <QMetaObject>

#include "agent/agent_host.h"
#include "support/error.h"

namespace tarnbloom::app {

namespace {

constexpr std::chrono::milliseconds kReplyTimeout{2000};
constexpr const char* kOpenPrefix = "open ";
constexpr const char* kRaise = "raise";

}  // namespace

std::string instanceMessageFor(const QString& argument) {
  if (argument.startsWith(QStringLiteral("tarnbloom:"), Qt::CaseInsensitive)) return argument.toStdString();
  return kOpenPrefix + QFileInfo(argument).absoluteFilePath().toStdString();
}

InstanceLink::InstanceLink(const std::filesystem::path& stateFolder, QObject* parent)
    : QObject(parent), m_address(agent::InstanceAddress::forStateFolder(stateFolder)) {
  m_retry.setInterval(250);
  m_retry.setSingleShot(true);
  connect(&m_retry, &QTimer::timeout, this, &InstanceLink::tryClaim);
}

InstanceLink::~InstanceLink() = default;

bool InstanceLink::handToRunningWindow(const std::filesystem::path& stateFolder,
                                       const QStringList& arguments) {
  const auto address = agent::InstanceAddress::forStateFolder(stateFolder);
  try {
    // The first message tells a window from the headless service: only a
    // window opens photos.
    const auto first = agent::sendToOwner(address, kRaise, kReplyTimeout);
    if (!first || *first != kWindowReply) return false;
    for (const QString& argument : arguments) {
      const std::string message = instanceMessageFor(argument);
      if (message.size() > agent::kInstanceMessageLimit) continue;  // no file has such a name
      agent::sendToOwner(address, message, kReplyTimeout);
    }
    return true;
  } catch (const Error&) {
    // An unsafe runtime folder: this launch runs on its own.
    return false;
  }
}

void InstanceLink::claim() {
  m_attempts = 0;
  tryClaim();
}

void InstanceLink::tryClaim() {
  try {
    m_owner = agent::InstanceOwner::claim(m_address,
                                          [this](const std::string& line) { return answer(line); });
  } catch (const Error& error) {
    qWarning("Tarnbloom could not listen for other launches: %s", error.description().c_str());
    Q_EMIT owned();  // exports still work; other launches start their own instance
    return;
  }
  if (m_owner) {
    Q_EMIT owned();
    return;
  }
  // Someone else owns the folder. A headless service leaves once its work
  // is done; another window stays, and this one gives way.
  if (m_attempts++ % 8 == 0) {
    const auto reply = agent::sendToOwner(m_address, agent::AgentHost::kHandOverMessage, kReplyTimeout);
    if (reply && *reply == kWindowReply) {
      Q_EMIT anotherWindow();
      return;
    }
  }
  m_retry.start();
}

std::string InstanceLink::answer(const std::string& line) {
  // The listener thread: everything else happens on the window's.
  if (line == "ping") return "ok";
  if (line == kRaise || line == agent::AgentHost::kHandOverMessage) {
    QMetaObject::invokeMethod(this, [this] { Q_EMIT openRequested({}); }, Qt::QueuedConnection);
    return kWindowReply;
  }
  if (line.rfind(kOpenPrefix, 0) == 0) {
    const QString path = QString::fromStdString(line.substr(std::char_traits<char>::length(kOpenPrefix)));
    QMetaObject::invokeMethod(this, [this, path] { Q_EMIT openRequested({path}); }, Qt::QueuedConnection);
    return kWindowReply;
  }
  const QString link = QString::fromStdString(line);
  QMetaObject::invokeMethod(this, [this, link] { Q_EMIT linkReceived(link); }, Qt::QueuedConnection);
  return "ok";
}

}  // namespace tarnbloom::app
