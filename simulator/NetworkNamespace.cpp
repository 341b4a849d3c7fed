#include <simulator/NetworkNamespace.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Velmora {
namespace Simulator {

namespace {

int openCurrent()
{
    return open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
}

bool isSame(int one, int other)
{
    struct stat first = {};
    struct stat second = {};
    return fstat(one, &first) == 0 && fstat(other, &second) == 0 && first.st_ino == second.st_ino;
}

} // namespace

NetworkNamespace::NetworkNamespace()
    : descriptor(openCurrent())
{
}

NetworkNamespace::~NetworkNamespace()
{
    if (descriptor != -1)
        close(descriptor);
}

NetworkNamespace::Scope::Scope(const NetworkNamespace& there)
    : back(openCurrent())
{
    if (back == -1)
        return;
    if (isSame(back, there.descriptor) || setns(there.descriptor, CLONE_NEWNET) == -1) {
        close(back);
        back = -1;
    }
}

NetworkNamespace::Scope::~Scope()
{
    if (back == -1)
        return;
    setns(back, CLONE_NEWNET);
    close(back);
}

} // namespace Simulator
} // namespace Velmora
