#pragma once

#include <QString>
#include <QtGlobal>

#include <vector>

// Reads a whole image file into memory in one sequential pass, so the decoder works on a
// buffer instead of many small reads through the codec. Each way the read can fail has
// its own status, so the caller can log exactly what went wrong.
class ImageFileReader
{
public:
    enum class Status
    {
        Ok,
        CannotOpen,      // missing, a folder, or no permission
        NoSize,          // the size could not be queried
        TooLargeOrEmpty, // 0 bytes or more than maxFileSize
        NoMemory,        // the buffer could not be allocated
        ReadFailed       // the system reported a read error
    };

    static constexpr qint64 maxFileSize = 536870912; // 512 MiB
    static constexpr qint64 chunkSize = 4194304;     // 4 MiB per read call

    // Fills `bytes` with the file's contents. A file that ends earlier than its reported
    // size (it shrank while being read) gives Ok with the part that was read. On any
    // other status `bytes` is left empty.
    static Status readAll(const QString &path, std::vector<uchar> &bytes);
};
