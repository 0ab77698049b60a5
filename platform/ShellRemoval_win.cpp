#include "platform/ShellRemoval.h"

#include "app/TLogger.h"

#include <QDir>

#include <string>

#include <objbase.h>
#include <shellapi.h>
#include <shobjidl.h>
#include <windows.h>

using namespace Qt::StringLiterals;

namespace {

constexpr DWORD kUndoFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_ALLOWUNDO | FOF_NOERRORUI;        // 0x454
constexpr DWORD kNoUndoFlags = FOF_SILENT | FOF_NOCONFIRMATION | FOF_NOCONFIRMMKDIR | FOF_NOERRORUI; // 0x614

std::wstring nativePath(const QString &path)
{
    return QDir::toNativeSeparators(path).toStdWString();
}

QString hresultText(HRESULT hr)
{
    return ShellRemoval::systemErrorText(static_cast<qint32>(hr), true);
}

QString hex(HRESULT hr)
{
    return QString::number(static_cast<quint32>(hr), 16);
}

} // namespace

bool ShellRemoval::fileOperation(const QString &path, bool allowUndo)
{
    const std::wstring native = nativePath(path);
    IShellItem *item = nullptr;
    HRESULT hr = SHCreateItemFromParsingName(native.c_str(), nullptr, IID_PPV_ARGS(&item));
    if (FAILED(hr) || !item) {
        logInfo(
            u"[TFileDeleter]: Failed to create ShellItem. reason: %1. file: %2"_s.arg(hresultText(hr), path));
        return false;
    }
    IFileOperation *operation = nullptr;
    hr = CoCreateInstance(CLSID_FileOperation, nullptr, CLSCTX_ALL, IID_PPV_ARGS(&operation));
    if (FAILED(hr) || !operation) {
        logInfo(u"[TFileDeleter]: Failed to create IFileOperation. reason: %1. file: %2"_s.arg(
            hresultText(hr), path));
        item->Release();
        return false;
    }

    bool ok = false;
    // Without its flags the operation could ask the user or skip the recycle bin, so a
    // failure here ends the attempt before anything is queued.
    hr = operation->SetOperationFlags(allowUndo ? kUndoFlags : kNoUndoFlags);
    if (FAILED(hr)) {
        logInfo(
            u"[TFileDeleter]: SetOperationFlags failed. reason: %1. file: %2"_s.arg(hresultText(hr), path));
    } else if (hr = operation->DeleteItem(item, nullptr); FAILED(hr)) {
        logInfo(u"[TFileDeleter]: DeleteItem failed. reason: %1. file: %2"_s.arg(hresultText(hr), path));
    } else if (hr = operation->PerformOperations(); FAILED(hr)) {
        logInfo(
            u"[TFileDeleter]: PerformOperations failed. reason: %1. file: %2"_s.arg(hresultText(hr), path));
    } else {
        BOOL aborted = FALSE;
        hr = operation->GetAnyOperationsAborted(&aborted);
        if (FAILED(hr) || aborted)
            logInfo(u"[TFileDeleter]: Deletion was aborted. file: %1"_s.arg(path));
        else
            ok = true;
    }
    item->Release();
    operation->Release();
    return ok;
}

bool ShellRemoval::sendToTrash(const QString &path)
{
    HMODULE shell = LoadLibraryW(L"shell32.dll");
    if (!shell) {
        logInfo(u"[TFileDeleter]: SHSendToTrash - LoadLibrary failed. file: %1"_s.arg(path));
        return false;
    }
    // Not in every shell32; looked up at every call so older systems just fall through.
    using SendToTrash = HRESULT(WINAPI *)(HWND, IShellItem *);
    const FARPROC proc = GetProcAddress(shell, "SHSendToTrash");
    if (!proc) {
        logInfo(u"[TFileDeleter]: SHSendToTrash - GetProcAddress failed. file: %1"_s.arg(path));
        FreeLibrary(shell);
        return false;
    }
    const auto send = reinterpret_cast<SendToTrash>(reinterpret_cast<void (*)()>(proc));

    const std::wstring native = nativePath(path);
    IShellItem *item = nullptr;
    HRESULT hr = SHCreateItemFromParsingName(native.c_str(), nullptr, IID_PPV_ARGS(&item));
    if (FAILED(hr) || !item) {
        logInfo(
            u"[TFileDeleter]: SHSendToTrash - SHCreateItemFromParsingName failed. HRESULT=0x%1. file: %2"_s
                .arg(hex(hr), path));
        FreeLibrary(shell);
        return false;
    }
    hr = send(nullptr, item);
    item->Release();
    FreeLibrary(shell);
    if (FAILED(hr)) {
        logInfo(u"[TFileDeleter]: SHSendToTrash failed. HRESULT=0x%1. file: %2"_s.arg(hex(hr), path));
        return false;
    }
    return true;
}

bool ShellRemoval::legacyRecycle(const QString &path)
{
    // The list of sources ends with two nul characters: the string's own and this one.
    std::wstring from = nativePath(path);
    from.push_back(L'\0');

    SHFILEOPSTRUCTW operation{};
    operation.hwnd = nullptr;
    operation.wFunc = FO_DELETE;
    operation.pFrom = from.c_str();
    operation.pTo = nullptr;
    operation.fFlags = static_cast<FILEOP_FLAGS>(kUndoFlags);
    const int rc = SHFileOperationW(&operation);
    const DWORD error = GetLastError();
    if (rc != 0 || operation.fAnyOperationsAborted) {
        logInfo(u"[TFileDeleter]: RecycleBin Delete Failed. reason: %1. file: %2"_s.arg(
            systemErrorText(static_cast<qint32>(error), false), path));
        return false;
    }
    return true;
}

bool ShellRemoval::deleteFileNative(const QString &path)
{
    const std::wstring native = nativePath(path);
    if (DeleteFileW(native.c_str()))
        return true;
    const DWORD error = GetLastError();
    logInfo(u"[TFileDeleter]: Delete failed. Reason: %1. File: %2"_s.arg(
        systemErrorText(static_cast<qint32>(error), false), path));
    return false;
}

QString ShellRemoval::systemErrorText(qint32 code, bool isHResult)
{
    const DWORD lookup = isHResult ? (static_cast<DWORD>(code) & 0xFFFFu) : static_cast<DWORD>(code);
    LPWSTR buffer = nullptr;
    const DWORD length = FormatMessageW(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
        lookup, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<LPWSTR>(&buffer), 0, nullptr);
    if (length > 0 && buffer) {
        const QString text = QString::fromWCharArray(buffer, static_cast<qsizetype>(length)).trimmed();
        LocalFree(buffer);
        return text;
    }
    if (buffer)
        LocalFree(buffer);
    return u"Unknown error code: %1"_s.arg(code);
}

bool ShellRemoval::toolkitTrashUsable(const QString &)
{
    return true;
}

bool ShellRemoval::initThread()
{
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
    // S_FALSE (already initialised) also needs its matching CoUninitialize.
    return SUCCEEDED(hr);
}

void ShellRemoval::releaseThread()
{
    CoUninitialize();
}
