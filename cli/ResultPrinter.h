#pragma once

#include <QList>
#include <QString>
#include <QTextStream>

// Prints the groups of the result store in the command line's output formats.
class ResultPrinter
{
public:
    enum Format
    {
        Text,
        Json,
        Csv
    };

    struct Member
    {
        QString path;
        qint64 size = 0;
        bool selected = false;
        int similarity = -1; // -1: not a similar-image entry
    };
    struct Group
    {
        QString key;
        QString kind; // "files", "folders" or "similar"
        QList<Member> members;
    };

    // The store's groups in a stable order (by first member path), sizes read from disk.
    static QList<Group> collect();
    static bool parseFormat(const QString &name, Format *format);
    static void print(QTextStream &out, const QList<Group> &groups, Format format, qint64 scannedFiles);

private:
    static void printText(QTextStream &out, const QList<Group> &groups);
    static void printJson(QTextStream &out, const QList<Group> &groups, qint64 scannedFiles);
    static void printCsv(QTextStream &out, const QList<Group> &groups);
};
