#pragma once

#include "settings/TWGenernalPreferences.h"
#include "settings/TWIgnoreListPreferences.h"
#include "settings/TWSelectionPreferences.h"

#include <QByteArray>
#include <QJsonObject>
#include <QMetaProperty>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <optional>

class QSettings;

// The process-wide preferences: three objects read from "preferences.cfg" on creation and
// written back by save() and once more on destruction. Used from the UI thread only;
// the scan reads the values through toJson() before its workers start.
class TWPreferences
{
public:
    // Reads the given file (it need not exist). The command-line front end and the
    // tests use this to work on a file other than the user's own. A store that does not
    // write back leaves the file as it found it: the command line reads the user's
    // preferences and overrides them for one run only.
    explicit TWPreferences(const QString &filePath, bool writesBack = true);
    // Saves (when the store writes back), then deletes the three objects.
    ~TWPreferences();
    Q_DISABLE_COPY_MOVE(TWPreferences)

    // The single store on the per-user file, created on first call; never null.
    static TWPreferences *instance();
    // Deletes the single store (which saves) and clears it; a later instance() reads the
    // file afresh. Called by the main window's destructor.
    static void releaseInstance();

    // Where the single store keeps its file: the per-user data folder, or, when that
    // cannot be written, a product folder on another fixed drive. Creates the folder.
    static QString defaultFilePath();

    // Registers the list, map and enumeration types under their stored names, so that
    // enumeration values written to the file can be read back as their types.
    static void registerTypes();

    // Interface language in the native per-user settings, 1 English, 2 French,
    // 3 Portuguese, 4 Italian, 5 German, 6 Spanish, 7 Japanese; 1 when absent or invalid.
    static int language();
    // Refuses (returns false) values outside 1 to 7.
    static bool setLanguage(int language);

    // Writes all groups and the priority map.
    void save();

    QString filePath() const { return m_filePath; }

    // A JSON object's members as compact text in the given key order (QJsonObject itself
    // always sorts its keys); keys missing from the object are left out.
    static QByteArray orderedJson(const QJsonObject &object, const QStringList &keyOrder);

    // A stored value converted to the property's type, or nothing when it does not
    // convert or lies outside what the program accepts for that property.
    static std::optional<QVariant> acceptedValue(const QMetaProperty &property, const QVariant &stored);

    TWGenernalPreferences *const general;
    TWIgnoreListPreferences *const ignoreList;
    TWSelectionPreferences *const selection;

private:
    void load();
    static void readGroup(QSettings &settings, QObject *object, const QString &group);
    static void writeGroup(QSettings &settings, QObject *object, const QString &group);

    const QString m_filePath;
    const bool m_writesBack;
};
