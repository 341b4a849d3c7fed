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
 * A device may make the library open any number of connections. When a thread then starts without a free
 * descriptor for its event loop, Qt (4.8 to 6.4) and GLib abort the process.
 *
 * The kernel gives a new descriptor the lowest free number (open(2)). So this number shows how many
 * descriptors are in use, at least.
 */
class DescriptorGuard
{
public:
    DescriptorGuard();

    /// Reads the limit again. The next refusal is logged, even if one was logged before.
    void reset();

    /// Connects @p socket. It stays unconnected if too few descriptors would be left.
    void connectToHost(QAbstractSocket* socket, const QString& host, quint16 port);

    /// Whether @p socket may stay open. Aborts it if too few descriptors are left.
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
