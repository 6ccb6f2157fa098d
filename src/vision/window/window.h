#pragma once
// Graphics windows: raster canvases with the reference library's window state
// (image part, colour, draw mode, line width, font, text cursor). A "visible"
// window is shown through the registered WindowPresenter; "invisible" and
// "buffer" windows only ever live in memory.
#include <cstdint>
#include <functional>
#include <memory>

#include <opencv2/core.hpp>

#include "vision/core/object.h"
#include "vision/core/tuple.h"

namespace vision {

// Shows visible windows on screen. Implemented by the GUI; every call may come
// from any thread that draws into a window.
class WindowPresenter {
 public:
  virtual ~WindowPresenter() = default;
  virtual void WindowOpened(uint64_t id, int row, int column, int width, int height) = 0;
  // A window opened with a father window (an integer the GUI handed out for
  // one of its views): the GUI embeds it there. By default shown as any other.
  virtual void WindowOpenedIn(uint64_t id, int64_t father, int row, int column, int width,
                              int height) {
    (void)father;
    WindowOpened(id, row, column, width, height);
  }
  // `rgb` is a private copy of the canvas (CV_8UC3, red first).
  virtual void WindowChanged(uint64_t id, const cv::Mat& rgb) = 0;
  virtual void WindowClosed(uint64_t id) = 0;
};

// Registers the presenter (nullptr removes it). Windows opened before keep
// reporting to whichever presenter is registered at the time of each event.
void SetWindowPresenter(std::shared_ptr<WindowPresenter> presenter);

// The id the presenter knows a window by; raises for anything but a window.
uint64_t WindowId(const HTuple& window_handle);
// The mouse over a shown window, as the GUI sees it: window pixel position
// (x right, y down, from the top-left corner) and the pressed button (0 none,
// 1 left, 2 middle, 4 right). `inside` false when the pointer left it.
void SetWindowMouse(uint64_t id, bool inside, double x, double y, int button);

// Drawing by the other operators of the window area (3D display): `draw`
// runs under the window's lock on its canvas (CV_8UC3, red first); a visible
// window is shown afterwards as by any drawing operator.
struct WindowCanvas {
  cv::Mat& canvas;
  double part_row1, part_column1;  // image coordinates of the window's top-left
  double scale_y, scale_x;         // window pixels per image pixel
};
void DrawIntoWindow(const HTuple& window_handle, const char* op,
                    const std::function<void(WindowCanvas&)>& draw);

// Opening, closing, state.
void open_window(const HTuple& row, const HTuple& column, const HTuple& width,
                 const HTuple& height, const HTuple& father_window, const HTuple& mode,
                 const HTuple& machine, HTuple* window_handle);
void close_window(const HTuple& window_handle);
void clear_window(const HTuple& window_handle);
void set_part(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
              const HTuple& row2, const HTuple& column2);
void get_part(const HTuple& window_handle, HTuple* row1, HTuple* column1, HTuple* row2,
              HTuple* column2);
// Sub-pixel mouse position in image coordinates; raises when the pointer is
// not over the window.
void get_mposition_sub_pix(const HTuple& window_handle, HTuple* row, HTuple* column,
                           HTuple* button);
void get_window_extents(const HTuple& window_handle, HTuple* row, HTuple* column,
                        HTuple* width, HTuple* height);
void set_color(const HTuple& window_handle, const HTuple& color);
void set_rgb(const HTuple& window_handle, const HTuple& red, const HTuple& green,
             const HTuple& blue);
void get_rgb(const HTuple& window_handle, HTuple* red, HTuple* green, HTuple* blue);
void set_draw(const HTuple& window_handle, const HTuple& mode);
void get_draw(const HTuple& window_handle, HTuple* mode);
void set_line_width(const HTuple& window_handle, const HTuple& width);
void get_line_width(const HTuple& window_handle, HTuple* width);

// Drawing. Iconic input comes first, as in the reference's signatures.
void disp_region(const HObject& regions, const HTuple& window_handle);
void disp_image(const HObject& image, const HTuple& window_handle);
void disp_color(const HObject& color_image, const HTuple& window_handle);
void disp_obj(const HObject& object, const HTuple& window_handle);
void disp_rectangle1(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
                     const HTuple& row2, const HTuple& column2);
void disp_line(const HTuple& window_handle, const HTuple& row1, const HTuple& column1,
               const HTuple& row2, const HTuple& column2);
void dump_window_image(HObject* image, const HTuple& window_handle);

// Text.
void set_font(const HTuple& window_handle, const HTuple& font);
void get_font(const HTuple& window_handle, HTuple* font);
void query_font(const HTuple& window_handle, HTuple* font);
void get_font_extents(const HTuple& window_handle, HTuple* max_ascent, HTuple* max_descent,
                      HTuple* max_width, HTuple* max_height);
void get_string_extents(const HTuple& window_handle, const HTuple& values, HTuple* ascent,
                        HTuple* descent, HTuple* width, HTuple* height);
void set_tposition(const HTuple& window_handle, const HTuple& row, const HTuple& column);
void get_tposition(const HTuple& window_handle, HTuple* row, HTuple* column);
void write_string(const HTuple& window_handle, const HTuple& string);

}  // namespace vision
