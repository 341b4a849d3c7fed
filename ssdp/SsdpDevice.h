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
 * A record of one device. It contains what a control point knows of the device.
 *
 * The SsdpManager that found the device owns the record. A host reads it in a slot connected to
 * SsdpManager::valueChanged(). The host must not change it.
 *
 * @warning Keep no pointer to a record. SsdpManager::clearDevices() deletes it, and so does every
 * Ssdp::discover().
 */
class Q_DECL_EXPORT SsdpDevice
{
public:
    /// Constructs a record without services. Identifier, address and location are null.
    SsdpDevice();

    /// Deletes the services, from the first to the last.
    ~SsdpDevice();

    /// The identifier that the control point gives this record. Every record gets a new one.
    QUuid id;

    /// The sender of the first answer or announcement. It may differ from the host in the location.
    QHostAddress address;

    /// The URL of the device description, as in the LOCATION header (UPnP Device Architecture 1.1,
    /// clauses 1.2.2 and 1.3.3). No two devices of a control point have the same location.
    QString location;

    /// The services of the root device, in document order. The device owns them.
    QList<SsdpService*> services;

private:
    Q_DISABLE_COPY(SsdpDevice)
};

} // namespace SSDP
} // namespace Velmora

#endif
