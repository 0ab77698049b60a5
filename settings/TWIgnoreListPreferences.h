#pragma once

#include <QJsonObject>
#include <QObject>
#include <QString>
#include <QStringList>

// Preferences of the General page and the scanner's filters; file group "Common".
// The property list, in declaration order, is what the store reads and writes.
class TWIgnoreListPreferences : public QObject
{
    Q_OBJECT
public:
    // A fixed underlying type: a number read from a file or passed by a caller may lie
    // outside the named values without undefined behaviour.
    enum TWRemovalMethod : int
    {
        moveToTrash = 0,
        removePermanently = 1,
        moveToFolder = 2,
    };
    Q_ENUM(TWRemovalMethod)

    Q_PROPERTY(int ThreadCount MEMBER ThreadCount)
    Q_PROPERTY(TWRemovalMethod RemovealMethod MEMBER RemovealMethod)
    Q_PROPERTY(quint64 MaxFileSize MEMBER MaxFileSize)
    Q_PROPERTY(quint64 MinFileSize MEMBER MinFileSize)
    Q_PROPERTY(QString TrashFolder MEMBER TrashFolder)
    Q_PROPERTY(QStringList IgnorePathFile MEMBER IgnorePathFile)
    Q_PROPERTY(QStringList IgnoreFileType MEMBER IgnoreFileType)
    Q_PROPERTY(QStringList OnlyFileType MEMBER OnlyFileType)
    Q_PROPERTY(bool HideSystemFile MEMBER HideSystemFile)
    Q_PROPERTY(int ScanFileType MEMBER ScanFileType)
    Q_PROPERTY(QString OpenFolder MEMBER OpenFolder)
    Q_PROPERTY(QString SaveFolder MEMBER SaveFolder)
    Q_PROPERTY(int deleteException MEMBER deleteException)

    explicit TWIgnoreListPreferences(QObject *parent = nullptr);

    // Copies what the preferences dialog edits. OpenFolder, SaveFolder and deleteException
    // belong to the main and result windows, so an OK or Default in the dialog must not
    // overwrite them with a stale working copy.
    TWIgnoreListPreferences &operator=(const TWIgnoreListPreferences &other);

    // The dialog's Default: the scan limits and removal method only; the lists, the
    // target folder and the window-owned values are kept on purpose.
    void resetToDefaults();

    // Scan configuration handed to the workers.
    QJsonObject toJson() const;
    // The keys of toJson() in their documented order.
    static QStringList jsonKeys();
    // toJson() as compact text with the keys in documented order, for the log.
    QByteArray toJsonText() const;

    // The platform's ideal thread count, at least 2.
    static int defaultThreadCount();

    int ThreadCount;
    TWRemovalMethod RemovealMethod = moveToTrash;
    quint64 MaxFileSize = 100000; // MiB
    quint64 MinFileSize = 0;      // KiB
    QString TrashFolder;
    QStringList IgnorePathFile;
    QStringList IgnoreFileType;
    QStringList OnlyFileType;
    bool HideSystemFile = true;
    int ScanFileType = 0; // 0: OnlyFileType is in force, 1: IgnoreFileType
    QString OpenFolder;
    QString SaveFolder;
    int deleteException = 0; // 1 while a batch deletion runs

    // Not persisted; only part of the scan configuration.
    bool IgnoreBundle = false;
};
