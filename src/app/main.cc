// The add-in's process entry: a background Qt application without a main
// window; the delegate does the rest.
#include <QApplication>
#include <cstdlib>
#include <malloc.h>

#include "app/app_delegate.h"
#include "app/vision_presence.h"
#include "messaging/log.h"
#include "stereo/reconstruction.h"
#include "stereo/reconstruction_job.h"

int main(int argc, char** argv) {
  // Every request brings megabyte-sized buffers (archive, TIFF, planes). With
  // glibc's defaults each of them is a fresh mapping whose pages fault in one
  // by one, which cost more than the transport and decoding together; keeping
  // them in the heap lets later requests reuse warm pages. Very large
  // requests still get mappings of their own and give them back.
  mallopt(M_MMAP_THRESHOLD, 32 << 20);
  mallopt(M_TRIM_THRESHOLD, 128 << 20);
  // Headless workstations and services: without a display, draw offscreen.
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
  // Settled before any thread exists: it may export VELMORA_VISION_DIR.
  const velmora::VisionFolderSearch vision = velmora::SettleVisionFolder();
  QApplication app(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);  // windows come and go; the add-in stays

  // The reconstruction job runs the stereo procedure.
  velmora::ObjectModel3D::setReconstruction(velmora::action);
  velmora::AppDelegate delegate;
  if (!delegate.init()) return delegate.startExitCode();  // another instance runs, or no port folder
  velmora::Log("%s", velmora::VisionFolderLogLine(vision).c_str());
  QObject::connect(&app, &QCoreApplication::aboutToQuit, [&delegate] { delegate.applicationWillTerminate(); });
  delegate.applicationDidFinishLaunching();
  return QApplication::exec();
}
