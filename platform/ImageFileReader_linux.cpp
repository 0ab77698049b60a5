#include "platform/ImageFileReader.h"

#include <QFile>
#include <QScopeGuard>

#include <cerrno>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <unistd.h>

ImageFileReader::Status ImageFileReader::readAll(const QString &path, std::vector<uchar> &bytes)
{
    bytes.clear();
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return Status::CannotOpen;
    const auto closeFile = qScopeGuard([fd] { ::close(fd); });

    struct stat info;
    if (::fstat(fd, &info) != 0)
        return Status::NoSize;
    // Opening a folder for reading fails on Windows; report it the same way here.
    if (S_ISDIR(info.st_mode))
        return Status::CannotOpen;
    // One unsigned comparison refuses both 0 bytes and anything above the limit.
    const quint64 size = static_cast<quint64>(info.st_size);
    if (size - 1 > static_cast<quint64>(maxFileSize - 1))
        return Status::TooLargeOrEmpty;
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);

    try {
        bytes.assign(size, 0);
    } catch (const std::bad_alloc &) {
        return Status::NoMemory;
    }

    quint64 offset = 0;
    while (offset < size) {
        const size_t want = static_cast<size_t>(qMin<quint64>(chunkSize, size - offset));
        const ssize_t got = ::read(fd, bytes.data() + offset, want);
        if (got < 0) {
            if (errno == EINTR)
                continue;
            std::vector<uchar>().swap(bytes);
            return Status::ReadFailed;
        }
        if (got == 0)
            break; // the file became shorter than reported: keep what was read
        offset += static_cast<quint64>(got);
    }
    bytes.resize(offset);
    return Status::Ok;
}
