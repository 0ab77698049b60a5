#pragma once

#include <QStringList>

// `twinfold-cli show FILE.dupproj`: prints a saved project in the scan's formats.
class ShowCommand
{
public:
    static int run(const QStringList &arguments);
};
