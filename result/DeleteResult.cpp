#include "result/DeleteResult.h"

#include <QCoreApplication>

QString deleteErrorMessage(qint32 code)
{
    switch (static_cast<DeleteError>(code)) {
    case DeleteError::None:
        return QString();
    case DeleteError::NotFound:
        return QCoreApplication::translate("GLanguage", "The file was not found.");
    case DeleteError::NotAFile:
        return QCoreApplication::translate("GLanguage", "The item is not a file.");
    case DeleteError::NotADirectory:
        return QCoreApplication::translate("GLanguage", "The item is not a directory.");
    case DeleteError::UnsupportedType:
        return QCoreApplication::translate("GLanguage", "The file type is unsupported.");
    case DeleteError::RecycleBinFailed:
        return QCoreApplication::translate("GLanguage", "Failed to move the file to the recycle bin.");
    case DeleteError::MoveFailed:
        return QCoreApplication::translate("GLanguage", "Failed to move the file.");
    case DeleteError::PermissionDenied:
        return QCoreApplication::translate("GLanguage",
                                           "Permission denied. Please check the file's access rights.");
    case DeleteError::FileInUse:
        return QCoreApplication::translate("GLanguage",
                                           "The file is currently in use and cannot be deleted.");
    case DeleteError::Unknown:
        break;
    }
    return QCoreApplication::translate("GLanguage", "An unknown error occurred while deleting the file.");
}

QString deleteFailedTitle()
{
    return QCoreApplication::translate("GLanguage", "Delete Failed");
}

QString deleteFailedText(const QString &path, qint32 code)
{
    return QCoreApplication::translate("GLanguage", "Failed to delete the file: %1").arg(path) + u'\n' +
           deleteErrorMessage(code);
}
