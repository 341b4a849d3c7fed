#include <ssdp/DescriptorGuard.h>

#include <log/Logger.h>

#include <QtNetwork/QAbstractSocket>

#include <cerrno>
#include <fcntl.h>
#include <limits>
#include <sys/resource.h>
#include <unistd.h>

namespace Velmora {
namespace SSDP {

namespace {

const qint64 SPARE_DESCRIPTORS = 64;

} // namespace

DescriptorGuard::DescriptorGuard()
{
    reset();
}

void DescriptorGuard::reset()
{
    rlimit descriptors = {};
    limit = std::numeric_limits<int>::max();
    if (getrlimit(RLIMIT_NOFILE, &descriptors) == 0 && descriptors.rlim_cur < static_cast<rlim_t>(limit))
        limit = static_cast<qint64>(descriptors.rlim_cur);
    spare = qMin(SPARE_DESCRIPTORS, limit / 16);
    isLogged = false;
}

void DescriptorGuard::connectToHost(QAbstractSocket* socket, const QString& host, quint16 port)
{
    // Qt (4.8 to 6.4) starts a thread to look up a name, and a connection has no descriptor until it is
    // open. So the check comes first.
    if (admitsAnother())
        socket->connectToHost(host, port, QIODevice::ReadWrite);
}

bool DescriptorGuard::admits(QAbstractSocket* socket)
{
    if (admits(socket->socketDescriptor()))
        return true;
    socket->abort();
    return false;
}

bool DescriptorGuard::admitsAnother()
{
    const int probe = open("/", O_PATH | O_CLOEXEC);
    if (probe == -1)
        return (errno != EMFILE && errno != ENFILE) || admits(limit);
    close(probe);
    return admits(probe);
}

bool DescriptorGuard::admits(qint64 descriptor)
{
    if (descriptor < limit - spare)
        return true;
    if (!isLogged) {
        Log::Logger(Log::Logger::Error) << "Too few file descriptors are left; a connection was not opened";
        isLogged = true;
    }
    return false;
}

} // namespace SSDP
} // namespace Velmora
