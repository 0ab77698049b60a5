#include "TestMain.h"

#include "result/SizeFormat.h"

#include <limits>

using namespace Qt::StringLiterals;

class TestFormatSize : public QObject
{
    Q_OBJECT
private slots:
    void format_data();
    void format();
};

void TestFormatSize::format_data()
{
    QTest::addColumn<qint64>("bytes");
    QTest::addColumn<QString>("expected");

    // Expected texts worked out by hand: quotient, then the first two decimals kept.
    QTest::newRow("zero") << qint64(0) << u"0 B"_s;
    QTest::newRow("one") << qint64(1) << u"1 B"_s;
    QTest::newRow("1023") << qint64(1023) << u"1023 B"_s;
    QTest::newRow("1024 stays in bytes") << qint64(1024) << u"1024 B"_s;
    QTest::newRow("1025 is 1.0009 -> 1") << qint64(1025) << u"1 KB"_s;
    QTest::newRow("1035 is 1.0107 -> 1.01") << qint64(1035) << u"1.01 KB"_s;
    QTest::newRow("1075 is 1.0498 -> 1.04 not 1.05") << qint64(1075) << u"1.04 KB"_s;
    QTest::newRow("1099 is 1.0732 -> 1.07") << qint64(1099) << u"1.07 KB"_s;
    QTest::newRow("1127 is 1.1005 -> 1.1") << qint64(1127) << u"1.1 KB"_s;
    QTest::newRow("1536 is 1.5") << qint64(1536) << u"1.5 KB"_s;
    QTest::newRow("2047 is 1.999 -> 1.99 not 2") << qint64(2047) << u"1.99 KB"_s;
    QTest::newRow("2048") << qint64(2048) << u"2 KB"_s;
    QTest::newRow("1024*1024-1") << qint64(1024 * 1024 - 1) << u"1023.99 KB"_s;
    QTest::newRow("1024*1024 stays in KB") << qint64(1024 * 1024) << u"1024 KB"_s;
    QTest::newRow("1024*1024+1") << qint64(1024 * 1024 + 1) << u"1 MB"_s;
    QTest::newRow("2 MB") << qint64(2097152) << u"2 MB"_s;
    QTest::newRow("1.999 MB -> 1.99") << qint64(2096103) << u"1.99 MB"_s;
    // 2^30 - 1 is not a float; it rounds to 2^30 before dividing.
    QTest::newRow("1024^3-1 in single precision") << qint64(1073741823) << u"1024 MB"_s;
    QTest::newRow("1024^3 stays in MB") << qint64(1073741824) << u"1024 MB"_s;
    QTest::newRow("1024^3+1") << qint64(1073741825) << u"1 GB"_s;
    QTest::newRow("1.5 GB") << qint64(1610612736) << u"1.5 GB"_s;
    QTest::newRow("5 GB") << qint64(5) * 1073741824 << u"5 GB"_s;
    QTest::newRow("10 TiB in GB") << qint64(10995116277760) << u"10240 GB"_s;
    QTest::newRow("largest count, no exponent") << std::numeric_limits<qint64>::max() << u"8589934592 GB"_s;
    QTest::newRow("minus one") << qint64(-1) << u"-1 B"_s;
    QTest::newRow("negative beyond a KB stays in bytes") << qint64(-5000) << u"-5000 B"_s;
    QTest::newRow("smallest count") << std::numeric_limits<qint64>::min() << u"-9223372036854775808 B"_s;
}

void TestFormatSize::format()
{
    QFETCH(qint64, bytes);
    QFETCH(QString, expected);
    QCOMPARE(formatSize(bytes), expected);
}

TWINFOLD_TEST_MAIN(TestFormatSize)
#include "tst_formatsize.moc"
