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
#include <QSslSocket>
#include <QSysInfo>
#include <QTcpSocket>
#include <QTimer>
#include <QUuid>

#include <functional>

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
        startSenderLocked();
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
                std::lock_guard lock(reporter->m_mutex);
                if (!reporter->m_closed && !reporter->m_queue.isEmpty())
                    reporter->startSenderLocked();
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

    if (QCoreApplication::instance())
        startSenderLocked(); // a running sender picks the job up by itself
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

void EnvelopeReporter::startSenderLocked()
{
    if (m_senderRunning)
        return;
    if (m_thread.joinable()) {
        // An earlier batch's thread: it has let go of everything of ours and only ends.
        m_thread.join();
    }
    m_senderRunning = true;
    m_thread = std::thread([this] { senderMain(); });
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
    if (!m_senderRunning && !m_queue.isEmpty()) {
        if (QCoreApplication::instance()) {
            startSenderLocked(); // it sends, sees the close and stops when done
        } else {
            diag(QStringLiteral("%1 report(s) not sent: no application").arg(m_queue.size()));
            m_queue.clear();
        }
    }
    std::thread thread = std::move(m_thread);
    lock.unlock();
    // Bounded: the sender abandons what still runs once the shutdown timeout has passed.
    if (thread.joinable())
        thread.join();
}

// --- sender thread -----------------------------------------------------------------

struct EnvelopeReporter::Sender
{
    QEventLoop loop;
    QTimer poll;
    // Each running request with what ends it.
    QHash<QTcpSocket *, std::function<void(const QString &)>> inFlight;
    bool draining = false;
};

void EnvelopeReporter::senderMain()
{
    Sender sender;
    sender.poll.setInterval(kPollMs);
    QObject::connect(&sender.poll, &QTimer::timeout, &sender.poll, [this, &sender] { pump(sender); });
    sender.poll.start();
    // Queued, not called: a quit() before exec() would be lost and the loop never end.
    QMetaObject::invokeMethod(
        &sender.poll, [this, &sender] { pump(sender); }, Qt::QueuedConnection);
    sender.loop.exec();
}

void EnvelopeReporter::pump(Sender &sender)
{
    QList<Job> jobs;
    bool closing = false;
    {
        std::lock_guard lock(m_mutex);
        jobs.swap(m_queue);
        closing = m_closed;
        if (jobs.isEmpty() && sender.inFlight.isEmpty()) {
            // Decided under the lock, so a job queued now starts a new sender. After
            // this the thread touches nothing of the reporter's.
            m_senderRunning = false;
            sender.loop.quit();
            return;
        }
    }
    for (const Job &job : std::as_const(jobs))
        send(sender, job);
    if (closing && !sender.draining) {
        sender.draining = true;
        QTimer::singleShot(m_options.shutdownTimeoutMs, &sender.poll, [&sender] {
            if (sender.inFlight.isEmpty())
                return;
            diag(QStringLiteral("%1 report(s) abandoned at shutdown").arg(sender.inFlight.size()));
            const auto running = sender.inFlight.values();
            for (const auto &finish : running)
                finish(QStringLiteral("abandoned at shutdown"));
        });
    }
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

void EnvelopeReporter::send(Sender &sender, const Job &job)
{
    const QUrl &url = m_endpoint.url;
    const bool tls = url.scheme() == QLatin1String("https");
    if (tls && !QSslSocket::supportsSsl()) {
        diag(QStringLiteral("sending a report failed: TLS is not available"));
        return;
    }
    const QByteArray body = buildEnvelope(job);
    const QByteArray request =
        "POST " + url.path(QUrl::FullyEncoded).toLatin1() +
        " HTTP/1.1\r\nHost: " + url.authority(QUrl::RemoveUserInfo | QUrl::FullyEncoded).toLatin1() +
        "\r\nContent-Type: application/x-sentry-envelope\r\nX-Sentry-Auth: " + m_endpoint.authHeader +
        "\r\nUser-Agent: " + clientName() + "\r\nContent-Length: " + QByteArray::number(body.size()) +
        "\r\nConnection: close\r\n\r\n" + body;

    // The socket lives on this thread, so closing can abort it at once and no thread of
    // Qt's own is involved. The service's answer matters only up to its status line.
    QTcpSocket *socket = tls ? new QSslSocket : new QTcpSocket;
    auto response = std::make_shared<QByteArray>();
    auto done = std::make_shared<bool>(false);
    const QString recordPath = job.recordPath;
    const auto finish = [this, &sender, socket, response, done, recordPath](const QString &failure) {
        if (*done)
            return;
        *done = true;
        const QByteArray statusLine = response->left(response->indexOf('\n')).trimmed();
        const int status = statusLine.startsWith("HTTP/") ? statusLine.split(' ').value(1).toInt() : 0;
        sender.inFlight.remove(socket);
        socket->abort();
        socket->deleteLater();
        onFinished(sender, status, status ? QString() : failure, recordPath);
    };
    QObject::connect(socket, &QAbstractSocket::readyRead, socket, [socket, response, finish] {
        response->append(socket->readAll());
        if (response->contains('\n'))
            finish(QString());
    });
    QObject::connect(socket, &QAbstractSocket::errorOccurred, socket,
                     [socket, finish] { finish(socket->errorString()); });
    QObject::connect(socket, &QAbstractSocket::disconnected, socket,
                     [finish] { finish(QStringLiteral("the service closed the connection")); });
    // A stalled service must not hold a report for the whole run.
    QTimer::singleShot(kRequestTimeoutMs, socket, [finish] { finish(QStringLiteral("no answer in time")); });
    sender.inFlight.insert(socket, finish);
    if (tls) {
        auto *ssl = static_cast<QSslSocket *>(socket);
        QObject::connect(ssl, &QSslSocket::encrypted, ssl, [ssl, request] { ssl->write(request); });
        ssl->connectToHostEncrypted(url.host(), quint16(url.port(443)));
    } else {
        QObject::connect(socket, &QAbstractSocket::connected, socket,
                         [socket, request] { socket->write(request); });
        socket->connectToHost(url.host(), quint16(url.port(80)));
    }
}

void EnvelopeReporter::onFinished(Sender &sender, int status, const QString &failure,
                                  const QString &recordPath)
{
    if (status >= 200 && status < 300) {
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
        diag(QStringLiteral("sending a report failed: %1").arg(failure));
    }
    if (sender.inFlight.isEmpty())
        pump(sender); // ends the thread at once when nothing else is left
}
