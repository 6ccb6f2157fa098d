#pragma once
// The application delegate: the add-in's shell (single instance, request port,
// optional status item, termination) and the object on which the dispatcher
// calls the services.
#include <QSize>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "archive/archive.h"
#include "messaging/protocol.h"
#include "messaging/unique_fd.h"

class QAction;
class QLabel;
class QLineEdit;
class QMenu;
class QPushButton;
class QSocketNotifier;
class QSystemTrayIcon;
class QWidget;

namespace velmora {

class LocalPort;

inline constexpr char kInstanceMarkerPortName[] = "VelmoraAddin";

class AppDelegate {
 public:
  AppDelegate();
  ~AppDelegate();
  AppDelegate(const AppDelegate&) = delete;
  AppDelegate& operator=(const AppDelegate&) = delete;

  // The delegate the dispatcher serves (the one whose init() ran), or null.
  static AppDelegate* shared();

  // Start: registers as the shared delegate, takes the single-instance marker
  // and opens the request port. Returns false when another instance runs; the
  // process must then end at once with startExitCode(): 0, silently, when
  // another instance runs; 1 when the port folder is unusable (logged).
  bool init();
  int startExitCode() const { return start_exit_code_; }
  // Launch: status item, SIGTERM handler, launch log line. Needs the
  // QApplication.
  void applicationDidFinishLaunching();
  // Always 1, terminate now: the user is never asked.
  int applicationShouldTerminate();
  // Closes the request port.
  void applicationWillTerminate();
  void setupStatusBar();
  // Tag 1 ("Quit") terminates; other tags do nothing.
  void menuAction(int tag);
  void doTerminate();
  // Queues doTerminate on the main thread without waiting.
  void scheduleTerminate();
  QSize windowWillResize(QWidget* sender, QSize proposed) const;
  // The handler of SIGTERM, SIGINT and SIGHUP. Async-signal-safe: it only
  // raises a flag and wakes the main loop, which runs the termination path.
  static void SIGTERMsHandler(int signal);
  // True once a termination signal arrived: the request port serves nothing more.
  static bool terminationSignalled();

  // The one-time cached test of the vision library's presence.
  bool isHalconFrameworkExist();

  // Services called by the dispatcher; null means "nothing".
  archive::ObjectPtr ocrImage(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute);
  archive::ObjectPtr installedFonts();
  std::optional<std::vector<uint8_t>> ocrFilteredImage(const archive::ObjectPtr& image,
                                                       const archive::ObjectPtr& attribute);
  archive::ObjectPtr decodeImage(const archive::ObjectPtr& image, const archive::ObjectPtr& attribute);

  // Fields of the delegate.
  std::unique_ptr<QSystemTrayIcon> statusItem;  // only when Meta+Alt were held at launch
  QMenu* statusItemMenu = nullptr;              // declared, never used
  bool run = false;                             // loop flag of a development action; never set
  int32_t _isHalconFrameworkExist = -1;         // -1 untested, 0 absent, 1 present

  // Outlets of the development window; inert, nothing reads them.
  QWidget* window = nullptr;
  QWidget* view = nullptr;
  QPushButton* createButton = nullptr;
  QPushButton* startButton = nullptr;
  QPushButton* stopButton = nullptr;
  QLineEdit* matchingTime = nullptr;
  QLineEdit* matchingScore = nullptr;
  QLineEdit* measureTime = nullptr;
  QLineEdit* measureNumberLeads = nullptr;
  QLineEdit* measureMinLeadDist = nullptr;

 private:
  void terminate();
  void onSignalPipe();
  void installTestHooks();

  bool another_instance_ = false;
  int start_exit_code_ = 0;
  bool terminating_ = false;
  std::unique_ptr<QMenu> menu_;
  UniqueFd signal_read_;
  UniqueFd signal_write_;
  std::unique_ptr<QSocketNotifier> signal_notifier_;
  // The single-instance marker is held for the life of the process.
  std::unique_ptr<LocalPort> marker_;
};

}  // namespace velmora
