#include <gtest/gtest.h>

#include <cstdlib>

#include <QApplication>
#include <QStyleFactory>

// Widgets need an application before any test makes one; the offscreen
// platform and a fixed style keep results independent of the desktop.
int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  QApplication::setAttribute(Qt::AA_Use96Dpi);
  QApplication application(argc, argv);
  QApplication::setStyle(QStyleFactory::create(QStringLiteral("Fusion")));
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
