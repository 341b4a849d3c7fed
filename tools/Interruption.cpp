#include <tools/Interruption.h>

#include <QtCore/QSocketNotifier>

#include <csignal>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Velmora {
namespace Tools {

Interruption::Interruption(QObject* parent)
    : QObject(parent)
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        // A shell script starts background jobs with SIGINT ignored. signalfd does not report an ignored signal.
        if (number != SIGHUP)
            std::signal(number, SIG_DFL);
        sigaddset(&signals, number);
    }
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    notifier.reset(new QSocketNotifier(descriptor, QSocketNotifier::Read));
    connect(notifier.data(), &QSocketNotifier::activated, this, [this] {
        signalfd_siginfo information;
        while (read(descriptor, &information, sizeof information) == sizeof information)
            Q_EMIT interrupted();
    });
}

Interruption::~Interruption()
{
    notifier.reset();
    close(descriptor);
}

} // namespace Tools
} // namespace Velmora

#include "moc_Interruption.cpp"
