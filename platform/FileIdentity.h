#pragma once

#include <QHashFunctions>
#include <QString>
#include <QtGlobal>

// Which physical file or folder a path leads to: the device (or volume) and the file
// number on it. Two paths with equal identities are the same object reached twice,
// through hard links, symbolic links, junctions or bind mounts.
class FileIdentity
{
public:
    FileIdentity() = default;
    FileIdentity(quint64 device, quint64 inode) : dev(device), ino(inode), valid(true) {}

    // Identity of what the path leads to, links followed; invalid when it cannot be read.
    static FileIdentity of(const QString &path);
    // True for entries the user normally does not see: on Linux a name starting with a
    // dot, on Windows the hidden or system attribute. False when the path cannot be read.
    static bool isHiddenOrSystem(const QString &path);
    // Whether hashing through a memory mapping is safe while other programs work on the
    // file. Windows refuses to shorten a mapped file; Linux lets it happen, and the next
    // touch of a page past the new end kills the reading process.
    static bool mappingSurvivesTruncation();

    bool isValid() const { return valid; }
    quint64 device() const { return dev; }
    quint64 inode() const { return ino; }

    friend bool operator==(const FileIdentity &a, const FileIdentity &b)
    {
        return a.valid == b.valid && a.dev == b.dev && a.ino == b.ino;
    }
    friend size_t qHash(const FileIdentity &id, size_t seed = 0) noexcept
    {
        return qHashMulti(seed, id.dev, id.ino, id.valid);
    }

private:
    quint64 dev = 0;
    quint64 ino = 0;
    bool valid = false;
};
