#pragma once

#include <QObject>

class QSocketNotifier;

// Turns Ctrl-C into a Qt signal delivered on the event loop, so a scan can be
// stopped cleanly instead of the process dying with partial state.
class InterruptWatcher : public QObject
{
    Q_OBJECT
public:
    explicit InterruptWatcher(QObject *parent = nullptr);
    ~InterruptWatcher() override;

signals:
    void interrupted();

private:
    QSocketNotifier *notifier = nullptr;
};
