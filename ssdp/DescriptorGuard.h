#ifndef VELMORA_SSDP_DESCRIPTORGUARD_H
#define VELMORA_SSDP_DESCRIPTORGUARD_H

#include <QtCore/QtGlobal>

class QAbstractSocket;

namespace Velmora {
namespace SSDP {

/**
 * Leaves the last descriptors to the rest of the process: 64, or a sixteenth of the limit if that is
 * less. Of connections that others open, it leaves as many again for requests and subscriptions.
 *
 * A device may make the library open any number of connections, and the next thread that Qt or
 * GLib starts aborts the process if it finds no descriptor for its event loop.
 *
 * The kernel gives the lowest number that is free. So the number of a new socket says how many
 * descriptors are in use, at least.
 */
class DescriptorGuard
{
public:
    DescriptorGuard();

    /// Reads the limit again. The next refusal is logged again.
    void reset();

    /// Connects @p socket, which stays unconnected if it would take one of the last descriptors.
    void connectToHost(QAbstractSocket* socket, const QString& host, quint16 port);

    /// Whether @p socket may stay open. Aborts it if it has taken one of the last descriptors.
    bool admits(QAbstractSocket* socket);
    /// The same for a connection that somebody else has opened.
    bool admitsAccepted(QAbstractSocket* socket);

private:
    bool admitsLookup();
    bool admits(qint64 descriptor);

    qint64 limit;
    qint64 spare;
    bool isLogged;
};

} // namespace SSDP
} // namespace Velmora

#endif
