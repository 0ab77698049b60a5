#pragma once

#include <QList>
#include <QString>
#include <QTextStream>

class TFileData;

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

    struct Totals
    {
        qsizetype groups = 0;
        qint64 members = 0;
        qint64 reclaimable = 0; // bytes in all members but each group's first
    };

    static bool parseFormat(const QString &name, Format *format);
    // Prints the store's groups in a stable order (by first member path, then key), with
    // sizes read from disk; `readSizes` asks for them in text output too, for the totals.
    static Totals print(QTextStream &out, Format format, qint64 scannedFiles, bool readSizes = false);

private:
    struct GroupRef
    {
        QString key;
        QString firstPath;
        bool folders = false;
    };
    static QList<GroupRef> order(const TFileData &store);
    static Group groupOf(const TFileData &store, const GroupRef &ref);
    static void printText(QTextStream &out, const Group &group);
    static void printJson(QTextStream &out, const Group &group, bool first);
    static void printCsv(QTextStream &out, const Group &group);
};
