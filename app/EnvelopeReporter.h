#pragma once

#include "app/TReporter.h"

#include <QByteArray>
#include <QDate>
#include <QList>
#include <QUrl>

#include <mutex>
#include <thread>

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
    void startSenderLocked();
    static void startAfterApplication();

    // Sender thread only. The thread lives while there is work: it takes queued jobs
    // every kPollMs and ends once nothing is queued or in flight. Nothing crosses to it
    // but the mutex-guarded queue and the closed flag.
    struct Sender;
    void senderMain();
    void pump(Sender &sender);
    void send(Sender &sender, const Job &job);
    void onFinished(Sender &sender, int status, const QString &failure, const QString &recordPath);
    QByteArray buildEnvelope(const Job &job) const;

    static constexpr int kPollMs = 50;
    static constexpr int kRequestTimeoutMs = 30000;

    // Set by init(), read-only afterwards.
    Options m_options;
    Endpoint m_endpoint;

    mutable std::mutex m_mutex;
    bool m_initialised = false;
    bool m_closed = false;
    bool m_senderRunning = false;
    QList<Job> m_queue;
    std::thread m_thread;
};
