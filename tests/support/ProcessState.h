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

/// The descriptors, threads and processor time of the test program.
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

/// Returns the processor time of the calling thread, in microseconds.
inline qint64 processorTime()
{
    timespec time = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<qint64>(time.tv_sec) * 1000000 + time.tv_nsec / 1000;
}

/// Returns the next descriptor. It is the lowest free number.
inline int nextDescriptor()
{
    const int probe = open("/", O_PATH | O_CLOEXEC);
    if (probe == -1)
        throw std::runtime_error("no descriptor is free");
    close(probe);
    return probe;
}

/// Limits the descriptors of the process while this object exists.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int count)
    {
        if (getrlimit(RLIMIT_NOFILE, &before) != 0)
            throw std::runtime_error("the limit of the descriptors cannot be read");
        const rlimit limit = {static_cast<rlim_t>(count), before.rlim_max};
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
            throw std::runtime_error("the descriptors cannot be limited");
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before); }
    DescriptorLimit(const DescriptorLimit&) = delete;
    DescriptorLimit& operator=(const DescriptorLimit&) = delete;

private:
    rlimit before = {};
};

} // namespace ProcessState

} // namespace Tests
} // namespace Velmora

#endif
