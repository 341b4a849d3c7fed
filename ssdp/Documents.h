#ifndef VELMORA_SSDP_DOCUMENTS_H
#define VELMORA_SSDP_DOCUMENTS_H

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

class QDomDocument;

namespace Velmora {
namespace SSDP {

/**
 * Reads the documents of a device. They are parsed without namespace processing, so a name is compared
 * with its prefix. A missing element is read as an empty text.
 */
namespace Documents {

enum Kind {
    Other,
    DeviceDescription, ///< UPnP Device Architecture 1.1, clause 2.3
    ServiceDescription ///< clause 2.5
};

/// The kind of document, according to the default namespace of the document element.
Kind kindOf(const QDomDocument& document);

/// A service in a device description. The texts of its elements are unchanged.
struct Service
{
    QString type;
    QString id;
    QString controlUrl;
    QString eventSubUrl;
    QString scpdUrl;
};

/// The services of the root device, in document order. Services of embedded devices are not read.
QList<Service> services(const QDomDocument& description);

/// The names of the state variables of a service description, in document order.
QStringList stateVariables(const QDomDocument& description);

/// A state variable in an event, with its new value.
struct Property
{
    QString name;
    QString value;
};

/// The properties of an event, in document order (clause 4.3.2).
QList<Property> properties(const QDomDocument& event);

} // namespace Documents
} // namespace SSDP
} // namespace Velmora

#endif
