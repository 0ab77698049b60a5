#pragma once

#include "app/AppInfo.h"

#include <QDir>
#include <QString>
#include <QStringList>

// Where the preferences go when the per-user folder cannot be written: a folder named
// after the product at the root of another fixed drive. Only Windows has drives to
// offer; elsewhere the list of fixed drives is empty and nothing is found.
class PreferencesDriveFallback
{
public:
    // Roots of the machine's fixed drives, as "C:/".
    static QStringList fixedDriveRoots();

    // "C:/" for a path on drive C, empty for a path without a drive letter.
    static QString driveRootOf(const QString &path)
    {
        const QString clean = QDir::fromNativeSeparators(path);
        if (clean.size() >= 2 && clean.at(1) == u':' && clean.at(0).isLetter())
            return clean.left(1).toUpper() + QStringLiteral(":/");
        return QString();
    }

    // The first root other than ownRoot whose product folder exists or can be created;
    // empty when none qualifies.
    static QString chooseDirectory(const QString &ownRoot, const QStringList &roots)
    {
        for (const QString &root : roots) {
            if (root.isEmpty() || root.compare(ownRoot, Qt::CaseInsensitive) == 0)
                continue;
            const QString base = root.endsWith(u'/') ? root : root + u'/';
            const QString dir = base + AppInfo::application();
            if (QDir(dir).exists() || QDir().mkpath(dir))
                return dir;
        }
        return QString();
    }

    // The fallback folder for a per-user folder that could not be written, or empty.
    static QString findDirectory(const QString &failedDir)
    {
        return chooseDirectory(driveRootOf(failedDir), fixedDriveRoots());
    }
};
