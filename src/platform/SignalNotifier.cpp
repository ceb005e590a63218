#include "platform/SignalNotifier.h"

#include <QSocketNotifier>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace nimbrel {

namespace {

// Write end of the live object's pipe, for the handler; -1 while no object exists.
volatile sig_atomic_t gWriteFd = -1;

extern "C" void writeSignalToPipe(int signal)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signal);
    if (gWriteFd >= 0) {
        const ssize_t written = ::write(gWriteFd, &byte, 1); // a full pipe already holds a wake-up
        (void)written;
    }
    errno = savedErrno;
}

} // namespace

struct SignalNotifier::Saved
{
    std::vector<std::pair<int, struct sigaction>> actions;
};

SignalNotifier::SignalNotifier(std::initializer_list<int> signalNumbers, QObject* parent)
    : QObject(parent), m_saved(std::make_unique<Saved>())
{
    if (gWriteFd >= 0 || ::pipe2(m_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    gWriteFd = m_pipe[1];
    m_notifier = std::make_unique<QSocketNotifier>(m_pipe[0], QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &SignalNotifier::readSignals);

    struct sigaction action = {};
    action.sa_handler = writeSignalToPipe;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : signalNumbers) {
        struct sigaction previous = {};
        if (::sigaction(signal, &action, &previous) == 0)
            m_saved->actions.emplace_back(signal, previous);
    }
    m_valid = true;
}

SignalNotifier::~SignalNotifier()
{
    if (!m_valid)
        return;
    for (const auto& [signal, previous] : m_saved->actions)
        ::sigaction(signal, &previous, nullptr);
    gWriteFd = -1;
    m_notifier.reset();
    ::close(m_pipe[0]);
    ::close(m_pipe[1]);
}

void SignalNotifier::readSignals()
{
    unsigned char bytes[16];
    ssize_t count;
    while ((count = ::read(m_pipe[0], bytes, sizeof bytes)) > 0) {
        for (ssize_t i = 0; i < count; ++i)
            emit signalReceived(bytes[i]);
    }
}

} // namespace nimbrel
