// The model view driven by synthesised mouse events: which motion a drag
// chooses, what each step changes, what the window shows, and what happens
// without a model or without a graphics window.
#include "viewer/halcon_model_view.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QMouseEvent>
#include <QtTest/QTest>
#include <cmath>

#include "viewer/view_procedures.h"
#include "vision/geometry/pose_types.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/window/window.h"

namespace velmora {
namespace {

using vision::HObject;
using vision::HTuple;

QApplication& App() {
  static int argc = 1;
  static char name[] = "viewer_tests";
  static char* argv[] = {name, nullptr};
  if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  static QApplication* app = new QApplication(argc, argv);
  return *app;
}

// A coloured square patch of 4 mm, 0.5 mm above the board (z = -0.0005),
// triangulated on a 21 x 21 grid; red grows with x, green with y.
HTuple Patch() {
  auto m = vision::NewObjectModel3D();
  const int n = 21;
  auto& r = m->attribs["&coord_r"];
  auto& g = m->attribs["&coord_g"];
  auto& b = m->attribs["&coord_b"];
  for (int j = 0; j < n; ++j)
    for (int i = 0; i < n; ++i) {
      m->points.emplace_back(-0.002f + 0.004f * i / (n - 1), -0.002f + 0.004f * j / (n - 1), -0.0005f);
      r.push_back(40 + 10 * i);
      g.push_back(40 + 10 * j);
      b.push_back(120);
    }
  for (int j = 0; j + 1 < n; ++j)
    for (int i = 0; i + 1 < n; ++i) {
      const int a = j * n + i;
      m->triangles.push_back({a, a + 1, a + n});
      m->triangles.push_back({a + 1, a + n + 1, a + n});
    }
  return vision::ObjectModel3DHandle(m);
}

void Send(QWidget* w, QEvent::Type type, QPoint pos, Qt::MouseButtons buttons, Qt::KeyboardModifiers mods,
          Qt::MouseButton button = Qt::NoButton) {
  QMouseEvent e(type, QPointF(pos), QPointF(w->mapToGlobal(pos)), button, buttons, mods);
  QApplication::sendEvent(w, &e);
}

void Drag(QWidget* w, QPoint from, QPoint to, Qt::KeyboardModifiers mods) {
  Send(w, QEvent::MouseButtonPress, from, Qt::LeftButton, mods, Qt::LeftButton);
  Send(w, QEvent::MouseMove, to, Qt::LeftButton, mods);
}

void Release(QWidget* w, QPoint at) { Send(w, QEvent::MouseButtonRelease, at, Qt::NoButton, {}, Qt::LeftButton); }

const HTuple kStart = HTuple({HTuple::Reals({0.000117024, 0.00137401, 0.112615, 305.904, 1.90921, 3.92779}), HTuple(0)});

TEST(ModelView, ModifierRuleChoosesTheMotion) {
  App();
  struct Case {
    Qt::KeyboardModifiers mods;
    const char* motion;
  } cases[] = {
      {Qt::NoModifier, "rotate"},
      {Qt::ShiftModifier, "zoom"},
      {Qt::ControlModifier, "move"},
      {Qt::ShiftModifier | Qt::ControlModifier, "zoom"},  // Shift first
      {Qt::AltModifier, "rotate"},
  };
  for (const auto& k : cases) {
    HalconModelView view(QRect(0, 0, 641, 480));
    view.setObjectModel3D(Patch());
    const HTuple pose0 = view.pose(), tb0 = view.trackballCenter(), cam = view.camParam();
    const QImage before = view.shownFrame();
    const QPoint from(300, 200), to(340, 230);
    Drag(&view, from, to, k.mods);
    // What the chosen procedure makes of the same state.
    HTuple pose, tb = tb0, lr, lc;
    if (std::string(k.motion) == "zoom")
      zoom_object(200.0, 230.0, 340.0, pose0, tb0, &pose, &tb, &lr, &lc);
    else if (std::string(k.motion) == "move")
      move_object(200.0, 300.0, 230.0, 340.0, cam, pose0, tb0, &pose, &lr, &lc);
    else
      rotate_object(200.0, 300.0, 641, 480, 230.0, 340.0, pose0, tb0, &pose, &lr, &lc);
    EXPECT_EQ(view.pose(), pose) << k.motion;
    EXPECT_EQ(view.trackballCenter(), tb) << k.motion;
    EXPECT_EQ(view.lastPosition(), HTuple({HTuple(230.0), HTuple(340.0)})) << k.motion;
    // Redrawn at once: the shown picture changed within the event.
    EXPECT_NE(view.shownFrame(), before) << k.motion;
  }
}

TEST(ModelView, SetModelStartsFromTheFixedPoseAndReleaseRecomputesCoordinates) {
  App();
  HalconModelView view(QRect(10, 20, 641, 480));
  // No model yet: drags and moves do nothing and log nothing.
  testing::internal::CaptureStderr();
  Drag(&view, {100, 100}, {200, 150}, Qt::NoModifier);
  Release(&view, {200, 150});
  Send(&view, QEvent::MouseMove, {120, 130}, Qt::NoButton, {});
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_TRUE(view.pose().Empty());

  view.setObjectModel3D(Patch());
  EXPECT_EQ(view.pose(), kStart);
  EXPECT_EQ(view.camParam().L(4), 320);  // 641 / 2 in integers
  EXPECT_EQ(view.camParam().L(6), 641);
  // The trackball centre is the model's centre under the start pose.
  const Eigen::Vector3d c = vision::PoseToIsometry(kStart, "test") * Eigen::Vector3d(0, 0, double(-0.0005f));
  for (int k = 0; k < 3; ++k) EXPECT_NEAR(view.trackballCenter().D(k), c[k], 1e-12);
  const int64_t area0 = view.imageZ().ImageAt(0).domain.Area();
  EXPECT_GT(area0, 1000);

  view.drawRect();
  const QImage shown = view.shownFrame();
  // The patch is drawn: the picture has colours of the patch, not only black.
  int lit = 0;
  for (int y = 0; y < shown.height(); y += 4)
    for (int x = 0; x < shown.width(); x += 4) lit += shown.pixelColor(x, y) != QColor(Qt::black);
  EXPECT_GT(lit, 100);

  // A zoom drag changes the coordinate images only on release.
  Drag(&view, {320, 200}, {320, 260}, Qt::ShiftModifier);
  EXPECT_EQ(view.imageZ().ImageAt(0).domain.Area(), area0);
  Release(&view, {320, 260});
  EXPECT_GT(view.imageZ().ImageAt(0).domain.Area(), area0);  // closer, larger

  // A point under the mouse is logged in model coordinates (z of the patch).
  testing::internal::CaptureStderr();
  Send(&view, QEvent::MouseMove, {320, 240}, Qt::NoButton, {});
  const std::string log = testing::internal::GetCapturedStderr();
  EXPECT_NE(log.find("-0.000500"), std::string::npos) << "[" << log << "]";

  // A second model resets the view.
  view.setObjectModel3D(Patch());
  EXPECT_EQ(view.pose(), kStart);
}

TEST(ModelView, WindowThatCannotOpenAlertsWithTheLibraryMessage) {
  App();
  QString message, informative;
  HalconModelView::setFatalAlert([&](const QString& m, const QString& i) {
    message = m;
    informative = i;
  });
  HalconModelView view(QRect(0, 0, 20000, 100));  // beyond the largest window
  EXPECT_EQ(message, "Could not init HALCON window");
  EXPECT_TRUE(informative.contains("Width")) << informative.toStdString();
  HalconModelView::setFatalAlert(nullptr);
}

}  // namespace
}  // namespace velmora
