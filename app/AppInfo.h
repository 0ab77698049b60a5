#pragma once

#include <QString>

// Names that identify the program on disk and in the native settings store.
namespace AppInfo {
inline QString organization()
{
    return QStringLiteral("Orvant");
}
inline QString application()
{
    return QStringLiteral("Twinfold");
}
inline QString version()
{
    return QStringLiteral(TWINFOLD_VERSION);
}
} // namespace AppInfo
