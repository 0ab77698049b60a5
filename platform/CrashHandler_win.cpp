#include "platform/CrashHandler.h"

#include <QDir>
#include <QFileInfo>

#include <windows.h>

#include <atomic>
#include <string>

namespace {
// Everything the filter touches is static storage filled before it can run.
wchar_t g_dir[32768];
std::atomic<bool> g_installed{false};
std::atomic<LONG> g_handling{0};
LPTOP_LEVEL_EXCEPTION_FILTER g_previous = nullptr;

const char *exceptionName(DWORD code)
{
    switch (code) {
    case EXCEPTION_ACCESS_VIOLATION:
        return "EXCEPTION_ACCESS_VIOLATION";
    case EXCEPTION_ARRAY_BOUNDS_EXCEEDED:
        return "EXCEPTION_ARRAY_BOUNDS_EXCEEDED";
    case EXCEPTION_DATATYPE_MISALIGNMENT:
        return "EXCEPTION_DATATYPE_MISALIGNMENT";
    case EXCEPTION_FLT_DIVIDE_BY_ZERO:
        return "EXCEPTION_FLT_DIVIDE_BY_ZERO";
    case EXCEPTION_ILLEGAL_INSTRUCTION:
        return "EXCEPTION_ILLEGAL_INSTRUCTION";
    case EXCEPTION_IN_PAGE_ERROR:
        return "EXCEPTION_IN_PAGE_ERROR";
    case EXCEPTION_INT_DIVIDE_BY_ZERO:
        return "EXCEPTION_INT_DIVIDE_BY_ZERO";
    case EXCEPTION_PRIV_INSTRUCTION:
        return "EXCEPTION_PRIV_INSTRUCTION";
    case EXCEPTION_STACK_OVERFLOW:
        return "EXCEPTION_STACK_OVERFLOW";
    }
    return "EXCEPTION";
}

// Bounded appends into fixed buffers; no allocation and no CRT formatting.
template <typename Char, size_t N> struct Buffer
{
    Char data[N];
    size_t used = 0;
    void add(const Char *text)
    {
        while (*text && used + 1 < N)
            data[used++] = *text++;
        data[used] = 0;
    }
    void addNumber(unsigned long long value)
    {
        Char digits[24];
        int n = 0;
        do {
            digits[n++] = Char('0' + value % 10);
            value /= 10;
        } while (value && n < 24);
        while (n > 0 && used + 1 < N)
            data[used++] = digits[--n];
        data[used] = 0;
    }
};

unsigned long long unixSeconds()
{
    FILETIME ft;
    GetSystemTimeAsFileTime(&ft);
    ULARGE_INTEGER t;
    t.LowPart = ft.dwLowDateTime;
    t.HighPart = ft.dwHighDateTime;
    // FILETIME counts 100 ns ticks since 1601-01-01.
    return (t.QuadPart - 116444736000000000ULL) / 10000000ULL;
}

// Paths are long; keep them off the stack, which may be what overflowed.
Buffer<wchar_t, 32768 + 64> g_finalPath;
Buffer<wchar_t, 32768 + 72> g_tempPath;

void writeRecord(DWORD code)
{
    const unsigned long long now = unixSeconds();
    const unsigned long long pid = GetCurrentProcessId();

    auto &finalPath = g_finalPath;
    finalPath.used = 0;
    finalPath.add(g_dir);
    finalPath.add(L"\\");
    finalPath.addNumber(now);
    finalPath.add(L"-");
    finalPath.addNumber(pid);
    finalPath.add(L".crash");
    auto &tempPath = g_tempPath;
    tempPath.used = 0;
    tempPath.add(finalPath.data);
    tempPath.add(L".tmp");

    Buffer<char, 512> body;
    body.add("twinfold-crash 1\ncode=");
    body.addNumber(code);
    body.add("\nname=");
    body.add(exceptionName(code));
    body.add("\ntime=");
    body.addNumber(now);
    body.add("\npid=");
    body.addNumber(pid);
    body.add("\n");

    HANDLE file =
        CreateFileW(tempPath.data, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE)
        return;
    DWORD written = 0;
    const BOOL ok = WriteFile(file, body.data, DWORD(body.used), &written, nullptr);
    CloseHandle(file);
    if (ok && written == body.used)
        MoveFileExW(tempPath.data, finalPath.data, MOVEFILE_REPLACE_EXISTING);
    else
        DeleteFileW(tempPath.data);
}

LONG WINAPI onUnhandledException(EXCEPTION_POINTERS *info)
{
    if (g_handling.exchange(1) == 0 && info && info->ExceptionRecord)
        writeRecord(info->ExceptionRecord->ExceptionCode);
    // Let an earlier filter and then the system's own crash reporting do their part.
    if (g_previous)
        return g_previous(info);
    return EXCEPTION_CONTINUE_SEARCH;
}
} // namespace

bool CrashHandler::install(const QString &databaseDir)
{
    uninstall();
    const QString dir = QDir::toNativeSeparators(QDir(databaseDir).absolutePath());
    if (dir.isEmpty() || size_t(dir.size()) >= sizeof(g_dir) / sizeof(g_dir[0]) ||
        !QFileInfo(databaseDir).isDir())
        return false;
    const qsizetype n = dir.toWCharArray(g_dir);
    g_dir[n] = 0;
    g_handling.store(0);
    g_previous = SetUnhandledExceptionFilter(onUnhandledException);
    g_installed.store(true);
    return true;
}

void CrashHandler::uninstall()
{
    if (!g_installed.exchange(false))
        return;
    SetUnhandledExceptionFilter(g_previous);
    g_previous = nullptr;
}

bool CrashHandler::isInstalled()
{
    return g_installed.load();
}

QString CrashHandler::programDir()
{
    // Long paths: grow the buffer until the whole name fits.
    std::wstring buffer(MAX_PATH, L'\0');
    for (;;) {
        const DWORD n = GetModuleFileNameW(nullptr, buffer.data(), DWORD(buffer.size()));
        if (n == 0)
            return QString();
        if (n < buffer.size()) {
            buffer.resize(n);
            break;
        }
        if (buffer.size() >= 32768)
            return QString();
        buffer.resize(buffer.size() * 2);
    }
    return QFileInfo(QString::fromStdWString(buffer)).absolutePath();
}
