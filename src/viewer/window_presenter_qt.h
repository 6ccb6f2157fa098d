#pragma once
// Shows the vision library's visible graphics windows with Qt. A window opened
// with a father is drawn by the view that handed out that father number (a
// GraphicsWindowHost); one without a father gets a plain top-level window of
// its own. Frames drawn on the GUI thread are shown at once (repaint); frames
// drawn on worker threads are queued to the GUI thread, newest wins.
#include <QImage>
#include <QPointer>
#include <QWidget>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "vision/window/window.h"

namespace velmora {

// A view that embeds graphics windows.
class GraphicsWindowHost {
 public:
  virtual ~GraphicsWindowHost() = default;
  // On the GUI thread. `immediate`: the frame was drawn on the GUI thread and
  // is to be on screen when the call returns.
  virtual void showGraphicsFrame(uint64_t id, const QImage& frame, bool immediate) = 0;
  virtual void graphicsWindowClosed(uint64_t id) = 0;
};

class QtWindowPresenter : public vision::WindowPresenter {
 public:
  // The presenter of the process, created and registered with the library on
  // first use (on the GUI thread, after the QApplication exists).
  static std::shared_ptr<QtWindowPresenter> Install();

  // Hosts hand out father numbers; windows opened with one go to its host.
  int64_t registerHost(GraphicsWindowHost* host);
  void unregisterHost(int64_t father);

  void WindowOpened(uint64_t id, int row, int column, int width, int height) override;
  void WindowOpenedIn(uint64_t id, int64_t father, int row, int column, int width,
                      int height) override;
  void WindowChanged(uint64_t id, const cv::Mat& rgb) override;
  void WindowClosed(uint64_t id) override;

 private:
  struct Route {
    int64_t father = 0;                 // 0: a top-level window of our own
    std::unique_ptr<QWidget> own;       // that window
  };
  // Runs `fn` on the GUI thread: at once when already there.
  void onGuiThread(std::function<void()> fn);
  void deliver(uint64_t id, const QImage& frame, bool immediate);

  std::mutex mu_;  // guards hosts_ and next_father_ (registration from any thread)
  std::map<int64_t, GraphicsWindowHost*> hosts_;
  int64_t next_father_ = 1;
  std::map<uint64_t, Route> routes_;  // GUI thread only
};

}  // namespace velmora
