#include "viewer/window_presenter_qt.h"

#include <QCoreApplication>
#include <QPainter>
#include <QThread>

namespace velmora {
namespace {

// The top-level window of a graphics window opened without a father.
class FrameWindow : public QWidget {
 public:
  FrameWindow(int row, int column, int width, int height) {
    setAttribute(Qt::WA_OpaquePaintEvent);
    setGeometry(column, row, width, height);
    setFixedSize(width, height);
    frame_ = QImage(width, height, QImage::Format_RGB888);
    frame_.fill(Qt::black);
  }
  void show(const QImage& frame, bool immediate) {
    frame_ = frame;
    if (immediate) repaint();
    else update();
  }

 protected:
  void paintEvent(QPaintEvent*) override {
    QPainter p(this);
    p.drawImage(0, 0, frame_);
  }

 private:
  QImage frame_;
};

bool OnGuiThread() {
  QCoreApplication* app = QCoreApplication::instance();
  return app && QThread::currentThread() == app->thread();
}

}  // namespace

std::shared_ptr<QtWindowPresenter> QtWindowPresenter::Install() {
  static std::shared_ptr<QtWindowPresenter> presenter = [] {
    auto p = std::make_shared<QtWindowPresenter>();
    vision::SetWindowPresenter(p);
    return p;
  }();
  return presenter;
}

int64_t QtWindowPresenter::registerHost(GraphicsWindowHost* host) {
  std::lock_guard lk(mu_);
  const int64_t father = next_father_++;
  hosts_[father] = host;
  return father;
}

void QtWindowPresenter::unregisterHost(int64_t father) {
  std::lock_guard lk(mu_);
  hosts_.erase(father);
}

void QtWindowPresenter::onGuiThread(std::function<void()> fn) {
  QCoreApplication* app = QCoreApplication::instance();
  if (!app) return;  // no GUI (library tests): nothing to show
  if (OnGuiThread()) fn();
  else QMetaObject::invokeMethod(app, std::move(fn), Qt::QueuedConnection);
}

void QtWindowPresenter::WindowOpened(uint64_t id, int row, int column, int width, int height) {
  onGuiThread([this, id, row, column, width, height] {
    Route& r = routes_[id];
    r.own = std::make_unique<FrameWindow>(row, column, width, height);
    r.own->show();
  });
}

void QtWindowPresenter::WindowOpenedIn(uint64_t id, int64_t father, int, int, int, int) {
  onGuiThread([this, id, father] { routes_[id].father = father; });
}

void QtWindowPresenter::WindowChanged(uint64_t id, const cv::Mat& rgb) {
  // The copy is made on the drawing thread; the GUI thread only swaps it in.
  QImage frame = QImage(rgb.data, rgb.cols, rgb.rows, int(rgb.step), QImage::Format_RGB888).copy();
  const bool immediate = OnGuiThread();
  onGuiThread([this, id, frame = std::move(frame), immediate] { deliver(id, frame, immediate); });
}

void QtWindowPresenter::deliver(uint64_t id, const QImage& frame, bool immediate) {
  auto it = routes_.find(id);
  if (it == routes_.end()) return;  // closed meanwhile
  if (it->second.own) {
    static_cast<FrameWindow*>(it->second.own.get())->show(frame, immediate);
    return;
  }
  GraphicsWindowHost* host = nullptr;
  {
    std::lock_guard lk(mu_);
    auto h = hosts_.find(it->second.father);
    if (h != hosts_.end()) host = h->second;
  }
  if (host) host->showGraphicsFrame(id, frame, immediate);
}

void QtWindowPresenter::WindowClosed(uint64_t id) {
  onGuiThread([this, id] {
    auto it = routes_.find(id);
    if (it == routes_.end()) return;
    const int64_t father = it->second.father;
    routes_.erase(it);  // a window of our own closes with its route
    GraphicsWindowHost* host = nullptr;
    {
      std::lock_guard lk(mu_);
      auto h = hosts_.find(father);
      if (h != hosts_.end()) host = h->second;
    }
    if (host) host->graphicsWindowClosed(id);
  });
}

}  // namespace velmora
