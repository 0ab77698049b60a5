#pragma once

#include "app/TReporter.h"

#include <QByteArray>
#include <QDate>
#include <QList>
#include <QUrl>

#include <condition_variable>
#include <mutex>

class QEventLoop;
class QNetworkAccessManager;
class QNetworkReply;
class QObject;
class QThread;

// The built-in reporter: each event becomes one envelope (header, an "event" item and
// the day's log file as an "attachment" item) that a sender thread POSTs to the DSN's
// envelope endpoint. It also sends the crash records CrashHandler left behind, deleting
// each once the service has taken it. Without a DSN it never touches the network.
class EnvelopeReporter : public TReporter
{
public:
    struct Endpoint
    {
        bool valid = false;
        QString error;
        QUrl url;
        QByteArray authHeader;
    };

    // Largest part (the end) of a log file attached to one report.
    static constexpr qint64 kMaxAttachmentBytes = 2 * 1024 * 1024;
    // Crash records are a few lines; anything larger is not one of ours.
    static constexpr qint64 kMaxRecordBytes = 4096;

    EnvelopeReporter() = default;
    ~EnvelopeReporter() override;

    bool init(const Options &options) override;
    bool captureMessage(const Event &event) override;
    void close() override;

    // Whether reports leave the machine: initialised with a usable DSN and not closed.
    bool isSending() const;

    // Where a DSN sends envelopes and how they authenticate. Plain http is accepted
    // only for this machine's loopback addresses.
    static Endpoint endpointFor(const QString &dsn);

private:
    struct Job
    {
        QByteArray eventId;
        QJsonObject event;
        QDate logDate;
        QString recordPath;
    };

    void queuePendingRecords();
    bool readRecord(const QString &path, Job *job) const;
    QJsonObject commonEvent(const QByteArray &eventId, const QDateTime &when) const;
    void startSenderLocked(std::unique_lock<std::mutex> &lock);
    void wakeSenderLocked();
    static void startAfterApplication();

    // Sender thread only.
    void senderMain();
    void drain();
    void send(const Job &job);
    void onFinished(QNetworkReply *reply, const QString &recordPath);
    void stopWhenIdle();
    QByteArray buildEnvelope(const Job &job) const;

    Options m_options;
    Endpoint m_endpoint;

    mutable std::mutex m_mutex;
    std::condition_variable m_started;
    bool m_initialised = false;
    bool m_closed = false;
    QList<Job> m_queue;
    QThread *m_thread = nullptr;
    QObject *m_context = nullptr;

    // Owned by the sender thread.
    QNetworkAccessManager *m_nam = nullptr;
    QEventLoop *m_loop = nullptr;
    QList<QNetworkReply *> m_inFlight;
    bool m_draining = false;
};
