#pragma once

#include <QStringList>

// `twinfold-cli delete FILE.dupproj`: removes the selected members of a saved project
// and rewrites the project with what is left.
class DeleteCommand
{
public:
    static int run(const QStringList &arguments);
};
