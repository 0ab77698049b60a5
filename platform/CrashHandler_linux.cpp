#include "platform/CrashHandler.h"

#include <QDir>
#include <QFileInfo>

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

namespace {
constexpr int kSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr int kSignalCount = int(sizeof(kSignals) / sizeof(kSignals[0]));

// Everything the handler touches is static storage filled before it can run.
char g_dir[4096];
std::atomic<bool> g_installed{false};
std::atomic_flag g_handling = ATOMIC_FLAG_INIT;
struct sigaction g_previous[kSignalCount];
// Room to run the handler when the crash was a stack overflow.
alignas(16) char g_altStack[64 * 1024];
bool g_altStackSet = false;

const char *signalName(int sig)
{
    switch (sig) {
    case SIGSEGV:
        return "SIGSEGV";
    case SIGBUS:
        return "SIGBUS";
    case SIGILL:
        return "SIGILL";
    case SIGFPE:
        return "SIGFPE";
    case SIGABRT:
        return "SIGABRT";
    }
    return "SIGNAL";
}

// Bounded appends into a fixed buffer; no allocation, no locale, no stdio.
struct Buffer
{
    char data[512];
    size_t used = 0;
    void add(const char *text)
    {
        while (*text && used + 1 < sizeof(data))
            data[used++] = *text++;
        data[used] = '\0';
    }
    void addNumber(long long value)
    {
        char digits[24];
        int n = 0;
        unsigned long long v = value < 0 ? 0ULL - static_cast<unsigned long long>(value)
                                         : static_cast<unsigned long long>(value);
        do {
            digits[n++] = char('0' + v % 10);
            v /= 10;
        } while (v && n < int(sizeof(digits)));
        if (value < 0)
            add("-");
        while (n > 0 && used + 1 < sizeof(data))
            data[used++] = digits[--n];
        data[used] = '\0';
    }
};

void writeRecord(int sig)
{
    const long long now = static_cast<long long>(time(nullptr));
    const long long pid = static_cast<long long>(getpid());

    Buffer name;
    name.add("/");
    name.addNumber(now);
    name.add("-");
    name.addNumber(pid);
    name.add(".crash");

    char finalPath[sizeof(g_dir) + sizeof(name.data)];
    char tempPath[sizeof(finalPath) + 8];
    const size_t dirLen = strlen(g_dir);
    memcpy(finalPath, g_dir, dirLen);
    memcpy(finalPath + dirLen, name.data, name.used + 1);
    memcpy(tempPath, finalPath, dirLen + name.used);
    memcpy(tempPath + dirLen + name.used, ".tmp", 5);

    Buffer body;
    body.add("twinfold-crash 1\ncode=");
    body.addNumber(sig);
    body.add("\nname=");
    body.add(signalName(sig));
    body.add("\ntime=");
    body.addNumber(now);
    body.add("\npid=");
    body.addNumber(pid);
    body.add("\n");

    const int fd = open(tempPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return;
    size_t done = 0;
    while (done < body.used) {
        const ssize_t n = write(fd, body.data + done, body.used - done);
        if (n <= 0)
            break;
        done += size_t(n);
    }
    close(fd);
    if (done == body.used)
        rename(tempPath, finalPath);
    else
        unlink(tempPath);
}

void onFatalSignal(int sig, siginfo_t *, void *)
{
    // Only the first crashing thread writes; the others go straight to the default action.
    if (!g_handling.test_and_set())
        writeRecord(sig);
    struct sigaction dfl;
    memset(&dfl, 0, sizeof(dfl));
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    sigaction(sig, &dfl, nullptr);
    // Pending until the handler returns, then the default action ends the process.
    raise(sig);
}
} // namespace

bool CrashHandler::install(const QString &databaseDir)
{
    uninstall();
    const QByteArray dir = QFile::encodeName(QDir(databaseDir).absolutePath());
    if (dir.isEmpty() || size_t(dir.size()) >= sizeof(g_dir) || !QFileInfo(databaseDir).isDir())
        return false;
    memcpy(g_dir, dir.constData(), size_t(dir.size()) + 1);
    g_handling.clear();

    if (!g_altStackSet) {
        stack_t stack;
        memset(&stack, 0, sizeof(stack));
        stack.ss_sp = g_altStack;
        stack.ss_size = sizeof(g_altStack);
        g_altStackSet = sigaltstack(&stack, nullptr) == 0;
    }

    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < kSignalCount; ++i)
        sigaction(kSignals[i], &action, &g_previous[i]);
    g_installed.store(true);
    return true;
}

void CrashHandler::uninstall()
{
    if (!g_installed.exchange(false))
        return;
    for (int i = 0; i < kSignalCount; ++i)
        sigaction(kSignals[i], &g_previous[i], nullptr);
}

bool CrashHandler::isInstalled()
{
    return g_installed.load();
}

QString CrashHandler::programDir()
{
    return QFileInfo(QStringLiteral("/proc/self/exe")).canonicalPath();
}
