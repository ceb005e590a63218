#pragma once

// Brings Unix signals (SIGTERM, SIGINT, ...) to the event loop: the handler only writes the signal's
// number to a pipe (all a signal handler may safely do); a socket notifier reads it on the event loop
// and emits signalReceived, where the program can quit in order.

#include <QObject>
#include <initializer_list>
#include <memory>

class QSocketNotifier;

namespace nimbrel {

class SignalNotifier : public QObject
{
    Q_OBJECT
public:
    // Installs handlers for the given signals. Only one object may exist at a time; a second one is invalid
    // and installs nothing.
    explicit SignalNotifier(std::initializer_list<int> signalNumbers, QObject* parent = nullptr);
    // Restores the handlers that were there before.
    ~SignalNotifier() override;

    bool isValid() const { return m_valid; }

signals:
    void signalReceived(int signal);

private:
    void readSignals();

    bool m_valid = false;
    int m_pipe[2] = {-1, -1};
    std::unique_ptr<QSocketNotifier> m_notifier;
    struct Saved;
    std::unique_ptr<Saved> m_saved;
};

} // namespace nimbrel
