#include "platform/ReadOnlyFile.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

ReadOnlyFile::~ReadOnlyFile()
{
    close();
}

void ReadOnlyFile::close()
{
    if (fd >= 0)
        ::close(fd);
    fd = -1;
    fileSize = 0;
}

FileIdentity ReadOnlyFile::open(const QByteArray &utf8Path)
{
    close();
    if (utf8Path.isEmpty())
        return FileIdentity();
    // File names are UTF-8 here, so the bytes go to the system as they are.
    // Non-blocking so that a fifo without a writer cannot hold the open.
    fd = ::open(utf8Path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return FileIdentity();
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        close();
        return FileIdentity();
    }
    fileSize = static_cast<qint64>(st.st_size);
    return FileIdentity(static_cast<quint64>(st.st_dev), static_cast<quint64>(st.st_ino));
}

bool ReadOnlyFile::isOpen() const
{
    return fd >= 0;
}

qint64 ReadOnlyFile::read(char *data, qint64 length)
{
    if (fd < 0)
        return -1;
    for (;;) {
        const ssize_t got = ::read(fd, data, size_t(length));
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

qint64 ReadOnlyFile::readAt(qint64 offset, char *data, qint64 length)
{
    if (fd < 0)
        return -1;
    for (;;) {
        const ssize_t got = ::pread(fd, data, size_t(length), off_t(offset));
        if (got >= 0 || errno != EINTR)
            return got;
    }
}

const uchar *ReadOnlyFile::map(qint64 length)
{
    if (fd < 0 || length <= 0)
        return nullptr;
    void *address = ::mmap(nullptr, size_t(length), PROT_READ, MAP_SHARED, fd, 0);
    return address == MAP_FAILED ? nullptr : static_cast<const uchar *>(address);
}

void ReadOnlyFile::unmap(const uchar *address, qint64 length)
{
    if (address)
        ::munmap(const_cast<uchar *>(address), size_t(length));
}
