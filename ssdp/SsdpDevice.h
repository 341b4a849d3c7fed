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
 * The SsdpManager that found the device owns the record. A host reads it in a slot connected to
 * SsdpManager::valueChanged().
 *
 * @warning Keep no pointer to a record. It is deleted when the next discovery starts.
 */
class Q_DECL_EXPORT SsdpDevice
{
public:
    /// Constructs a record without services. The identifier, the address and the location are null.
    SsdpDevice();

    /// Deletes the services, first to last.
    ~SsdpDevice();

    /// The identifier that the control point gives this record. Every record gets a new one.
    QUuid id;

    /// The sender of the announcing datagram. It may differ from the host in the location.
    QHostAddress address;

    /// The URL of the device description, as in the LOCATION header (UPnP Device Architecture 1.1,
    /// clauses 1.2.2 and 1.3.3). It is unique within a control point.
    QString location;

    /// The services of the root device, in document order. The device owns them.
    QList<SsdpService*> services;

private:
    Q_DISABLE_COPY(SsdpDevice)
};

} // namespace SSDP
} // namespace Velmora

#endif
