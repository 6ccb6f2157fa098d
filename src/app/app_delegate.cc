#include "app/app_delegate.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <QAction>
#include <QApplication>
#include <QColor>
#include <QCoreApplication>
#include <QGuiApplication>
#include <QIcon>
#include <QMenu>
#include <QObject>
#include <QPainter>
#include <QPixmap>
#include <QSocketNotifier>
#include <QString>
#include <QSystemTrayIcon>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "app/vision_presence.h"
#include "decode/decode_image.h"
#include "messaging/local_port.h"
#include "messaging/log.h"
#include "messaging/message_port.h"
#include "ocr/ocr_filtered_image.h"
#include "ocr/ocr_fonts.h"
#include "ocr/ocr_image.h"

namespace velmora {

namespace {

// The delegate the application runs with, as the platform's application
// object would hold it.
AppDelegate* g_shared_delegate = nullptr;
// Write end of the self-pipe; the signal handler may only touch this and the
// flag below.
std::atomic<int> g_signal_pipe{-1};
// Set by a termination signal: from then on no further request is served,
// also when the signal arrives while one is being served.
std::atomic<bool> g_termination_signalled{false};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

// The signals that end the add-in through its normal path (Ctrl-C in a
// terminal, a closed terminal, the service manager).
constexpr struct {
  int number;
  const char* name;
} kTerminationSignals[] = {{SIGTERM, "SIGTERM"}, {SIGINT, "SIGINT"}, {SIGHUP, "SIGHUP"}};

constexpr char kSignalTerminate = 't';
constexpr char kSignalTestQuit = 'q';

void WriteSignalByte(char byte) {
  const int fd = g_signal_pipe.load(std::memory_order_relaxed);
  if (fd >= 0) {
    const int saved = errno;
    [[maybe_unused]] ssize_t ignored = ::write(fd, &byte, 1);
    errno = saved;
  }
}

void TestQuitHandler(int) { WriteSignalByte(kSignalTestQuit); }

// Modifiers held at launch. Tests set VELMORA_LAUNCH_MODIFIERS (for example
// "meta+alt", or "none") because no real keyboard exists under them.
Qt::KeyboardModifiers LaunchModifiers() {
  const char* injected = std::getenv("VELMORA_LAUNCH_MODIFIERS");
  if (!injected) return QGuiApplication::queryKeyboardModifiers();
  Qt::KeyboardModifiers mods;
  for (const QString& part : QString::fromUtf8(injected).toLower().split('+', Qt::SkipEmptyParts)) {
    const QString key = part.trimmed();
    if (key == "meta" || key == "super" || key == "command") mods |= Qt::MetaModifier;
    else if (key == "alt" || key == "option") mods |= Qt::AltModifier;
    else if (key == "shift") mods |= Qt::ShiftModifier;
    else if (key == "control" || key == "ctrl") mods |= Qt::ControlModifier;
    else if (key == "keypad") mods |= Qt::KeypadModifier;
    else if (key == "group") mods |= Qt::GroupSwitchModifier;
  }
  return mods;
}

// The status item's image: drawn here so the add-in ships no image file.
QIcon StatusIcon() {
  QPixmap pixmap(24, 24);
  pixmap.fill(Qt::transparent);
  QPainter painter(&pixmap);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setBrush(QColor(40, 90, 160));
  painter.setPen(Qt::NoPen);
  painter.drawRoundedRect(QRectF(2, 2, 20, 20), 4, 4);
  painter.setPen(Qt::white);
  QFont font = painter.font();
  font.setPixelSize(9);
  font.setBold(true);
  painter.setFont(font);
  painter.drawText(pixmap.rect(), Qt::AlignCenter, QStringLiteral("71R"));
  return QIcon(pixmap);
}

}  // namespace

AppDelegate::AppDelegate() = default;

AppDelegate::~AppDelegate() {
  if (g_shared_delegate == this) g_shared_delegate = nullptr;
  if (signal_write_.valid()) {
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (const auto& sig : kTerminationSignals) ::sigaction(sig.number, &action, nullptr);
    g_signal_pipe.store(-1);
  }
  applicationWillTerminate();
}

AppDelegate* AppDelegate::shared() { return g_shared_delegate; }

bool AppDelegate::init() {
  g_shared_delegate = this;
  _isHalconFrameworkExist = -1;
  // Looking the marker up and then failing to take it both mean another
  // instance: the second covers two instances starting at the same moment.
  const bool marker_answers = SendPortRequest(kInstanceMarkerPortName, 0, nullptr, 0,
                                             PortSendOptions{.want_reply = false}, nullptr) == kPortSuccess;
  LocalPort::Error error = LocalPort::Error::kNameTaken;
  if (!marker_answers) marker_ = LocalPort::Create(kInstanceMarkerPortName, nullptr, &error);
  another_instance_ = marker_answers || !marker_;
  // In every case, as the original: when another instance owns the name this
  // simply fails and leaves that instance's port alone.
  initMessagePort(kRequestPortName);
  if (error == LocalPort::Error::kUnusable) {
    // Not another instance: without a usable port folder nobody can reach us.
    Log("cannot register port \"%s\": the port folder %s is not a private folder of this user",
        kInstanceMarkerPortName, PortDirectoryLocation().c_str());
    start_exit_code_ = 1;
  } else if (!another_instance_ && !messagePortIsOpen()) {
    Log("cannot register the request port \"%s\"", kRequestPortName);
  }
  return !another_instance_;
}

void AppDelegate::applicationDidFinishLaunching() {
  setupStatusBar();

  int fds[2];
  if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
    signal_read_.reset(fds[0]);
    signal_write_.reset(fds[1]);
    g_signal_pipe.store(fds[1]);
    signal_notifier_ = std::make_unique<QSocketNotifier>(fds[0], QSocketNotifier::Read);
    QObject::connect(signal_notifier_.get(), &QSocketNotifier::activated, [this] { onSignalPipe(); });
  }
  g_termination_signalled.store(false);
  struct sigaction action {};
  action.sa_handler = &AppDelegate::SIGTERMsHandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  for (const auto& sig : kTerminationSignals) {
    const int res = ::sigaction(sig.number, &action, nullptr);
    if (res < 0) Log("sigaction<%s> res:%d", sig.name, res);
  }
  installTestHooks();

  Log("[VelmoraAddin] launch-%d.%d", 12, 0);
}

int AppDelegate::applicationShouldTerminate() { return 1; }

void AppDelegate::applicationWillTerminate() { closeMessagePort(); }

void AppDelegate::setupStatusBar() {
  const Qt::KeyboardModifiers mods = LaunchModifiers();
  // Exactly Meta+Alt and nothing else; any further modifier means no item.
  if (mods == (Qt::MetaModifier | Qt::AltModifier)) statusItem = std::make_unique<QSystemTrayIcon>();
  if (!statusItem) return;

  statusItem->setToolTip(QStringLiteral("VelmoraAddin"));
  statusItem->setIcon(StatusIcon());
  menu_ = std::make_unique<QMenu>(QString());
  QAction* quit = menu_->addAction(QCoreApplication::translate("AppDelegate", "Quit"));
  quit->setData(1);
  QObject::connect(quit, &QAction::triggered, [this, quit] { menuAction(quit->data().toInt()); });
  statusItem->setContextMenu(menu_.get());
  statusItem->show();
  Log("status item shown");
}

void AppDelegate::menuAction(int tag) {
  if (tag == 1) terminate();
}

void AppDelegate::doTerminate() { terminate(); }

void AppDelegate::scheduleTerminate() {
  if (QCoreApplication* app = QCoreApplication::instance())
    QMetaObject::invokeMethod(app, [this] { doTerminate(); }, Qt::QueuedConnection);
}

QSize AppDelegate::windowWillResize(QWidget*, QSize proposed) const { return proposed; }

void AppDelegate::SIGTERMsHandler(int) {
  g_termination_signalled.store(true, std::memory_order_relaxed);
  WriteSignalByte(kSignalTerminate);
}

bool AppDelegate::terminationSignalled() { return g_termination_signalled.load(std::memory_order_relaxed); }

bool AppDelegate::isHalconFrameworkExist() {
  if (_isHalconFrameworkExist != -1) return _isHalconFrameworkExist > 0;
  _isHalconFrameworkExist = VisionLibraryPresentAt(HalconFramework_FilePath()) ? 1 : 0;
  return _isHalconFrameworkExist > 0;
}

archive::ObjectPtr AppDelegate::ocrImage(const archive::ObjectPtr& image,
                                         const archive::ObjectPtr& attribute) {
  return ::velmora::ocrImage(image, attribute, isHalconFrameworkExist());
}

archive::ObjectPtr AppDelegate::installedFonts() { return ::velmora::installedFonts(); }

std::optional<std::vector<uint8_t>> AppDelegate::ocrFilteredImage(const archive::ObjectPtr& image,
                                                                  const archive::ObjectPtr& attribute) {
  return ::velmora::ocrFilteredImage(image, attribute, isHalconFrameworkExist());
}

archive::ObjectPtr AppDelegate::decodeImage(const archive::ObjectPtr& image,
                                            const archive::ObjectPtr& attribute) {
  return ::velmora::decodeImage(image, attribute, isHalconFrameworkExist());
}

void AppDelegate::terminate() {
  if (terminating_ || applicationShouldTerminate() != 1) return;
  terminating_ = true;
  applicationWillTerminate();
  QCoreApplication::exit(0);
}

void AppDelegate::onSignalPipe() {
  char bytes[64];
  ssize_t n;
  bool quit_item = false, term = false;
  while ((n = ::read(signal_read_.get(), bytes, sizeof bytes)) > 0) {
    for (ssize_t i = 0; i < n; ++i) {
      term |= bytes[i] == kSignalTerminate;
      quit_item |= bytes[i] == kSignalTestQuit;
    }
  }
  if (quit_item) {
    // Chooses the status item's first menu entry, as a user would.
    const QList<QAction*> actions = menu_ ? menu_->actions() : QList<QAction*>{};
    if (actions.isEmpty()) Log("test hook: no status item");
    else actions.front()->trigger();
  }
  if (term) terminate();
}

// With VELMORA_TEST_HOOKS=1, SIGUSR1 chooses the status item's "Quit" entry;
// end-to-end tests have no other way to click it.
void AppDelegate::installTestHooks() {
  const char* hooks = std::getenv("VELMORA_TEST_HOOKS");
  if (!hooks || std::strcmp(hooks, "1") != 0 || !signal_write_.valid()) return;
  struct sigaction action {};
  action.sa_handler = &TestQuitHandler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  ::sigaction(SIGUSR1, &action, nullptr);
}

}  // namespace velmora
