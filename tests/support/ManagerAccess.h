#ifndef VELMORA_TESTS_SUPPORT_MANAGERACCESS_H
#define VELMORA_TESTS_SUPPORT_MANAGERACCESS_H

#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>

#include <QtCore/QMetaObject>

namespace Velmora {
namespace Tests {

/**
 * What a control point keeps to itself, for the tests that feed it without a network or count what it
 * holds. The private slots are called through the meta-object; private members are reached through
 * explicit template instantiations, in which the language does not check access, so the library needs
 * no friend and is compiled as hosts get it.
 *
 * @code
 * ManagerAccess access(manager);
 * access.addSsdpDevice(QHostAddress("10.77.1.1"), "http://10.77.1.1/d.xml"_s);
 * QCOMPARE(access.devices().size(), 1);
 * @endcode
 *
 * Lives no longer than the manager; the lists and maps are the manager's own and may be changed.
 */
class ManagerAccess
{
public:
    explicit ManagerAccess(SSDP::SsdpManager& manager)
        : manager(manager)
    {
    }

    SSDP::MulticastSocket*& multicastSocket();
    QUdpSocket*& unicastSocket();
    QNetworkAccessManager& networkManager();
    QTcpServer& eventServer();
    QList<SSDP::SsdpDevice*>& devices();
    QHash<QNetworkReply*, SSDP::SsdpDevice*>& deviceReplies();
    QHash<QNetworkReply*, SSDP::SsdpService*>& serviceReplies();
    QList<QTcpSocket*>& requestSockets();
    QHash<QTcpSocket*, SSDP::SsdpService*>& requestSocketServices();
    QHash<QTcpSocket*, int>& responseContentLengths();
    QHash<QTcpSocket*, QString>& responseBuffers();

    void addSsdpDevice(const QHostAddress& address, const QString& location);
    SSDP::SsdpService* getServiceFromHeader(const QString& header);
    void updateStateVariables(SSDP::SsdpService* service, const QString& xml);

    /// Handles @p reply as if the manager's network access had finished it.
    void onReplyFinished(QNetworkReply* reply);
    /// Reads one datagram from the unicast socket.
    void onUnicastMessageReceived();

private:
    SSDP::SsdpManager& manager;
};

namespace Access {

template <typename Name, auto Member> struct Granted
{
    friend constexpr auto memberOf(Name) { return Member; }
};

#define VELMORA_GRANT(Name, member)                                                                               \
    struct Name                                                                                                   \
    {                                                                                                             \
        friend constexpr auto memberOf(Name);                                                                     \
    };                                                                                                            \
    template struct Granted<Name, &SSDP::SsdpManager::member>;

VELMORA_GRANT(MulticastSocketMember, multicastSocket)
VELMORA_GRANT(UnicastSocketMember, unicastSocket)
VELMORA_GRANT(NetworkManagerMember, networkManager)
VELMORA_GRANT(EventServerMember, eventServer)
VELMORA_GRANT(DevicesMember, devices)
VELMORA_GRANT(DeviceRepliesMember, deviceReplies)
VELMORA_GRANT(ServiceRepliesMember, serviceReplies)
VELMORA_GRANT(RequestSocketsMember, requestSockets)
VELMORA_GRANT(RequestSocketServicesMember, requestSocketServices)
VELMORA_GRANT(ResponseContentLengthsMember, responseContentLengths)
VELMORA_GRANT(ResponseBuffersMember, responseBuffers)
VELMORA_GRANT(AddSsdpDeviceMember, addSsdpDevice)
VELMORA_GRANT(GetServiceFromHeaderMember, getServiceFromHeader)
VELMORA_GRANT(UpdateStateVariablesMember, updateStateVariables)

#undef VELMORA_GRANT

} // namespace Access

inline SSDP::MulticastSocket*& ManagerAccess::multicastSocket()
{
    return manager.*memberOf(Access::MulticastSocketMember());
}

inline QUdpSocket*& ManagerAccess::unicastSocket()
{
    return manager.*memberOf(Access::UnicastSocketMember());
}

inline QNetworkAccessManager& ManagerAccess::networkManager()
{
    return manager.*memberOf(Access::NetworkManagerMember());
}

inline QTcpServer& ManagerAccess::eventServer()
{
    return manager.*memberOf(Access::EventServerMember());
}

inline QList<SSDP::SsdpDevice*>& ManagerAccess::devices()
{
    return manager.*memberOf(Access::DevicesMember());
}

inline QHash<QNetworkReply*, SSDP::SsdpDevice*>& ManagerAccess::deviceReplies()
{
    return manager.*memberOf(Access::DeviceRepliesMember());
}

inline QHash<QNetworkReply*, SSDP::SsdpService*>& ManagerAccess::serviceReplies()
{
    return manager.*memberOf(Access::ServiceRepliesMember());
}

inline QList<QTcpSocket*>& ManagerAccess::requestSockets()
{
    return manager.*memberOf(Access::RequestSocketsMember());
}

inline QHash<QTcpSocket*, SSDP::SsdpService*>& ManagerAccess::requestSocketServices()
{
    return manager.*memberOf(Access::RequestSocketServicesMember());
}

inline QHash<QTcpSocket*, int>& ManagerAccess::responseContentLengths()
{
    return manager.*memberOf(Access::ResponseContentLengthsMember());
}

inline QHash<QTcpSocket*, QString>& ManagerAccess::responseBuffers()
{
    return manager.*memberOf(Access::ResponseBuffersMember());
}

inline void ManagerAccess::addSsdpDevice(const QHostAddress& address, const QString& location)
{
    (manager.*memberOf(Access::AddSsdpDeviceMember()))(address, location);
}

inline SSDP::SsdpService* ManagerAccess::getServiceFromHeader(const QString& header)
{
    return (manager.*memberOf(Access::GetServiceFromHeaderMember()))(header);
}

inline void ManagerAccess::updateStateVariables(SSDP::SsdpService* service, const QString& xml)
{
    (manager.*memberOf(Access::UpdateStateVariablesMember()))(service, xml);
}

inline void ManagerAccess::onReplyFinished(QNetworkReply* reply)
{
    QMetaObject::invokeMethod(&manager, "onReplyFinished", Qt::DirectConnection, Q_ARG(QNetworkReply*, reply));
}

inline void ManagerAccess::onUnicastMessageReceived()
{
    QMetaObject::invokeMethod(&manager, "onUnicastMessageReceived", Qt::DirectConnection);
}

} // namespace Tests
} // namespace Velmora

#endif
