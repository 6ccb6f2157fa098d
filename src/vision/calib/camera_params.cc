#include "vision/calib/camera_params.h"

namespace vision {

CamParams CamParams::FromTuple(const HTuple& t, const char* op) {
  if (t.Length() != 8) throw HException(op, "Wrong number of camera parameters", kErrWrongParamCount);
  for (int i = 0; i < 8; ++i)
    if (!t.IsNumber(i)) throw HException(op, "Wrong type of camera parameter", kErrWrongParamType);
  CamParams c;
  c.focus = t.D(0); c.kappa = t.D(1); c.sx = t.D(2); c.sy = t.D(3);
  c.cx = t.D(4); c.cy = t.D(5);
  c.width = int(t.L(6)); c.height = int(t.L(7));
  if (!(c.focus > 0) || !(c.sx > 0) || !(c.sy > 0) || c.width <= 0 || c.height <= 0)
    throw HException(op, "Wrong camera parameters", kErrWrongParamValue);
  return c;
}

HTuple CamParams::ToTuple() const {
  HTuple t = HTuple::Reals({focus, kappa, sx, sy, cx, cy});
  t.Append(HTuple(width)).Append(HTuple(height));
  return t;
}

}  // namespace vision
