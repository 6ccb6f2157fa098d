#pragma once
// The view in which a 3D object model is shown and turned (drag), zoomed
// (Shift+drag) and moved (Control+drag) with the mouse. It hosts a graphics
// window of the vision library that covers it exactly; all drawing goes
// through that window. The display state (camera, pose, trackball centre,
// last mouse position, colour parameters) lives here between events; the
// coordinate images of the current view are recomputed when a model is set
// and when the mouse button is released, so that the point under the mouse
// can be reported.
//
// Every method runs on the GUI thread. Errors of the vision library during
// set-up of the model's display, drags, releases and moves are logged as
// "[operator] message" and leave the view usable.
#include <QImage>
#include <QRect>
#include <QWidget>
#include <cstdint>
#include <functional>

#include "viewer/window_presenter_qt.h"
#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace velmora {

// Modifier flags of a mouse event as the view reads them.
inline constexpr unsigned kShiftKeyMask = 0x20000;
inline constexpr unsigned kControlKeyMask = 0x40000;
unsigned ModifierFlags(Qt::KeyboardModifiers modifiers);

class HalconModelView : public QWidget, public GraphicsWindowHost {
 public:
  // Shown when the graphics window cannot be opened; the application ends
  // after it. Replaceable (tests); the default is a modal alert.
  using FatalAlert = std::function<void(const QString& message, const QString& informative)>;
  static void setFatalAlert(FatalAlert alert);

  // initWithFrame: the view at `frame` (parent coordinates) with its graphics
  // window opened at the frame's size.
  explicit HalconModelView(const QRect& frame, QWidget* parent = nullptr);
  ~HalconModelView() override;

  // Redraws the model (the window system's redraw of the view's content).
  void drawRect();
  // Asks for drawRect on the next turn of the event loop.
  void setNeedsDisplay();
  // Takes the model (a tuple holding one handle) and computes the start view.
  void setObjectModel3D(const vision::HTuple& model);
  // Moves the enclosing top-level window by (dx, dy).
  void moveWindow(QPoint offset);
  // Mouse position in graphics-window pixels; the library raises when the
  // pointer is not over the window.
  void mouseLocation(vision::HTuple* row, vision::HTuple* column);
  void mouseDown();
  void mouseDragged(unsigned modifier_flags);
  void mouseUp();
  void mouseMoved();

  const vision::HTuple& halconWindow() const { return halconWindow_; }
  void setHalconWindow(const vision::HTuple& window) { halconWindow_ = window; }

  // Tracking of mouse movement over the view's bounds.
  void addTrackingArea();
  void removeTrackingArea();
  void updateTrackingAreas();
  QRect viewRect() const;

  // State, for the job and for tests.
  const vision::HTuple& objectModel3D() const { return _objectModel3D; }
  const vision::HTuple& pose() const { return hv_PoseOut; }
  const vision::HTuple& trackballCenter() const { return hv_TBCenter; }
  const vision::HTuple& camParam() const { return hv_CamParam; }
  vision::HTuple lastPosition() const { return {hv_LRow, hv_LColumn}; }
  const vision::HObject& imageZ() const { return ho_ImageZ; }
  // The last frame the graphics window showed.
  const QImage& shownFrame() const { return frame_; }

  // GraphicsWindowHost
  void showGraphicsFrame(uint64_t id, const QImage& frame, bool immediate) override;
  void graphicsWindowClosed(uint64_t id) override;

 protected:
  void paintEvent(QPaintEvent* event) override;
  void mousePressEvent(QMouseEvent* event) override;
  void mouseMoveEvent(QMouseEvent* event) override;
  void mouseReleaseEvent(QMouseEvent* event) override;
  void leaveEvent(QEvent* event) override;
  void resizeEvent(QResizeEvent* event) override;

 private:
  void feedMouse(QMouseEvent* event);

  vision::HTuple halconWindow_;
  vision::HTuple _objectModel3D;
  bool _trackingArea = false;
  vision::HTuple hv_Width, hv_Height, hv_CamParam, hv_LRow, hv_LColumn, hv_PoseOut, hv_TBCenter;
  vision::HTuple hv_GenParamName, hv_GenParamValue;
  vision::HObject ho_ImageX, ho_ImageY, ho_ImageZ;

  std::shared_ptr<QtWindowPresenter> presenter_;
  int64_t father_ = 0;
  uint64_t window_id_ = 0;
  QImage frame_;
  bool redraw_pending_ = false;
};

}  // namespace velmora
