#ifndef VELMORA_TOOLS_INTERRUPTION_H
#define VELMORA_TOOLS_INTERRUPTION_H

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>

class QSocketNotifier;

namespace Velmora {
namespace Tools {

/// Turns SIGINT, SIGTERM and SIGHUP into a signal of the event loop. To be made after the application object and
/// before any thread is started, since the signals stay blocked in this thread and in those that it starts.
class Interruption : public QObject
{
    Q_OBJECT

public:
    explicit Interruption(QObject* parent = nullptr);
    ~Interruption() override;

Q_SIGNALS:
    void interrupted();

private:
    Q_DISABLE_COPY(Interruption)

    int descriptor;
    QScopedPointer<QSocketNotifier> notifier;
};

} // namespace Tools
} // namespace Velmora

#endif
