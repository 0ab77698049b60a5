#pragma once

#include "app/TReporter.h"

// The reporter on the native crash SDK: out-of-process crash capture with the day's log
// attached, and message events. Only built when the SDK was found.
class SentryNativeReporter : public TReporter
{
public:
    SentryNativeReporter() = default;
    ~SentryNativeReporter() override;

    bool init(const Options &options) override;
    bool captureMessage(const Event &event) override;
    void close() override;

private:
    bool m_running = false;
};
