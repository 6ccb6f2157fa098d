#include "vision/calib/camera_params.h"

#include "vision/core/param.h"

namespace vision {

CamParams CamParams::FromTuple(const HTuple& t, const char* op) {
  ParamCount(t, op, "CameraParam", 8);
  CamParams c;
  c.focus = ParamReal(t, op, "CameraParam", 0); c.kappa = ParamReal(t, op, "CameraParam", 1);
  c.sx = ParamReal(t, op, "CameraParam", 2); c.sy = ParamReal(t, op, "CameraParam", 3);
  c.cx = ParamReal(t, op, "CameraParam", 4); c.cy = ParamReal(t, op, "CameraParam", 5);
  c.width = int(ParamIntIn(t, op, "CameraParam", 1, 1 << 20, 6));
  c.height = int(ParamIntIn(t, op, "CameraParam", 1, 1 << 20, 7));
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
