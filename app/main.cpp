#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include "app/instance_link.h"
#include "app/main_window.h"
#include "support/state_paths.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Tarnbloom"));
  QApplication::setApplicationVersion(QStringLiteral(TARNBLOOM_VERSION));
  QApplication::setDesktopFileName(QStringLiteral("com.tarnbloom.app"));

  QCommandLineParser parser;
  parser.setApplicationDescription(QStringLiteral("Enlarges photographs."));
  parser.addHelpOption();
  parser.addVersionOption();
  parser.addPositionalArgument(QStringLiteral("files"),
                               QStringLiteral("Photos to open, one tab each, or tarnbloom:// links."),
                               QStringLiteral("[FILES...]"));
  parser.process(application);

  // One window per state folder: a second launch hands its photos and
  // links to the first and ends.
  const QStringList arguments = parser.positionalArguments();
  if (tarnbloom::app::InstanceLink::handToRunningWindow(tarnbloom::stateFolder(), arguments)) return 0;

  tarnbloom::app::MainWindow window;
  window.show();
  window.openArguments(arguments);
  // Once the window is up: the queue may ask about interrupted exports.
  QTimer::singleShot(0, &window, [&window] { window.startExports(); });
  return QApplication::exec();
}
