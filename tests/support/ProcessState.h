#ifndef VELMORA_TESTS_SUPPORT_PROCESSSTATE_H
#define VELMORA_TESTS_SUPPORT_PROCESSSTATE_H

#include <QtCore/QDir>

#include <fcntl.h>
#include <stdexcept>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

namespace Velmora {
namespace Tests {

/// What the test program holds and has used, as the kernel says.
namespace ProcessState {

inline int entriesOf(const char* folder)
{
    const QDir::Filters everything = QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System;
    return static_cast<int>(QDir(QLatin1String(folder)).entryList(everything).size());
}

inline int descriptors()
{
    return entriesOf("/proc/self/fd");
}

inline int threads()
{
    return entriesOf("/proc/self/task");
}

/// How long the calling thread has had a processor, in microseconds.
inline qint64 processorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<qint64>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

/// The number of the next descriptor, which is the lowest one that is free.
inline int nextDescriptor()
{
    const int probe = open("/", O_PATH | O_CLOEXEC);
    if (probe == -1)
        throw std::runtime_error("there is no descriptor left");
    close(probe);
    return probe;
}

/// Lets the process have only so many descriptors, for as long as it lives.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int count)
        : before()
    {
        rlimit limit = {};
        if (getrlimit(RLIMIT_NOFILE, &before) != 0)
            throw std::runtime_error("the limit of the descriptors cannot be read");
        limit = before;
        limit.rlim_cur = static_cast<rlim_t>(count);
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
            throw std::runtime_error("the descriptors cannot be limited");
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before;
};

} // namespace ProcessState

} // namespace Tests
} // namespace Velmora

#endif
