#ifndef VELMORA_SSDP_SSDPDEVICE_H
#define VELMORA_SSDP_SSDPDEVICE_H

#include <ssdp/QtVersion.h>

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QUuid>
#include <QtNetwork/QHostAddress>

namespace Velmora {
namespace SSDP {

class SsdpService;

/**
 * What a control point knows of one device: a plain record.
 *
 * The SsdpManager that found the device owns it. A host only reads it, in a slot connected to
 * SsdpManager::valueChanged(), and keeps no pointer to it: the record dies when the next discovery
 * starts.
 */
class Q_DECL_EXPORT SsdpDevice
{
public:
    /// The identifier, the address and the location are null; there are no services.
    SsdpDevice();

    /// Deletes the services, first to last.
    ~SsdpDevice();

    /// The control point's own identifier of this record, fresh for every record.
    QUuid id;

    /// Where the datagram came from that announced the device, not what its location says.
    QHostAddress address;

    /// The URL of the device description as the LOCATION header gave it (UPnP Device Architecture
    /// 1.1, clauses 1.2.2 and 1.3.3). No two devices of a control point have the same one.
    QString location;

    /// The services of the root device in the order of its description. The device owns them.
    QList<SsdpService*> services;

private:
    Q_DISABLE_COPY(SsdpDevice)
};

} // namespace SSDP
} // namespace Velmora

#endif
