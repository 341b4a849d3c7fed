#ifndef VELMORA_TESTS_SUPPORT_MANAGERACCESS_H
#define VELMORA_TESTS_SUPPORT_MANAGERACCESS_H

#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>

#include <QtCore/QMetaObject>

namespace Velmora {
namespace Tests {

namespace Access {

template <typename Name, auto Member> struct Granted
{
    friend constexpr auto memberOf(Name) { return Member; }
};

#define VELMORA_GRANT(member)                                                                                     \
    struct member                                                                                                 \
    {                                                                                                             \
        friend constexpr auto memberOf(member);                                                                   \
    };                                                                                                            \
    template struct Granted<member, &SSDP::SsdpManager::member>;

VELMORA_GRANT(multicastSocket)
VELMORA_GRANT(unicastSocket)
VELMORA_GRANT(networkManager)
VELMORA_GRANT(eventServer)
VELMORA_GRANT(devices)
VELMORA_GRANT(deviceReplies)
VELMORA_GRANT(serviceReplies)
VELMORA_GRANT(requestSockets)
VELMORA_GRANT(requestSocketServices)
VELMORA_GRANT(responseContentLengths)
VELMORA_GRANT(responseBuffers)
VELMORA_GRANT(addSsdpDevice)
VELMORA_GRANT(getServiceFromHeader)
VELMORA_GRANT(updateStateVariables)

#undef VELMORA_GRANT

} // namespace Access

/**
 * The private members of a control point. The library needs no friend, because explicit instantiations of
 * templates may name private members.
 *
 * @code
 * ManagerAccess access(manager);
 * access.addSsdpDevice(QHostAddress("10.77.1.1"), "http://10.77.1.1/d.xml"_s);
 * QCOMPARE(access.devices().size(), 1);
 * @endcode
 *
 * It must not outlive the control point. Its lists and tables are those of the control point. A test
 * may change them.
 */
class ManagerAccess
{
    SSDP::SsdpManager& manager;

    template <typename Name> auto& of(Name name) { return manager.*memberOf(name); }

public:
    explicit ManagerAccess(SSDP::SsdpManager& manager)
        : manager(manager)
    {
    }

    SSDP::MulticastSocket*& multicastSocket() { return of(Access::multicastSocket()); }
    QUdpSocket*& unicastSocket() { return of(Access::unicastSocket()); }
    QNetworkAccessManager& networkManager() { return of(Access::networkManager()); }
    QTcpServer& eventServer() { return of(Access::eventServer()); }
    QList<SSDP::SsdpDevice*>& devices() { return of(Access::devices()); }
    QHash<QNetworkReply*, SSDP::SsdpDevice*>& deviceReplies() { return of(Access::deviceReplies()); }
    QHash<QNetworkReply*, SSDP::SsdpService*>& serviceReplies() { return of(Access::serviceReplies()); }
    QList<QTcpSocket*>& requestSockets() { return of(Access::requestSockets()); }
    QHash<QTcpSocket*, SSDP::SsdpService*>& requestSocketServices() { return of(Access::requestSocketServices()); }
    QHash<QTcpSocket*, int>& responseContentLengths() { return of(Access::responseContentLengths()); }
    QHash<QTcpSocket*, QString>& responseBuffers() { return of(Access::responseBuffers()); }

    void addSsdpDevice(const QHostAddress& address, const QString& location)
    {
        (manager.*memberOf(Access::addSsdpDevice()))(address, location);
    }

    /// Adds a record that no datagram has announced.
    SSDP::SsdpDevice* addRecord(const QList<SSDP::SsdpService*>& services, const QString& location = QString())
    {
        auto* const device = new SSDP::SsdpDevice;
        device->location = location;
        device->services = services;
        devices().append(device);
        return device;
    }

    SSDP::SsdpService* getServiceFromHeader(const QString& header)
    {
        return (manager.*memberOf(Access::getServiceFromHeader()))(header);
    }

    void updateStateVariables(SSDP::SsdpService* service, const QString& xml)
    {
        (manager.*memberOf(Access::updateStateVariables()))(service, xml);
    }

    /// Handles @p reply as if the network access had finished it.
    void onReplyFinished(QNetworkReply* reply)
    {
        QMetaObject::invokeMethod(&manager, "onReplyFinished", Qt::DirectConnection, Q_ARG(QNetworkReply*, reply));
    }

    /// Reads one datagram from the unicast socket.
    void onUnicastMessageReceived()
    {
        QMetaObject::invokeMethod(&manager, "onUnicastMessageReceived", Qt::DirectConnection);
    }
};

} // namespace Tests
} // namespace Velmora

#endif
