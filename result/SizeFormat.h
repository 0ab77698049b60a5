#pragma once

#include <QString>
#include <QtGlobal>

// The one byte-count text of every window: "B" up to and including 1024 bytes, then
// "KB", "MB" and "GB", each up to and including 1024 of the next lower unit. The
// number is truncated (never rounded) to two decimals and printed without trailing
// zeros, so 1536 gives "1.5 KB" and 2047 gives "1.99 KB".
QString formatSize(qint64 bytes);
