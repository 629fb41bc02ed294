#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include "app/main_window.h"

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  QApplication::setApplicationName(QStringLiteral("Tarnbloom"));
  QApplication::setApplicationVersion(QStringLiteral(TARNBLOOM_VERSION));
  QApplication::setDesktopFileName(QStringLiteral("com.tarnbloom.app"));

  QCommandLineParser parser;
  parser.setApplicationDescription(QStringLiteral("Enlarges photographs."));
  parser.addHelpOption();
  parser.addVersionOption();
  parser.addPositionalArgument(QStringLiteral("files"), QStringLiteral("Photos to open, one tab each."),
                               QStringLiteral("[FILES...]"));
  parser.process(application);

  tarnbloom::app::MainWindow window;
  window.show();
  window.openFiles(parser.positionalArguments());
  // Once the window is up: the queue may ask about interrupted exports.
  QTimer::singleShot(0, &window, [&window] { window.startExports(); });
  return QApplication::exec();
}
