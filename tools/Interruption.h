#ifndef VELMORA_TOOLS_INTERRUPTION_H
#define VELMORA_TOOLS_INTERRUPTION_H

#include <QtCore/QObject>
#include <QtCore/QScopedPointer>

class QSocketNotifier;

namespace Velmora {
namespace Tools {

/// Emits interrupted() from the event loop when the process gets SIGINT, SIGTERM or SIGHUP.
///
/// @warning Create it after the application object and before any thread starts. It blocks these three signals
/// in its thread, and threads that start later inherit this. After its destruction they stay blocked.
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
