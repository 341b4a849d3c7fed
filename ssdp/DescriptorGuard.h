#ifndef VELMORA_SSDP_DESCRIPTORGUARD_H
#define VELMORA_SSDP_DESCRIPTORGUARD_H

#include <QtCore/QtGlobal>

class QAbstractSocket;

namespace Velmora {
namespace SSDP {

/**
 * Keeps some file descriptors free for the rest of the process: 64, or a sixteenth of the limit if that
 * is less.
 *
 * A device may make the library open any number of connections. If a thread then starts and there is no
 * free descriptor for its event loop, Qt (4.8 to 6.4) and GLib abort the process.
 *
 * The kernel gives a new descriptor the lowest free number (open(2)). So if a new descriptor has the
 * number n, at least n descriptors are in use.
 */
class DescriptorGuard
{
public:
    DescriptorGuard();

    /// Reads the limit again. The next refusal is logged, even if an earlier one was logged.
    void reset();

    /// Connects @p socket. If too few descriptors are free, it stays unconnected.
    void connectToHost(QAbstractSocket* socket, const QString& host, quint16 port);

    /// Returns whether @p socket may stay open. If too few descriptors are free, aborts it.
    bool admits(QAbstractSocket* socket);

private:
    bool admitsAnother();
    bool admits(qint64 descriptor);

    qint64 limit;
    qint64 spare;
    bool isLogged;
};

} // namespace SSDP
} // namespace Velmora

#endif
