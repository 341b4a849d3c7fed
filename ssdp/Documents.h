#ifndef VELMORA_SSDP_DOCUMENTS_H
#define VELMORA_SSDP_DOCUMENTS_H

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

class QDomDocument;

namespace Velmora {
namespace SSDP {

/**
 * Reads the documents of a device. The documents are parsed without namespace processing, so the prefix
 * of an element is part of its name. A missing element is read as an empty text.
 */
namespace Documents {

enum Kind {
    Other,
    DeviceDescription, ///< UPnP Device Architecture 1.1, clause 2.3
    ServiceDescription ///< clause 2.5
};

/// Returns the kind of the document. The default namespace of its root element decides.
Kind kindOf(const QDomDocument& document);

/// A service in a device description. The texts are not trimmed.
struct Service
{
    QString type;
    QString id;
    QString controlUrl;
    QString eventSubUrl;
    QString scpdUrl;
};

/// Returns the services of the root device, in document order. Does not read embedded devices.
QList<Service> services(const QDomDocument& description);

/// Returns the names of the state variables in a service description, in document order.
QStringList stateVariables(const QDomDocument& description);

/// A state variable in an event, and its new value.
struct Property
{
    QString name;
    QString value;
};

/// Returns the properties of an event, in document order (clause 4.3.2).
QList<Property> properties(const QDomDocument& event);

} // namespace Documents
} // namespace SSDP
} // namespace Velmora

#endif
