// The add-in's process entry: a background Qt application without a main
// window; the delegate does the rest.
#include <QApplication>
#include <cstdlib>

#include "app/app_delegate.h"

int main(int argc, char** argv) {
  // Headless workstations and services: without a display, draw offscreen.
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
  QApplication app(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);  // windows come and go; the add-in stays

  velmora::AppDelegate delegate;
  if (!delegate.init()) return delegate.startExitCode();  // another instance runs, or no port folder
  QObject::connect(&app, &QCoreApplication::aboutToQuit, [&delegate] { delegate.applicationWillTerminate(); });
  delegate.applicationDidFinishLaunching();
  return QApplication::exec();
}
