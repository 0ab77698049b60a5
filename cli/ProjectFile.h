#pragma once

#include <QString>

// Opens and saves project files for the command line, waiting for the worker thread
// on a local event loop.
class ProjectFile
{
public:
    // Fills the result store from the project; false with a reason when refused.
    static bool open(const QString &path, int *fileCount, QString *scanTime, QString *error);
    // Writes the result store to the project; false when it could not be written.
    static bool save(const QString &path, int fileCount, const QString &scanTime);
};
