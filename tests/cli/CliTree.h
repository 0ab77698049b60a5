#pragma once

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRandomGenerator>
#include <QSet>
#include <QStringList>

#include <algorithm>

// Writes generated trees for the command line tests and groups their files by a full
// byte comparison, the reference the scan's output must match.
class CliTree
{
public:
    explicit CliTree(const QString &root) : m_root(root) {}

    QString write(const QString &relative, const QByteArray &data) const
    {
        const QString path = m_root + QLatin1Char('/') + relative;
        QDir().mkpath(QFileInfo(path).absolutePath());
        QFile f(path);
        if (!f.open(QIODevice::WriteOnly) || f.write(data) != data.size())
            qFatal("cannot write test file");
        return QFileInfo(path).absoluteFilePath();
    }

    // A random tree: random sizes around the sampled-block boundaries, copies, and
    // same-size files that differ in one byte.
    void random(quint32 seed, int files)
    {
        QRandomGenerator rng(seed);
        QList<QByteArray> made;
        const QList<int> sizes = {0, 1, 100, 4095, 4096, 12287, 12288, 12289, 20000, 70000};
        for (int i = 0; i < files; ++i) {
            QByteArray data;
            const int roll = int(rng.bounded(10));
            if (roll < 3 && !made.isEmpty()) {
                data = made.at(int(rng.bounded(made.size())));
            } else if (roll < 5 && !made.isEmpty()) {
                data = made.at(int(rng.bounded(made.size())));
                if (!data.isEmpty())
                    data[int(rng.bounded(data.size()))] = char(data.at(0) ^ 0x5a ^ char(i));
            } else {
                data.resize(sizes.at(int(rng.bounded(sizes.size()))));
                for (char &c : data)
                    c = char(rng.bounded(4)); // few values: many accidental equalities
            }
            made.append(data);
            write(QStringLiteral("d%1/f%2.bin").arg(rng.bounded(6)).arg(i), data);
        }
    }

    // Every set of two or more non-empty files with identical bytes, each sorted.
    QList<QStringList> byteGroups() const
    {
        QMap<QByteArray, QStringList> byContent;
        QDirIterator it(m_root, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            QFile f(it.next());
            const QByteArray all = f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
            if (!all.isEmpty())
                byContent[all].append(it.fileInfo().absoluteFilePath());
        }
        QList<QStringList> groups;
        for (QStringList members : std::as_const(byContent)) {
            if (members.size() < 2)
                continue;
            members.sort();
            groups.append(members);
        }
        std::sort(groups.begin(), groups.end());
        return groups;
    }

private:
    QString m_root;
};
