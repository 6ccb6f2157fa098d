#pragma once
// One stereo reconstruction job with its window: a borderless floating window
// at the host's frame shows the eight side views and the progress while the
// reconstruction runs on a worker thread, and then the reconstructed surface
// in the interactive 3D view.
//
// The dispatcher keeps at most one job. A job it releases stays alive (window
// open) while its worker run and the hand-over of the result to the GUI thread
// still hold it; the last reference is always dropped on the GUI thread, where
// the window closes. Everything but the worker run happens on the GUI thread.
#include <QPointer>
#include <QWidget>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "archive/archive.h"
#include "messaging/side_cam_server_controller.h"  // the exchanges' message ids
#include "vision/core/tuple.h"

namespace velmora {

class HalconModelView;

// The raw side views: each 640 x 480 pixels of four bytes, alpha first.
using SideViewBytes = std::vector<std::vector<uint8_t>>;

class ObjectModel3D : public std::enable_shared_from_this<ObjectModel3D> {
 public:
  // The reconstruction: window handle, serialized camera setup, views ->
  // model handle (empty for none). Vision errors are raised.
  using Reconstruction = std::function<vision::HTuple(const vision::HTuple& window,
                                                      const vision::HTuple& serialized_setup,
                                                      const SideViewBytes& views)>;
  // One archived-dictionary exchange with the side-camera server: true when
  // sent and answered; `reply` is left as it was when the answer carries no
  // data.
  using SideCamExchange =
      std::function<bool(int32_t msgid, const archive::ObjectPtr& dict, archive::ObjectPtr* reply)>;

  // Wiring for tests. By default the shared side-camera client and the
  // reconstruction procedure `action` are used.
  static void setReconstruction(Reconstruction reconstruction);
  static void setSideCamExchange(SideCamExchange exchange);

  // `new`: a job without a window. Must be created and released on the GUI
  // thread; the last reference may be dropped anywhere.
  static std::shared_ptr<ObjectModel3D> create();
  ~ObjectModel3D();  // dealloc: closes the window and its graphics window

  // Opens the window at "Stereo_Reconstruct_WindowFrame" (x, y, width,
  // height; desktop coordinates, origin top-left of the primary screen).
  void createWindow(const archive::ObjectPtr& dictionary);
  // Reads the calibration, fetches the views and starts the worker run: 0,
  // or -100 when any step fails (nothing logged).
  int32_t stereoReconstruct(const archive::ObjectPtr& dictionary);
  // The view's graphics window, or an empty tuple.
  vision::HTuple windowHandle() const;

  // The dispatcher lets go of the job: a run not started yet is dropped.
  void abandon();

  QWidget* window() const { return _window; }
  HalconModelView* view() const { return _halconWindow; }

  // Runs queued or going, over all jobs.
  static int runsInFlight();
  // At application end, on the GUI thread: hands over what finished, waits up
  // to `seconds` for a run that is still going, and reports whether none is.
  static bool finishRuns(double seconds);

 private:
  ObjectModel3D() = default;
  void handOver(const vision::HTuple& model);

  QPointer<QWidget> _window;
  HalconModelView* _halconWindow = nullptr;
  std::atomic<bool> abandoned_{false};
};


}  // namespace velmora
