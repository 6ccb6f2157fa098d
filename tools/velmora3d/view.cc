// `velmora-3d view FILE.ply`: the add-in's 3D view of a surface file in a
// window of its own, with the same mouse controls (drag turns, Shift+drag
// zooms, Control+drag moves).
#include <QApplication>
#include <QWidget>
#include <cstdlib>
#include <string>

#include "command.h"
#include "viewer/halcon_model_view.h"
#include "vision/core/exception.h"
#include "vision/model3d/object_model_3d.h"
#include "vision/model3d/object_model_3d_io.h"

namespace velmora3d {
namespace {

int RunView(const Args& args) {
  ParsedArgs parsed;
  std::string error;
  if (!ParseArgs(args, {"--size"}, {}, &parsed, &error)) return Fail(error, kExitUsage);
  if (parsed.positional.size() != 1) return Fail("view needs one PLY file", kExitUsage);
  int width = 640, height = 480;
  if (parsed.Has("--size")) {
    const std::string s = parsed.Value("--size");
    const size_t x = s.find('x');
    long long w = 0, h = 0;
    if (x == std::string::npos || !ParseInt(s.substr(0, x), &w) || !ParseInt(s.substr(x + 1), &h) || w < 16 ||
        h < 16 || w > 8192 || h > 8192)
      return Fail("--size wants WIDTHxHEIGHT, 16 to 8192 each", kExitUsage);
    width = int(w);
    height = int(h);
  }

  vision::HTuple model, status;
  try {
    vision::read_object_model_3d(parsed.positional[0], "m", vision::HTuple(), vision::HTuple(), &model, &status);
  } catch (const vision::HException& e) {
    return Fail(parsed.positional[0] + ": " + e.ErrorMessage());
  }

  static int argc = 1;
  static char name[] = "velmora-3d";
  static char* argv[] = {name, nullptr};
  if (!std::getenv("DISPLAY") && !std::getenv("WAYLAND_DISPLAY") && !std::getenv("QT_QPA_PLATFORM"))
    return Fail("view needs a display (DISPLAY or WAYLAND_DISPLAY)");
  QApplication app(argc, argv);
  QWidget window;
  window.setWindowTitle(QString::fromStdString("velmora-3d view " + parsed.positional[0]));
  window.setFixedSize(width, height);
  velmora::HalconModelView view(QRect(0, 0, width, height), &window);
  try {
    view.setObjectModel3D(model);
  } catch (const vision::HException& e) {
    return Fail(parsed.positional[0] + ": [" + e.ProcName() + "] " + e.ErrorMessage());
  }
  window.show();
  view.setNeedsDisplay();
  return QApplication::exec();
}

const Registration kView{{"view", "FILE.ply [--size WIDTHxHEIGHT]",
                          "show a surface in the 3D view: drag turns, Shift+drag zooms, Control+drag moves",
                          RunView}};

}  // namespace
}  // namespace velmora3d
