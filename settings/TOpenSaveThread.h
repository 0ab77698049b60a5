#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>

class QXmlStreamReader;
class QXmlStreamWriter;

// Saves the whole result (duplicate, similar-image and folder groups with their
// selection) to an XML project file and opens one again, on a thread of its own.
// Each openProject or saveProject call starts one run that ends with exactly one
// completion signal. A project file that cannot be trusted (malformed, truncated,
// too large, too deep, with a document type declaration or another root) is refused
// as a whole and leaves the result store as it was.
class TOpenSaveThread : public QThread
{
    Q_OBJECT
public:
    // Files above this size are refused before parsing; far beyond any real result.
    static constexpr qint64 kMaxProjectBytes = qint64(256) * 1024 * 1024;
    // The format nests four deep; anything much deeper is not one of ours.
    static constexpr int kMaxDepth = 16;

    explicit TOpenSaveThread(QObject *parent = nullptr);
    // Stops and waits for a running job.
    ~TOpenSaveThread() override;

    // Starts reading the project at filepath. False, with nothing started and no
    // completion signal, when the file cannot be opened for reading or a job runs.
    bool openProject(const QString &filepath);
    // Starts writing the result store to filepath with the scanned-file count and the
    // scan duration text. False when a job is already running.
    bool saveProject(const QString &filepath, int count, const QString &time);
    // Asks a running job to end early; it then completes with 0 and changes nothing
    // (an interrupted save leaves any earlier file at filepath untouched).
    void requestStop();
    // Lowers (or raises) the size above which a project file is refused unread;
    // kMaxProjectBytes unless set. Takes effect at the next open.
    void setMaxProjectBytes(qint64 bytes);

    // What the last open read from the file ("fileCount", "scanTime") and restored.
    int fileCount() const;
    QString scanTime() const;
    int loadedFiles() const;
    qint64 loadedSize() const;
    QString openPath() const;
    QString savePath() const;

signals:
    void openProjectComplated(int falg, int files, qint64 size);
    void saveComplated(int flag);
    void openProjectProcess(double current, double total);
    void saveProjectProcess(double current, double total);

protected:
    void run() override;

private:
    struct Item
    {
        QString entry;
        bool selected = false;
    };
    struct Group
    {
        QString key;
        QList<Item> items;
    };
    struct ParsedProject
    {
        QString rootName;
        int fileCount = 0;
        QString scanTime;
        QList<Group> groups;
    };
    enum class ParseStatus
    {
        Ok,
        Malformed,
        WrongRoot,
        Stopped,
    };

    void openDocument();
    void saveDocument();
    ParseStatus parse(QXmlStreamReader &reader, ParsedProject &project, qint64 maxBytes);
    bool writeGroups(QXmlStreamWriter &writer);
    void failOpen(const QString &logLine, const char *debugMessage);

    mutable QMutex m_mutex; // guards the members below, read by the GUI thread
    bool m_openMode = false;
    bool m_saveMode = false;
    QString m_savePath;
    QString m_openPath;
    int m_fileCount = 0;
    QString m_scanTime;
    int m_loadedFiles = 0;
    qint64 m_loadedSize = 0;
    qint64 m_maxBytes = kMaxProjectBytes;

    std::atomic<bool> m_stop{false};
};
