#pragma once

#include "platform/FileIdentity.h"

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <memory>

// Lists one folder entry by entry with what the scanner needs to decide on each (kind,
// size, identity, hidden) from the directory read itself and at most one status query,
// so a walk over many files allocates nothing but each entry's path.
class DirLister
{
public:
    enum Kind
    {
        File,   // a regular file, or a link to one
        Folder, // a folder, or a link to one
        Other,  // devices, sockets, dangling links, entries that vanished
    };

    // Opens the folder (forward slashes). An unreadable or missing folder lists nothing.
    explicit DirLister(const QString &folder);
    ~DirLister();
    DirLister(const DirLister &) = delete;
    DirLister &operator=(const DirLister &) = delete;

    bool isOpen() const;
    // Moves to the next entry ("." and ".." never appear); false at the end.
    bool next();

    // False when the entry's name cannot be shown as text (bytes that are not UTF-8);
    // such an entry's path would lead elsewhere and must be skipped.
    bool hasValidName() const;
    // The folder, a slash and the entry's name.
    QString path() const;
    // The same as UTF-8, built without passing through UTF-16 where the platform lists
    // names as bytes.
    QByteArray pathUtf8() const;
    Kind kind() const;
    // Size in bytes of a file (of the link's target for a link).
    qint64 size() const;
    // Hidden (leading dot on Linux) or hidden/system attribute (Windows).
    bool isHiddenOrSystem() const;
    // The entry's identity, links followed. Always valid for folders.
    FileIdentity identity() const;
    // True when the entry is a symbolic link (or junction) that was followed.
    bool isLink() const;
    // True when the file has more hard links than this name; unknown (false) on Windows.
    bool hasOtherHardLinks() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
