#pragma once

#include "platform/FileIdentity.h"

#include <QByteArray>
#include <QtGlobal>

// A regular file opened for reading by the duplicate matcher, straight on the system's
// handle: the matcher opens every file that shares a size, and a QFile per file costs an
// allocation, a seek and a status query that the matcher has no use for.
class ReadOnlyFile
{
public:
    ReadOnlyFile() = default;
    ~ReadOnlyFile();
    ReadOnlyFile(const ReadOnlyFile &) = delete;
    ReadOnlyFile &operator=(const ReadOnlyFile &) = delete;

    // Opens `utf8Path` when it is a regular file (never waiting on a pipe or device) and
    // returns the identity of what was opened, with its size from the same status query;
    // invalid, with nothing open, otherwise. One open and one status query, where a check
    // by path followed by an open would walk the path twice and could be raced.
    FileIdentity open(const QByteArray &utf8Path);
    bool isOpen() const;
    // Size as of the open.
    qint64 size() const { return fileSize; }

    // Reads up to `length` bytes from the current position; -1 on error, 0 at the end.
    qint64 read(char *data, qint64 length);
    // Reads up to `length` bytes at `offset`, leaving the current position alone.
    qint64 readAt(qint64 offset, char *data, qint64 length);
    // Maps the first `length` bytes read-only; null when that fails.
    const uchar *map(qint64 length);
    void unmap(const uchar *address, qint64 length);

private:
    void close();

#ifdef Q_OS_WIN
    void *handle = nullptr;
#else
    int fd = -1;
#endif
    qint64 fileSize = 0;
};
