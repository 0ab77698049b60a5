#pragma once

#include <QMetaType>
#include <QString>
#include <QtGlobal>

// Codes shared by file removal and the result window. The removal code itself sets only
// None, NotAFile, NotADirectory, MoveFailed and Unknown; the others belong to the table the
// window shows and are kept for it.
enum class DeleteError : qint32
{
    None = 0,
    NotFound = 1,
    NotAFile = 2,
    NotADirectory = 3,
    UnsupportedType = 4,
    RecycleBinFailed = 5,
    MoveFailed = 6,
    PermissionDenied = 7,
    FileInUse = 8,
    Unknown = 9,
};

// The outcome of one removal request.
struct DeleteResult
{
    QString path;         // as it was given
    bool success = false; // the path is gone (or was never there)
    qint32 errorCode = 0; // a DeleteError value, 0 on success
    QString errorMessage; // short English reason, empty on success
};

// The translated message the user sees for a code; 9 and every unknown value give the
// generic one, None gives an empty text.
QString deleteErrorMessage(qint32 code);
// Title and text of the warning box for a single failed removal.
QString deleteFailedTitle();
QString deleteFailedText(const QString &path, qint32 code);

Q_DECLARE_METATYPE(DeleteResult)
