#include "app/desktop_notifier.h"

#include <QVariantMap>
#ifdef TARNBLOOM_HAVE_DBUS
#include <QDBusConnection>
#include <QDBusInterface>
#include <QDBusReply>
#endif

#include "app/progress_strip.h"

namespace tarnbloom::app {

namespace {

const QString kService = QStringLiteral("org.freedesktop.Notifications");
const QString kPath = QStringLiteral("/org/freedesktop/Notifications");
const QString kShowAction = QStringLiteral("show-in-folder");

}  // namespace

DesktopNotifier::DesktopNotifier(QObject* parent) : QObject(parent) {
#ifdef TARNBLOOM_HAVE_DBUS
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return;
  bus.connect(kService, kPath, kService, QStringLiteral("ActionInvoked"), this,
              SLOT(actionInvoked(uint, QString)));
  bus.connect(kService, kPath, kService, QStringLiteral("NotificationClosed"), this,
              SLOT(closed(uint, uint)));
#endif
}

void DesktopNotifier::show(const QString& title, const QString& body, const QString& reveal) {
#ifdef TARNBLOOM_HAVE_DBUS
  auto bus = QDBusConnection::sessionBus();
  if (!bus.isConnected()) return;
  QDBusInterface notifications(kService, kPath, kService, bus);
  if (!notifications.isValid()) return;
  QStringList actions;
  if (!reveal.isEmpty()) actions << kShowAction << QStringLiteral("Show in Folder");
  QVariantMap hints;
  hints.insert(QStringLiteral("desktop-entry"), QStringLiteral("com.tarnbloom.app"));
  const QDBusReply<uint> id =
      notifications.call(QStringLiteral("Notify"), QStringLiteral("Tarnbloom"), 0u,
                         QStringLiteral("com.tarnbloom.app"), title, body, actions, hints, -1);
  if (id.isValid() && !reveal.isEmpty()) m_reveal[id.value()] = reveal;
#else
  Q_UNUSED(title);
  Q_UNUSED(body);
  Q_UNUSED(reveal);
#endif
}

void DesktopNotifier::actionInvoked(uint id, const QString& action) {
  const auto found = m_reveal.find(id);
  if (found == m_reveal.end() || action != kShowAction) return;
  showInFolder(found->second);
}

void DesktopNotifier::closed(uint id, uint) { m_reveal.erase(id); }

}  // namespace tarnbloom::app
