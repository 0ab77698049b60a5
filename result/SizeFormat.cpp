#include "result/SizeFormat.h"

#include <QStringList>

namespace {
constexpr qint64 kKiB = 1024;
constexpr qint64 kMiB = kKiB * 1024;
constexpr qint64 kGiB = kMiB * 1024;

// Cuts the quotient after two decimals through its decimal text rather than by
// arithmetic: multiplying by 100 first would turn 1.07 into 106.99999 and lose a cent.
// Only quotients above 1 arrive here: every count up to 1024, negatives included,
// is printed in bytes.
QString truncatedNumber(double value)
{
    const QString text = QString::number(value, 'f', 12);
    const qsizetype dot = text.indexOf(QLatin1Char('.'));
    const QString integerPart = text.left(dot);
    const QString cents = text.mid(dot + 1, 2);
    // Drop the zeros that a general format would not print ("1.50" -> "1.5", "2.00" -> "2").
    QString out = integerPart;
    if (cents != QLatin1String("00")) {
        out += QLatin1Char('.');
        out += cents.endsWith(QLatin1Char('0')) ? cents.left(1) : cents;
    }
    return out;
}

QString scaled(qint64 bytes, qint64 unit, QLatin1String suffix)
{
    // Single precision on purpose: every window has always shown these figures, and
    // the truncation makes the float's last bits visible (1099 bytes give 1.07 KB).
    const float quotient = float(bytes) * (1.0f / float(unit));
    return truncatedNumber(double(quotient)) + QLatin1Char(' ') + suffix;
}
} // namespace

QString formatSize(qint64 bytes)
{
    if (bytes <= kKiB)
        return QStringLiteral("%1 B").arg(bytes);
    if (bytes <= kMiB)
        return scaled(bytes, kKiB, QLatin1String("KB"));
    if (bytes <= kGiB)
        return scaled(bytes, kMiB, QLatin1String("MB"));
    return scaled(bytes, kGiB, QLatin1String("GB"));
}
