#include "stereo/reconstruction_job.h"

#include <QCoreApplication>
#include <QThread>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "messaging/log.h"
#include "messaging/side_cam_server_controller.h"
#include "stereo/calibration_3d_prefs.h"
#include "stereo/reconstruction.h"
#include "viewer/halcon_model_view.h"
#include "vision/core/serialized_item.h"
#include "vision/window/window.h"

namespace velmora {

using vision::HException;
using vision::HTuple;

namespace {

constexpr char kWindowTitle[] = "co.jp.VelmoraAddin.StereoReconstruct";
constexpr char kWindowFrameKey[] = "Stereo_Reconstruct_WindowFrame";
constexpr int32_t kRefused = -100;

std::mutex g_wiring_mu;
ObjectModel3D::Reconstruction g_reconstruction;
ObjectModel3D::SideCamExchange g_exchange;

// The worker that runs reconstructions, one at a time, and the hand-overs it
// leaves for the GUI thread. Hand-overs hold the jobs, so that every job is
// released on the GUI thread.
struct Worker {
  std::mutex mu;
  std::condition_variable cv;
  struct Run {
    const ObjectModel3D* job;
    std::function<void()> fn;
  };
  std::deque<Run> runs;
  int in_flight = 0;  // queued or running
  bool started = false;
  std::deque<std::function<void()>> handovers;
};

Worker& TheWorker() {
  static Worker* w = new Worker;  // outlives every static destructor that may still see a run
  return *w;
}

void WorkerLoop() {
  Worker& w = TheWorker();
  for (;;) {
    std::function<void()> run;
    {
      std::unique_lock lk(w.mu);
      w.cv.wait(lk, [&] { return !w.runs.empty(); });
      run = std::move(w.runs.front().fn);
      w.runs.pop_front();
    }
    run();
    run = nullptr;  // drops what the unit held before it counts as done
    {
      std::lock_guard lk(w.mu);
      --w.in_flight;
    }
    w.cv.notify_all();
  }
}

void Submit(const ObjectModel3D* job, std::function<void()> run) {
  Worker& w = TheWorker();
  std::lock_guard lk(w.mu);
  if (!w.started) {
    // Detached: at application end finishRuns waits for it, bounded.
    std::thread(WorkerLoop).detach();
    w.started = true;
  }
  ++w.in_flight;
  w.runs.push_back({job, std::move(run)});
  w.cv.notify_all();
}

void DrainHandovers() {
  Worker& w = TheWorker();
  for (;;) {
    std::function<void()> h;
    {
      std::lock_guard lk(w.mu);
      if (w.handovers.empty()) return;
      h = std::move(w.handovers.front());
      w.handovers.pop_front();
    }
    h();
  }
}

// Queues `fn` for the GUI thread (from the worker).
void ToGuiThread(std::function<void()> fn) {
  Worker& w = TheWorker();
  {
    std::lock_guard lk(w.mu);
    w.handovers.push_back(std::move(fn));
  }
  if (QCoreApplication* app = QCoreApplication::instance())
    QMetaObject::invokeMethod(app, DrainHandovers, Qt::QueuedConnection);
}

void LogException(const HException& e) { Log("[%s] %s", e.ProcName().c_str(), e.ErrorMessage().c_str()); }

}  // namespace

void ObjectModel3D::setReconstruction(Reconstruction reconstruction) {
  std::lock_guard lk(g_wiring_mu);
  g_reconstruction = std::move(reconstruction);
}

void ObjectModel3D::setSideCamExchange(SideCamExchange exchange) {
  std::lock_guard lk(g_wiring_mu);
  g_exchange = std::move(exchange);
}

std::shared_ptr<ObjectModel3D> ObjectModel3D::create() { return std::shared_ptr<ObjectModel3D>(new ObjectModel3D); }

ObjectModel3D::~ObjectModel3D() {
  if (_window) _window->hide();
  if (_halconWindow) {
    try {
      HTuple handle = _halconWindow->halconWindow();
      vision::close_window(handle);
      _halconWindow->setHalconWindow(HTuple());
    } catch (const HException& e) {
      LogException(e);
    }
  }
  delete _window.data();  // the view goes with it and clears its model
}

void ObjectModel3D::createWindow(const archive::ObjectPtr& dictionary) {
  QRect frame;
  if (auto value = std::dynamic_pointer_cast<archive::Value>(archive::ReadObject(dictionary, kWindowFrameKey));
      value && value->shape() == archive::Value::Shape::Rect) {
    const std::vector<double> r = value->Numbers();  // x, y, width, height
    if (r.size() == 4)
      frame = QRect(int(r[0]), int(r[1]), std::max(0, int(r[2])), std::max(0, int(r[3])));
  }
  auto* window = new QWidget(nullptr, Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::Tool);
  // Transparent where nothing is drawn, no shadow, never takes the focus
  // from the host application, and stays when the add-in is not active.
  window->setAttribute(Qt::WA_TranslucentBackground);
  window->setAttribute(Qt::WA_ShowWithoutActivating);
  window->setAttribute(Qt::WA_MacAlwaysShowToolWindow);
  window->setWindowTitle(kWindowTitle);
  window->setGeometry(frame);
  window->setMinimumSize(frame.size());
  _window = window;
  _halconWindow = new HalconModelView(QRect(QPoint(0, 0), frame.size()), window);
  window->show();
}

int32_t ObjectModel3D::stereoReconstruct(const archive::ObjectPtr&) {
  Calibration_3D_Prefs* store = Calibration_3D_Prefs::defaultObject();
  if (!store || !store->readData() || !store->calibrationInfo()) return kRefused;
  const std::shared_ptr<archive::Data> camera_data = CameraModelData(store->calibrationInfo());
  if (!camera_data) return kRefused;

  SideCamExchange exchange;
  Reconstruction reconstruction;
  {
    std::lock_guard lk(g_wiring_mu);
    exchange = g_exchange;
    reconstruction = g_reconstruction;
  }
  if (!exchange) {
    // The shared side-camera client, with its 5 s send and receive timeouts.
    sideCamServerController* controller = sideCamServerController::sharedController();
    if (!controller) return kRefused;
    exchange = [controller](int32_t id, const archive::ObjectPtr& dict, archive::ObjectPtr* reply) {
      return controller->sendMessageWithArchivedDictReply(id, dict, reply);
    };
  }
  if (!reconstruction) reconstruction = action;

  archive::ObjectPtr reply;
  if (!exchange(MessageIdSide3DCheck, nullptr, &reply) || archive::ReadInt(reply, "3d_errorResult") != 0)
    return kRefused;
  auto request = archive::MakeDictionary();
  request->Set("calibImageType", archive::MakeInt32(0));
  if (!exchange(MessageIdSide3DImages, request, &reply) || archive::ReadInt(reply, "3d_errorResult") != 0)
    return kRefused;

  // The views in camera order. A missing first view leaves the list empty
  // (the reconstruction then fails and logs); a gap after it is refused as an
  // invalid insertion, as the dictionary layer does.
  SideViewBytes views;
  for (int i = 0; i < 8; ++i) {
    char key[16];
    std::snprintf(key, sizeof key, "sideImage_%02d", i);
    archive::ObjectPtr value = archive::ReadObject(reply, key);
    if (!value) {
      if (i == 0) break;
      throw std::invalid_argument(std::string("attempt to insert nil object for ") + key);
    }
    auto data = std::dynamic_pointer_cast<archive::Data>(value);
    views.push_back(data ? data->bytes : std::vector<uint8_t>{});
  }

  // Both units hold the job: the run on the worker, then the hand-over on
  // the GUI thread, where the job is let go.
  std::shared_ptr<ObjectModel3D> self = shared_from_this();
  const HTuple window = windowHandle();
  Submit(this, [self, window, bytes = camera_data->bytes, views = std::move(views), reconstruction]() mutable {
    HTuple model;
    if (!self->abandoned_) {
      try {
        HTuple item;
        vision::create_serialized_item_ptr(HTuple(vision::Hlong(reinterpret_cast<intptr_t>(bytes.data()))),
                                           HTuple(vision::Hlong(bytes.size())), "true", &item);
        model = reconstruction(window, item, views);
        vision::clear_serialized_item(item);
        views.clear();
      } catch (const HException& e) {
        LogException(e);
        model = HTuple();
      }
    }
    ToGuiThread([self = std::move(self), model]() mutable {
      if (!model.Empty()) self->handOver(model);
      self.reset();  // the job may end here, on the GUI thread
    });
  });
  return 0;
}

void ObjectModel3D::handOver(const HTuple& model) {
  if (!_halconWindow) return;
  try {
    _halconWindow->setObjectModel3D(model);
  } catch (const HException& e) {
    LogException(e);
  }
  _halconWindow->setNeedsDisplay();
}

HTuple ObjectModel3D::windowHandle() const {
  if (!_halconWindow) return HTuple();
  return _halconWindow->halconWindow();
}

void ObjectModel3D::abandon() {
  abandoned_ = true;
  // A run that has not started yet is dropped now (outside the lock: that
  // may let go of this job's last references but the caller's).
  Worker& w = TheWorker();
  std::deque<Worker::Run> dropped;
  {
    std::lock_guard lk(w.mu);
    for (auto it = w.runs.begin(); it != w.runs.end();) {
      if (it->job == this) {
        dropped.push_back(std::move(*it));
        it = w.runs.erase(it);
        --w.in_flight;
      } else {
        ++it;
      }
    }
  }
}

int ObjectModel3D::runsInFlight() {
  Worker& w = TheWorker();
  std::lock_guard lk(w.mu);
  return w.in_flight;
}

bool ObjectModel3D::finishRuns(double seconds) {
  Worker& w = TheWorker();
  std::deque<Worker::Run> dropped;
  {
    std::lock_guard lk(w.mu);
    // Runs not started yet belong to jobs that are going away: drop them
    // (outside the lock: that may end their jobs).
    dropped.swap(w.runs);
    w.in_flight -= int(dropped.size());
  }
  dropped.clear();
  {
    std::unique_lock lk(w.mu);
    w.cv.wait_for(lk, std::chrono::duration<double>(seconds), [&] { return w.in_flight == 0; });
  }
  DrainHandovers();
  std::lock_guard lk(w.mu);
  return w.in_flight == 0;
}

}  // namespace velmora
