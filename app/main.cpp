#include <QApplication>
#include <QCoreApplication>
#include <QCommandLineParser>
#include <QTimer>

#include "app/instance_link.h"
#include "app/main_window.h"
#include "support/state_paths.h"

namespace {

// The arguments, with --help and --version answered (the process then
// ends). Read before the GUI starts: a terminal without a display, over
// ssh say, still gets its answer instead of a missing-platform abort.
QStringList commandLine(int argc, char** argv) {
  QCoreApplication probe(argc, argv);
  QCoreApplication::setApplicationName(QStringLiteral("Tarnbloom"));
  QCoreApplication::setApplicationVersion(QStringLiteral(TARNBLOOM_VERSION));
  QCommandLineParser parser;
  parser.setApplicationDescription(QStringLiteral("Enlarges photographs."));
  parser.addHelpOption();
  parser.addVersionOption();
  parser.addPositionalArgument(QStringLiteral("files"),
                               QStringLiteral("Photos to open, one tab each, or tarnbloom:// links."),
                               QStringLiteral("[FILES...]"));
  parser.process(probe);
  return parser.positionalArguments();
}

}  // namespace

int main(int argc, char** argv) {
  const QStringList arguments = commandLine(argc, argv);
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Tarnbloom"));
  QApplication::setApplicationVersion(QStringLiteral(TARNBLOOM_VERSION));
  QApplication::setDesktopFileName(QStringLiteral("com.tarnbloom.app"));

  // One window per state folder: a second launch hands its photos and
  // links to the first and ends.
  if (tarnbloom::app::InstanceLink::handToRunningWindow(tarnbloom::stateFolder(), arguments)) return 0;

  tarnbloom::app::MainWindow window;
  window.show();
  window.openArguments(arguments);
  // Once the window is up: the queue may ask about interrupted exports.
  QTimer::singleShot(0, &window, [&window] { window.startExports(); });
  return QApplication::exec();
}
