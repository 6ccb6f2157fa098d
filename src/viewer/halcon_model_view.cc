#include "viewer/halcon_model_view.h"

#include <QCoreApplication>
#include <QMessageBox>
#include <QMouseEvent>
#include <QPainter>
#include <QTimer>
#include <algorithm>
#include <cmath>

#include "messaging/log.h"
#include "viewer/view_procedures.h"
#include "vision/filter/image_ops.h"
#include "vision/filter/tuple_ops.h"
#include "vision/geometry/pose.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/region/region_ops.h"
#include "vision/window/render_3d.h"
#include "vision/window/window.h"

namespace velmora {

using vision::HException;
using vision::HObject;
using vision::HTuple;

namespace {

// Every model starts in this viewing position, which suits the rig's parts.
const HTuple& FixedStartPose() {
  static const HTuple pose = HTuple({HTuple::Reals({0.000117024, 0.00137401, 0.112615, 305.904, 1.90921, 3.92779}), HTuple(0)});
  return pose;
}

void LogException(const HException& e) { Log("[%s] %s", e.ProcName().c_str(), e.ErrorMessage().c_str()); }

void ModalAlert(const QString& message, const QString& informative) {
  QMessageBox box(QMessageBox::Warning, QString(), message, QMessageBox::Ok);
  box.setInformativeText(informative);
  box.exec();
}

HalconModelView::FatalAlert& Alert() {
  static HalconModelView::FatalAlert alert = ModalAlert;
  return alert;
}

int MouseButton(Qt::MouseButtons b) {
  return (b & Qt::LeftButton ? 1 : 0) | (b & Qt::MiddleButton ? 2 : 0) | (b & Qt::RightButton ? 4 : 0);
}

}  // namespace

unsigned ModifierFlags(Qt::KeyboardModifiers modifiers) {
  return (modifiers & Qt::ShiftModifier ? kShiftKeyMask : 0u) |
         (modifiers & Qt::ControlModifier ? kControlKeyMask : 0u);
}

void HalconModelView::setFatalAlert(FatalAlert alert) { Alert() = alert ? std::move(alert) : ModalAlert; }

HalconModelView::HalconModelView(const QRect& frame, QWidget* parent) : QWidget(parent) {
  setGeometry(frame);
  presenter_ = QtWindowPresenter::Install();
  father_ = presenter_->registerHost(this);
  try {
    // The window covers the view pixel for pixel. A view of no area still
    // gets a one-pixel window, so that a job started without a frame runs.
    const int w = std::max(1, frame.width()), h = std::max(1, frame.height());
    vision::open_window(0, 0, w, h, HTuple(father_), "visible", "", &halconWindow_);
    window_id_ = vision::WindowId(halconWindow_);
    vision::set_part(halconWindow_, 0, 0, h - 1, w - 1);
    addTrackingArea();
  } catch (const HException& e) {
    Alert()("Could not init HALCON window", QString::fromLatin1(e.ErrorMessage().c_str()));
    QCoreApplication::exit(1);
  }
}

HalconModelView::~HalconModelView() {
  presenter_->unregisterHost(father_);
  if (!_objectModel3D.Empty()) {
    try {
      vision::clear_object_model_3d(_objectModel3D);
    } catch (const HException& e) {
      LogException(e);
    }
  }
}

void HalconModelView::drawRect() {
  redraw_pending_ = false;
  if (_objectModel3D.Empty()) return;
  display_model(halconWindow_, _objectModel3D, hv_CamParam, hv_PoseOut, hv_GenParamName, hv_GenParamValue);
}

void HalconModelView::setNeedsDisplay() {
  if (redraw_pending_) return;
  redraw_pending_ = true;
  QTimer::singleShot(0, this, [this] {
    try {
      drawRect();
    } catch (const HException& e) {
      LogException(e);
    }
  });
}

void HalconModelView::setObjectModel3D(const HTuple& model) {
  _objectModel3D = model;
  hv_GenParamName = HTuple::Strings({"point_size", "intensity_red", "intensity_green", "intensity_blue"});
  hv_GenParamValue = HTuple{1, "&coord_r", "&coord_g", "&coord_b"};
  init_display_parameter(halconWindow_, _objectModel3D, &hv_Width, &hv_Height, &hv_CamParam, &hv_LRow,
                         &hv_LColumn, &hv_PoseOut, &hv_TBCenter);
  if (hv_PoseOut.Length() == 7) {
    hv_PoseOut = FixedStartPose();
    HTuple center, hom, x, y, z;
    get_object_models_center(_objectModel3D, &center);
    vision::pose_to_hom_mat3d(hv_PoseOut, &hom);
    vision::affine_trans_point_3d(hom, HTuple(center[0]), HTuple(center[1]), HTuple(center[2]), &x, &y, &z);
    hv_TBCenter = {x, y, z};
  }
  try {
    HObject rendered;
    vision::render_object_model_3d(&rendered, _objectModel3D, hv_CamParam, hv_PoseOut, HTuple(), HTuple());
    vision::object_model_3d_to_xyz(&ho_ImageX, &ho_ImageY, &ho_ImageZ, _objectModel3D, "cartesian", hv_CamParam,
                                   hv_PoseOut);
  } catch (const HException& e) {
    LogException(e);
  }
}

void HalconModelView::moveWindow(QPoint offset) {
  QWidget* top = window();
  if (top == this && !parentWidget()) return;  // no enclosing window
  top->setGeometry(top->geometry().translated(offset));
  top->repaint();
}

void HalconModelView::mouseLocation(HTuple* row, HTuple* column) {
  HTuple button;
  vision::get_mposition_sub_pix(halconWindow_, row, column, &button);
}

void HalconModelView::mouseDown() {
  try {
    mouseLocation(&hv_LRow, &hv_LColumn);
  } catch (const HException& e) {
    LogException(e);
  }
}

void HalconModelView::mouseDragged(unsigned modifier_flags) {
  if (_objectModel3D.Empty()) return;
  try {
    HTuple row, column;
    mouseLocation(&row, &column);
    if (modifier_flags & kShiftKeyMask) {
      zoom_object(hv_LRow, row, column, hv_PoseOut, hv_TBCenter, &hv_PoseOut, &hv_TBCenter, &hv_LRow, &hv_LColumn);
    } else if (modifier_flags & kControlKeyMask) {
      move_object(hv_LRow, hv_LColumn, row, column, hv_CamParam, hv_PoseOut, hv_TBCenter, &hv_PoseOut, &hv_LRow,
                  &hv_LColumn);
    } else {
      rotate_object(hv_LRow, hv_LColumn, hv_Width, hv_Height, row, column, hv_PoseOut, hv_TBCenter, &hv_PoseOut,
                    &hv_LRow, &hv_LColumn);
    }
    // At once, not through the window system's redraw cycle.
    display_model(halconWindow_, _objectModel3D, hv_CamParam, hv_PoseOut, hv_GenParamName, hv_GenParamValue);
  } catch (const HException& e) {
    LogException(e);
  }
}

void HalconModelView::mouseUp() {
  if (_objectModel3D.Empty()) return;
  try {
    vision::object_model_3d_to_xyz(&ho_ImageX, &ho_ImageY, &ho_ImageZ, _objectModel3D, "cartesian", hv_CamParam,
                                   hv_PoseOut);
  } catch (const HException& e) {
    LogException(e);
  }
}

void HalconModelView::mouseMoved() {
  if (hv_PoseOut.Empty()) return;
  try {
    HTuple inverse, hom;
    vision::pose_invert(hv_PoseOut, &inverse);
    vision::pose_to_hom_mat3d(inverse, &hom);
    HTuple row, column;
    mouseLocation(&row, &column);
    // Grey values are read at whole pixels: the one the pointer is over.
    vision::tuple_round(row, &row);
    vision::tuple_round(column, &column);
    HTuple x = 0.0, y = 0.0, z = 0.0;
    vision::get_grayval(ho_ImageX, row, column, &x);
    vision::get_grayval(ho_ImageY, row, column, &y);
    vision::get_grayval(ho_ImageZ, row, column, &z);
    HObject domain, selected;
    vision::get_domain(ho_ImageX, &domain);
    vision::select_region_point(domain, &selected, row, column);
    HTuple area, ar, ac;
    vision::area_center(selected, &area, &ar, &ac);
    if (!area.Empty()) {
      HTuple px, py, pz;
      vision::affine_trans_point_3d(hom, x, y, z, &px, &py, &pz);
      Log("%f %f %f", px.D(), py.D(), pz.D());
    }
  } catch (const HException& e) {
    LogException(e);
  }
}

void HalconModelView::addTrackingArea() {
  // Mouse-moved events over the whole view while the application is active.
  setMouseTracking(true);
  _trackingArea = true;
}

void HalconModelView::removeTrackingArea() {
  if (!_trackingArea) return;
  setMouseTracking(false);
  _trackingArea = false;
}

void HalconModelView::updateTrackingAreas() {
  removeTrackingArea();
  addTrackingArea();
}

QRect HalconModelView::viewRect() const { return rect(); }

void HalconModelView::showGraphicsFrame(uint64_t id, const QImage& frame, bool immediate) {
  if (id != window_id_) return;
  frame_ = frame;
  if (immediate) repaint();
  else update();
}

void HalconModelView::graphicsWindowClosed(uint64_t id) {
  if (id != window_id_) return;
  frame_ = QImage();
  update();
}

void HalconModelView::paintEvent(QPaintEvent*) {
  QPainter p(this);
  // The enclosing window may be transparent: clear first, then the graphics
  // window's picture on top.
  if (!window()->testAttribute(Qt::WA_OpaquePaintEvent) && window()->testAttribute(Qt::WA_TranslucentBackground)) {
    p.setCompositionMode(QPainter::CompositionMode_Source);
    p.fillRect(rect(), Qt::transparent);
    p.setCompositionMode(QPainter::CompositionMode_SourceOver);
  }
  if (!frame_.isNull()) p.drawImage(0, 0, frame_);
}

void HalconModelView::feedMouse(QMouseEvent* event) {
  if (!window_id_) return;
  const QPointF pos = event->position();
  const bool inside = rect().contains(pos.toPoint());
  vision::SetWindowMouse(window_id_, inside, pos.x(), pos.y(), MouseButton(event->buttons()));
}

void HalconModelView::mousePressEvent(QMouseEvent* event) {
  feedMouse(event);
  mouseDown();
}

void HalconModelView::mouseMoveEvent(QMouseEvent* event) {
  feedMouse(event);
  if (event->buttons() != Qt::NoButton) mouseDragged(ModifierFlags(event->modifiers()));
  else mouseMoved();
}

void HalconModelView::mouseReleaseEvent(QMouseEvent* event) {
  feedMouse(event);
  mouseUp();
}

void HalconModelView::leaveEvent(QEvent* event) {
  if (window_id_) vision::SetWindowMouse(window_id_, false, 0, 0, 0);
  QWidget::leaveEvent(event);
}

void HalconModelView::resizeEvent(QResizeEvent* event) {
  // The graphics window keeps its size; only the tracked area follows.
  updateTrackingAreas();
  QWidget::resizeEvent(event);
}

}  // namespace velmora
