#include <tools/Output.h>

#include <QtCore/QDateTime>
#include <QtCore/QJsonDocument>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <linux/limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Velmora {
namespace Tools {

namespace {

void waitUntilWritable(int descriptor)
{
    sigset_t none;
    sigemptyset(&none);
    pollfd output = {descriptor, POLLOUT, 0};
    ppoll(&output, 1, nullptr, &none);
}

/// Writes @p text. Returns 0, or the error number if not all of it was written.
int writeAll(int descriptor, const QByteArray& text)
{
    // Qt does the same at its first connection. Without a reader, a write then fails instead of ending the
    // program.
    std::signal(SIGPIPE, SIG_IGN);
    for (qsizetype done = 0; done < text.size();) {
        waitUntilWritable(descriptor);
        // A pipe that is writable accepts PIPE_BUF bytes without blocking.
        const size_t size = qMin<size_t>(static_cast<size_t>(text.size() - done), PIPE_BUF);
        const ssize_t written = write(descriptor, text.constData() + done, size);
        if (written >= 0)
            done += written;
        else if (errno != EINTR && errno != EAGAIN)
            return errno;
    }
    return 0;
}

/// Ends the program, but not with exit(), which destroys static objects. A thread of Qt may still use them.
[[noreturn]] void endWithoutReader()
{
    _exit(READER_GONE);
}

bool isPipe(int descriptor)
{
    struct stat status = {};
    return fstat(descriptor, &status) == 0 && (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

} // namespace

void openStandardDescriptors()
{
    // Each call of open() gives the lowest free descriptor.
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(descriptor, F_GETFD) == -1 && open("/dev/null", O_RDONLY) == -1)
            _exit(WRITE_ERROR);
    }
}

void print(const QByteArray& text, int failure)
{
    const int error = writeAll(STDOUT_FILENO, text);
    if (error == EPIPE)
        endWithoutReader();
    if (error != 0) {
        std::fprintf(stderr, "%s: cannot write: %s\n", program_invocation_short_name, std::strerror(error));
        _exit(failure);
    }
}

void print(const QJsonObject& object)
{
    print(QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n');
}

void report(const QByteArray& text)
{
    if (writeAll(STDERR_FILENO, text) == EPIPE)
        endWithoutReader();
}

ReaderWatch::ReaderWatch()
    : notifier(STDOUT_FILENO, QSocketNotifier::Exception)
{
    notifier.setEnabled(isPipe(STDOUT_FILENO));
    QObject::connect(&notifier, &QSocketNotifier::activated, [] { endWithoutReader(); });
}

QByteArray timeStamp()
{
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs).toLatin1();
}

} // namespace Tools
} // namespace Velmora
