#pragma once

#include <map>

#include <QObject>
#include <QString>

namespace tarnbloom::app {

// Notifications over the desktop's notification service, with a "Show in
// Folder" action when there is a file to show. Without a session bus (or
// without QtDBus) nothing is shown: a notification is never the only place
// an outcome is reported.
class DesktopNotifier : public QObject {
  Q_OBJECT

 public:
  explicit DesktopNotifier(QObject* parent = nullptr);

  // `reveal`: a file the action shows in its folder; empty for none.
  void show(const QString& title, const QString& body, const QString& reveal);

 private Q_SLOTS:
  void actionInvoked(uint id, const QString& action);
  void closed(uint id, uint reason);

 private:
  std::map<uint, QString> m_reveal;  // notifications on screen with a file to show
};

}  // namespace tarnbloom::app
