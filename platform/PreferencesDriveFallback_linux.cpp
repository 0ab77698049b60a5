#include "platform/PreferencesDriveFallback.h"

// No drive letters here: the per-user folder is the only place for the preferences.
QStringList PreferencesDriveFallback::fixedDriveRoots()
{
    return QStringList();
}
