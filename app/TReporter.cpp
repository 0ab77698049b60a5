#include "app/TReporter.h"

#include "app/AppInfo.h"

#include <QDebug>
#include <QSettings>

#include <atomic>

namespace {
std::atomic<TReporter *> g_current{nullptr};
}

TReporter *TReporter::current()
{
    return g_current.load(std::memory_order_acquire);
}

void TReporter::setCurrent(TReporter *reporter)
{
    g_current.store(reporter, std::memory_order_release);
}

QString TReporter::chooseDsn(bool environmentSet, const QString &environmentValue, const QString &builtIn)
{
    // Set-but-empty is how a tester or an administrator turns reporting off.
    return (environmentSet ? environmentValue : builtIn).trimmed();
}

QString TReporter::configuredDsn()
{
    return chooseDsn(qEnvironmentVariableIsSet("TWINFOLD_SENTRY_DSN"),
                     qEnvironmentVariable("TWINFOLD_SENTRY_DSN"), QStringLiteral(TWINFOLD_SENTRY_DSN));
}

QString TReporter::levelName(Level level)
{
    switch (level) {
    case Level::Debug:
        return QStringLiteral("debug");
    case Level::Info:
        return QStringLiteral("info");
    case Level::Warning:
        return QStringLiteral("warning");
    case Level::Error:
        return QStringLiteral("error");
    case Level::Fatal:
        return QStringLiteral("fatal");
    }
    return QStringLiteral("info");
}

QString TReporter::featureCountKey(const QString &feature)
{
    return QStringLiteral("sentry/") + feature;
}

void trackFeature(const QString &feature, const QString &message)
{
    QSettings settings(AppInfo::organization(), AppInfo::application());
    const QString key = TReporter::featureCountKey(feature);
    // A damaged value counts as nothing sent rather than blocking the feature forever.
    const int count = qMax(0, settings.value(key, 0).toInt());
    if (count >= TReporter::kMaxFeatureEvents) {
        qDebug().noquote() << "Sentry log skipped due to max send count:" << feature;
        return;
    }
    TReporter *reporter = TReporter::current();
    if (!reporter)
        return;
    TReporter::Event event;
    event.level = TReporter::Level::Info;
    event.logger = feature;
    event.message = QStringLiteral("User used feature: %1. msg: %2").arg(feature, message);
    event.tags.insert(QStringLiteral("feature"), feature);
    event.extra.insert(QStringLiteral("message"), message);
    if (reporter->captureMessage(event))
        settings.setValue(key, count + 1);
}
