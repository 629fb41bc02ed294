#include "app/qt_executor.h"

#include <QCoreApplication>
#include <QEventLoop>

namespace tarnbloom::app {

QtExecutor::QtExecutor(QObject* owner, int lanes) : m_owner(owner) {
  for (int i = 0; i < lanes; ++i) m_lanes.push_back(std::make_unique<SerialWorker>());
}

QtExecutor::~QtExecutor() { m_lanes.clear(); }

void QtExecutor::post(Task task) {
  // A task posted after the owner is gone has nobody left to run it for.
  QObject* owner = m_owner.data();
  if (!owner) return;
  QMetaObject::invokeMethod(owner, std::move(task), Qt::QueuedConnection);
}

void QtExecutor::run(int lane, Task task) {
  m_lanes.at(static_cast<size_t>(lane))->post(std::move(task));
}

void QtExecutor::waitUntil(const std::function<bool()>& done) {
  while (!done())
    QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents |
                                    QEventLoop::ExcludeUserInputEvents);
}

}  // namespace tarnbloom::app
