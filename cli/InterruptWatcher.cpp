#include "cli/InterruptWatcher.h"

#include <QPointer>

#ifdef Q_OS_WIN
#include <QMetaObject>
#include <windows.h>

namespace {
QPointer<InterruptWatcher> g_watcher;

BOOL WINAPI consoleHandler(DWORD type)
{
    if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT)
        return FALSE;
    if (InterruptWatcher *w = g_watcher.data())
        QMetaObject::invokeMethod(w, &InterruptWatcher::interrupted, Qt::QueuedConnection);
    return TRUE;
}
} // namespace

InterruptWatcher::InterruptWatcher(QObject *parent) : QObject(parent)
{
    g_watcher = this;
    SetConsoleCtrlHandler(consoleHandler, TRUE);
}

InterruptWatcher::~InterruptWatcher()
{
    SetConsoleCtrlHandler(consoleHandler, FALSE);
}

#else
#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
int g_pipe[2] = {-1, -1};

void onSignal(int)
{
    // Only async-signal-safe work here: wake the event loop through the pipe.
    const char byte = 1;
    [[maybe_unused]] const auto written = ::write(g_pipe[1], &byte, 1);
}
} // namespace

InterruptWatcher::InterruptWatcher(QObject *parent) : QObject(parent)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, g_pipe) != 0)
        return;
    notifier = new QSocketNotifier(g_pipe[0], QSocketNotifier::Read, this);
    connect(notifier, &QSocketNotifier::activated, this, [this] {
        char buffer[16];
        while (::read(g_pipe[0], buffer, sizeof buffer) > 0) {
        }
        emit interrupted();
    });
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

InterruptWatcher::~InterruptWatcher()
{
    // The handlers stay installed: an interrupt in the last moments of shutdown then
    // writes to a closed pipe and is dropped, instead of killing a process that has
    // already printed its complete result.
    delete notifier;
    const int readEnd = g_pipe[0];
    const int writeEnd = g_pipe[1];
    g_pipe[0] = g_pipe[1] = -1;
    if (readEnd >= 0) {
        ::close(readEnd);
        ::close(writeEnd);
    }
}
#endif
