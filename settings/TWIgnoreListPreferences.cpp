#include "settings/TWIgnoreListPreferences.h"

#include "settings/TWPreferences.h"

#include <QJsonArray>
#include <QThread>

#include <algorithm>

TWIgnoreListPreferences::TWIgnoreListPreferences(QObject *parent)
    : QObject(parent), ThreadCount(defaultThreadCount())
{}

TWIgnoreListPreferences &TWIgnoreListPreferences::operator=(const TWIgnoreListPreferences &other)
{
    if (this == &other)
        return *this;
    ThreadCount = other.ThreadCount;
    RemovealMethod = other.RemovealMethod;
    MaxFileSize = other.MaxFileSize;
    MinFileSize = other.MinFileSize;
    TrashFolder = other.TrashFolder;
    IgnorePathFile = other.IgnorePathFile;
    IgnoreFileType = other.IgnoreFileType;
    OnlyFileType = other.OnlyFileType;
    HideSystemFile = other.HideSystemFile;
    ScanFileType = other.ScanFileType;
    IgnoreBundle = other.IgnoreBundle;
    return *this;
}

void TWIgnoreListPreferences::resetToDefaults()
{
    HideSystemFile = true;
    IgnoreBundle = false;
    ScanFileType = 0;
    MinFileSize = 0;
    RemovealMethod = moveToTrash;
    MaxFileSize = 100000;
    ThreadCount = defaultThreadCount();
}

int TWIgnoreListPreferences::defaultThreadCount()
{
    return std::max(2, QThread::idealThreadCount());
}

QJsonObject TWIgnoreListPreferences::toJson() const
{
    QJsonObject json;
    json.insert(QStringLiteral("MaxFileSize"), static_cast<double>(MaxFileSize));
    json.insert(QStringLiteral("MinFileSize"), static_cast<double>(MinFileSize));
    json.insert(QStringLiteral("IgnoreSystemHidden"), HideSystemFile);
    json.insert(QStringLiteral("IgnoreBundle"), IgnoreBundle);
    json.insert(QStringLiteral("ScanFileType"), ScanFileType);
    json.insert(QStringLiteral("ThreadCount"), ThreadCount);
    json.insert(QStringLiteral("TrashFolder"), TrashFolder);
    json.insert(QStringLiteral("OpenFolder"), OpenFolder);
    json.insert(QStringLiteral("SaveFolder"), SaveFolder);
    json.insert(QStringLiteral("IgnorePathFile"), QJsonArray::fromStringList(IgnorePathFile));
    json.insert(QStringLiteral("IgnoreFileType"), QJsonArray::fromStringList(IgnoreFileType));
    json.insert(QStringLiteral("OnlyFileType"), QJsonArray::fromStringList(OnlyFileType));
    return json;
}

QStringList TWIgnoreListPreferences::jsonKeys()
{
    return {QStringLiteral("MaxFileSize"),        QStringLiteral("MinFileSize"),
            QStringLiteral("IgnoreSystemHidden"), QStringLiteral("IgnoreBundle"),
            QStringLiteral("ScanFileType"),       QStringLiteral("ThreadCount"),
            QStringLiteral("TrashFolder"),        QStringLiteral("OpenFolder"),
            QStringLiteral("SaveFolder"),         QStringLiteral("IgnorePathFile"),
            QStringLiteral("IgnoreFileType"),     QStringLiteral("OnlyFileType")};
}

QByteArray TWIgnoreListPreferences::toJsonText() const
{
    return TWPreferences::orderedJson(toJson(), jsonKeys());
}
