#include "app/EnvelopeReporter.h"

#include "app/AppInfo.h"
#include "app/TLogger.h"
#include "platform/CrashHandler.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QSysInfo>
#include <QThread>
#include <QTimer>
#include <QUuid>

namespace {
// Reporters initialised before the application object exists; their sender starts
// once it does, because Qt's event loops and network need it.
std::mutex g_waitingMutex;
QList<EnvelopeReporter *> g_waiting;
std::once_flag g_preRoutineOnce;

void diag(const QString &text)
{
    logInfo(QStringLiteral("[sentry]: %1").arg(text));
}

QString isoTime(const QDateTime &when)
{
    return when.toUTC().toString(Qt::ISODateWithMs);
}

QString logFileName(const QDate &date)
{
    return QStringLiteral("log_") + date.toString(QStringLiteral("yyyy-MM-dd")) + QStringLiteral(".log");
}

QByteArray clientName()
{
    return QByteArrayLiteral("twinfold/") + AppInfo::version().toLatin1();
}

QByteArray jsonLine(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}
} // namespace

EnvelopeReporter::~EnvelopeReporter()
{
    close();
}

EnvelopeReporter::Endpoint EnvelopeReporter::endpointFor(const QString &dsn)
{
    Endpoint endpoint;
    const QUrl url(dsn.trimmed(), QUrl::StrictMode);
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty() || url.isRelative()) {
        endpoint.error = QStringLiteral("the DSN is not a URL");
        return endpoint;
    }
    if (scheme == QLatin1String("http")) {
        // Reports carry the log; unencrypted they may only go to this machine.
        const QHostAddress address(url.host());
        if (url.host().compare(QLatin1String("localhost"), Qt::CaseInsensitive) != 0 &&
            !address.isLoopback()) {
            endpoint.error = QStringLiteral("plain http is accepted only for the loopback address");
            return endpoint;
        }
    } else if (scheme != QLatin1String("https")) {
        endpoint.error = QStringLiteral("unsupported scheme \"%1\"").arg(url.scheme());
        return endpoint;
    }
    if (url.userName().isEmpty()) {
        endpoint.error = QStringLiteral("the DSN has no public key");
        return endpoint;
    }
    QString path = url.path();
    while (path.endsWith(QLatin1Char('/')))
        path.chop(1);
    const qsizetype slash = path.lastIndexOf(QLatin1Char('/'));
    const QString project = path.mid(slash + 1);
    bool numeric = false;
    project.toULongLong(&numeric);
    if (project.isEmpty() || !numeric) {
        endpoint.error = QStringLiteral("the DSN has no project id");
        return endpoint;
    }
    QUrl target;
    target.setScheme(scheme);
    target.setHost(url.host());
    target.setPort(url.port());
    target.setPath(path.left(qMax<qsizetype>(slash, 0)) + QStringLiteral("/api/") + project +
                   QStringLiteral("/envelope/"));
    QByteArray auth = QByteArrayLiteral("Sentry sentry_version=7, sentry_client=") + clientName() +
                      QByteArrayLiteral(", sentry_key=") + url.userName().toUtf8();
    if (!url.password().isEmpty())
        auth += QByteArrayLiteral(", sentry_secret=") + url.password().toUtf8();
    endpoint.valid = true;
    endpoint.url = target;
    endpoint.authHeader = auth;
    return endpoint;
}

bool EnvelopeReporter::init(const Options &options)
{
    std::unique_lock lock(m_mutex);
    if (m_initialised) {
        diag(QStringLiteral("the reporter is already initialised"));
        return false;
    }
    m_options = options;
    if (m_options.dsn.trimmed().isEmpty()) {
        // Reporting switched off: nothing is queued, nothing leaves the machine.
        m_initialised = true;
        diag(QStringLiteral("no DSN configured; reports stay on this machine"));
        return true;
    }
    m_endpoint = endpointFor(m_options.dsn);
    if (!m_endpoint.valid) {
        diag(QStringLiteral("unusable DSN: %1").arg(m_endpoint.error));
        return false;
    }
    m_initialised = true;
    lock.unlock();

    queuePendingRecords();

    lock.lock();
    if (m_queue.isEmpty() || m_closed)
        return true;
    if (QCoreApplication::instance()) {
        startSenderLocked(lock);
        return true;
    }
    {
        std::lock_guard waiting(g_waitingMutex);
        g_waiting.append(this);
    }
    std::call_once(g_preRoutineOnce, [] { qAddPreRoutine(&EnvelopeReporter::startAfterApplication); });
    return true;
}

void EnvelopeReporter::startAfterApplication()
{
    // Runs inside the application's constructor: start from its event loop instead.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(),
        [] {
            QList<EnvelopeReporter *> reporters;
            {
                std::lock_guard waiting(g_waitingMutex);
                reporters.swap(g_waiting);
            }
            for (EnvelopeReporter *reporter : std::as_const(reporters)) {
                std::unique_lock lock(reporter->m_mutex);
                if (!reporter->m_closed && !reporter->m_thread && !reporter->m_queue.isEmpty())
                    reporter->startSenderLocked(lock);
            }
        },
        Qt::QueuedConnection);
}

bool EnvelopeReporter::isSending() const
{
    std::lock_guard lock(m_mutex);
    return m_initialised && !m_closed && m_endpoint.valid;
}

QJsonObject EnvelopeReporter::commonEvent(const QByteArray &eventId, const QDateTime &when) const
{
    QJsonObject os{{QStringLiteral("name"), QSysInfo::productType()},
                   {QStringLiteral("version"), QSysInfo::productVersion()},
                   {QStringLiteral("kernel_version"), QSysInfo::kernelVersion()}};
    QJsonObject device{{QStringLiteral("arch"), QSysInfo::currentCpuArchitecture()}};
    QJsonObject sdk{{QStringLiteral("name"), QStringLiteral("twinfold.envelope")},
                    {QStringLiteral("version"), AppInfo::version()}};
    return QJsonObject{{QStringLiteral("event_id"), QString::fromLatin1(eventId)},
                       {QStringLiteral("timestamp"), isoTime(when)},
                       {QStringLiteral("platform"), QStringLiteral("native")},
                       {QStringLiteral("release"), m_options.release},
                       {QStringLiteral("sdk"), sdk},
                       {QStringLiteral("contexts"),
                        QJsonObject{{QStringLiteral("os"), os}, {QStringLiteral("device"), device}}}};
}

bool EnvelopeReporter::captureMessage(const Event &event)
{
    std::unique_lock lock(m_mutex);
    if (!m_initialised || m_closed)
        return false;
    if (!m_endpoint.valid)
        return true; // accepted and dropped: reporting is switched off

    const QDateTime now = QDateTime::currentDateTime();
    Job job;
    job.eventId = QUuid::createUuid().toByteArray(QUuid::Id128);
    job.logDate = now.date();
    job.event = commonEvent(job.eventId, now);
    job.event.insert(QStringLiteral("level"), levelName(event.level));
    if (!event.logger.isEmpty())
        job.event.insert(QStringLiteral("logger"), event.logger);
    job.event.insert(QStringLiteral("message"), QJsonObject{{QStringLiteral("formatted"), event.message}});
    if (!event.tags.isEmpty())
        job.event.insert(QStringLiteral("tags"), event.tags);
    if (!event.extra.isEmpty())
        job.event.insert(QStringLiteral("extra"), event.extra);
    m_queue.append(job);

    if (!QCoreApplication::instance())
        return true; // sent once the application exists, or dropped at close
    if (!m_thread)
        startSenderLocked(lock);
    else
        wakeSenderLocked();
    return true;
}

void EnvelopeReporter::queuePendingRecords()
{
    const QDir db(m_options.databasePath);
    if (m_options.databasePath.isEmpty() || !db.exists())
        return;
    // Left by a crash in the middle of writing a record; never complete.
    const QFileInfoList partial = db.entryInfoList(
        {QStringLiteral("*") + CrashHandler::recordSuffix() + QStringLiteral(".tmp")}, QDir::Files);
    for (const QFileInfo &info : partial)
        QFile::remove(info.absoluteFilePath());

    const QFileInfoList records =
        db.entryInfoList({QStringLiteral("*") + CrashHandler::recordSuffix()}, QDir::Files, QDir::Time);
    QList<Job> jobs;
    for (const QFileInfo &info : records) {
        Job job;
        if (readRecord(info.absoluteFilePath(), &job))
            jobs.append(job);
    }
    if (!jobs.isEmpty())
        diag(QStringLiteral("%1 crash report(s) from earlier runs queued").arg(jobs.size()));
    std::lock_guard lock(m_mutex);
    m_queue.append(jobs);
}

bool EnvelopeReporter::readRecord(const QString &path, Job *job) const
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        // Maybe locked or not ours to read; leave it for a later start.
        diag(QStringLiteral("cannot read crash record %1: %2").arg(path, file.errorString()));
        return false;
    }
    const bool tooLarge = file.size() > kMaxRecordBytes;
    const QList<QByteArray> lines = file.read(kMaxRecordBytes).split('\n');
    file.close();

    QHash<QByteArray, QByteArray> fields;
    for (const QByteArray &line : lines) {
        const qsizetype eq = line.indexOf('=');
        if (eq > 0)
            fields.insert(line.left(eq).trimmed(), line.mid(eq + 1).trimmed());
    }
    bool codeOk = false;
    const qulonglong code = fields.value("code").toULongLong(&codeOk);
    const QByteArray name = fields.value("name");
    if (tooLarge || lines.isEmpty() || lines.first().trimmed() != CrashHandler::recordHeader().toLatin1() ||
        !codeOk || name.isEmpty()) {
        diag(QStringLiteral("discarding damaged crash record %1").arg(path));
        QFile::remove(path);
        return false;
    }
    bool timeOk = false;
    const qint64 seconds = fields.value("time").toLongLong(&timeOk);
    QDateTime when =
        timeOk && seconds > 0 ? QDateTime::fromSecsSinceEpoch(seconds) : QFileInfo(path).lastModified();
    if (!when.isValid())
        when = QDateTime::currentDateTime();

    job->eventId = QUuid::createUuid().toByteArray(QUuid::Id128);
    job->logDate = when.toLocalTime().date();
    job->recordPath = path;
    job->event = commonEvent(job->eventId, when);
    const QString typeName = QString::fromLatin1(name);
    const bool isSignal = typeName.startsWith(QLatin1String("SIG"));
    QJsonObject mechanism{{QStringLiteral("type"), isSignal ? QStringLiteral("signalhandler")
                                                            : QStringLiteral("UnhandledExceptionFilter")},
                          {QStringLiteral("handled"), false}};
    QJsonObject exception{
        {QStringLiteral("type"), typeName},
        {QStringLiteral("value"), QStringLiteral("Fatal error %1 (code %2)").arg(typeName).arg(code)},
        {QStringLiteral("mechanism"), mechanism}};
    job->event.insert(QStringLiteral("level"), levelName(Level::Fatal));
    job->event.insert(QStringLiteral("exception"),
                      QJsonObject{{QStringLiteral("values"), QJsonArray{exception}}});
    job->event.insert(QStringLiteral("extra"),
                      QJsonObject{{QStringLiteral("pid"), QString::fromLatin1(fields.value("pid"))},
                                  {QStringLiteral("record"), QFileInfo(path).fileName()}});
    return true;
}

void EnvelopeReporter::startSenderLocked(std::unique_lock<std::mutex> &lock)
{
    m_thread = QThread::create([this] { senderMain(); });
    m_thread->setObjectName(QStringLiteral("TwinfoldReporter"));
    m_thread->start(QThread::LowPriority);
    m_started.wait(lock, [this] { return m_context != nullptr; });
}

void EnvelopeReporter::wakeSenderLocked()
{
    if (m_context)
        QMetaObject::invokeMethod(
            m_context, [this] { drain(); }, Qt::QueuedConnection);
}

void EnvelopeReporter::close()
{
    std::unique_lock lock(m_mutex);
    if (m_closed)
        return;
    m_closed = true;
    {
        std::lock_guard waiting(g_waitingMutex);
        g_waiting.removeAll(this);
    }
    if (!m_thread) {
        if (!m_queue.isEmpty() && QCoreApplication::instance()) {
            startSenderLocked(lock); // it drains, sees m_closed and stops when done
        } else {
            if (!m_queue.isEmpty())
                diag(QStringLiteral("%1 report(s) not sent: no application").arg(m_queue.size()));
            m_queue.clear();
            return;
        }
    } else {
        wakeSenderLocked();
    }
    QThread *thread = m_thread;
    lock.unlock();

    // The sender aborts what is still running at the timeout; the margin covers that.
    if (!thread->wait(QDeadlineTimer(qint64(m_options.shutdownTimeoutMs) + 5000))) {
        diag(QStringLiteral("the sender did not stop in time; waiting for it"));
        thread->wait();
    }
    lock.lock();
    m_thread = nullptr;
    lock.unlock();
    delete thread;
}

// --- sender thread -----------------------------------------------------------------

void EnvelopeReporter::senderMain()
{
    QNetworkAccessManager nam;
    QObject context;
    QEventLoop loop;
    m_nam = &nam;
    m_loop = &loop;
    {
        std::lock_guard lock(m_mutex);
        m_context = &context;
    }
    m_started.notify_all();

    // Queued, not called: a quit() before exec() would be lost and the loop never end.
    QMetaObject::invokeMethod(
        &context, [this] { drain(); }, Qt::QueuedConnection);
    loop.exec();

    std::lock_guard lock(m_mutex);
    m_context = nullptr;
    m_nam = nullptr;
    m_loop = nullptr;
}

void EnvelopeReporter::drain()
{
    QList<Job> jobs;
    bool closing = false;
    QObject *context = nullptr;
    {
        std::lock_guard lock(m_mutex);
        jobs.swap(m_queue);
        closing = m_closed;
        context = m_context;
    }
    for (const Job &job : std::as_const(jobs))
        send(job);
    if (closing && !m_draining) {
        m_draining = true;
        if (!m_inFlight.isEmpty()) {
            QTimer::singleShot(m_options.shutdownTimeoutMs, context, [this] {
                if (m_inFlight.isEmpty())
                    return;
                diag(QStringLiteral("%1 report(s) abandoned at shutdown").arg(m_inFlight.size()));
                const QList<QNetworkReply *> running = m_inFlight;
                for (QNetworkReply *reply : running)
                    reply->abort();
            });
        }
    }
    stopWhenIdle();
}

void EnvelopeReporter::stopWhenIdle()
{
    if (m_draining && m_inFlight.isEmpty())
        m_loop->quit();
}

QByteArray EnvelopeReporter::buildEnvelope(const Job &job) const
{
    QByteArray envelope = jsonLine(QJsonObject{
        {QStringLiteral("event_id"), QString::fromLatin1(job.eventId)},
        {QStringLiteral("dsn"), m_options.dsn.trimmed()},
        {QStringLiteral("sent_at"), isoTime(QDateTime::currentDateTimeUtc())},
        {QStringLiteral("sdk"), QJsonObject{{QStringLiteral("name"), QStringLiteral("twinfold.envelope")},
                                            {QStringLiteral("version"), AppInfo::version()}}}});

    const QByteArray payload = QJsonDocument(job.event).toJson(QJsonDocument::Compact);
    envelope += jsonLine(QJsonObject{{QStringLiteral("type"), QStringLiteral("event")},
                                     {QStringLiteral("length"), payload.size()},
                                     {QStringLiteral("content_type"), QStringLiteral("application/json")}});
    envelope += payload + '\n';

    const QString name = logFileName(job.logDate);
    QFile log(QDir(m_options.logDir).filePath(name));
    if (!m_options.logDir.isEmpty() && log.open(QIODevice::ReadOnly)) {
        // The end of the day's log is what leads up to the report.
        const qint64 size = log.size();
        if (size > kMaxAttachmentBytes)
            log.seek(size - kMaxAttachmentBytes);
        const QByteArray data = log.read(kMaxAttachmentBytes);
        envelope +=
            jsonLine(QJsonObject{{QStringLiteral("type"), QStringLiteral("attachment")},
                                 {QStringLiteral("length"), data.size()},
                                 {QStringLiteral("filename"), name},
                                 {QStringLiteral("content_type"), QStringLiteral("text/plain")},
                                 {QStringLiteral("attachment_type"), QStringLiteral("event.attachment")}});
        envelope += data + '\n';
    }
    return envelope;
}

void EnvelopeReporter::send(const Job &job)
{
    QNetworkRequest request(m_endpoint.url);
    request.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/x-sentry-envelope"));
    request.setHeader(QNetworkRequest::UserAgentHeader, clientName());
    request.setRawHeader(QByteArrayLiteral("X-Sentry-Auth"), m_endpoint.authHeader);
    // A stalled service must not hold a report for the whole run.
    request.setTransferTimeout(30000);
    QNetworkReply *reply = m_nam->post(request, buildEnvelope(job));
    m_inFlight.append(reply);
    const QString recordPath = job.recordPath;
    QObject::connect(reply, &QNetworkReply::finished, reply,
                     [this, reply, recordPath] { onFinished(reply, recordPath); });
}

void EnvelopeReporter::onFinished(QNetworkReply *reply, const QString &recordPath)
{
    m_inFlight.removeAll(reply);
    reply->deleteLater();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() == QNetworkReply::NoError && status >= 200 && status < 300) {
        if (!recordPath.isEmpty() && !QFile::remove(recordPath) && QFile::exists(recordPath))
            diag(QStringLiteral("cannot remove sent crash record %1").arg(recordPath));
        if (m_options.debug)
            diag(QStringLiteral("report sent"));
    } else if (status != 0) {
        diag(QStringLiteral("the service refused a report: HTTP %1").arg(status));
        // Refused for good (not throttled, not a server fault): sending again cannot help.
        if (!recordPath.isEmpty() && status >= 400 && status < 500 && status != 429)
            QFile::remove(recordPath);
    } else {
        diag(QStringLiteral("sending a report failed: %1").arg(reply->errorString()));
    }
    stopWhenIdle();
}
