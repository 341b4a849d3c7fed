#include <ssdp/MulticastSocket.h>
#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtCore/QMetaMethod>

#include <type_traits>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

/// Returns the class's own methods in the order of their index, one a line, and the names of what else it has.
QByteArray contentsOf(const QMetaObject& metaObject)
{
    QByteArray result = "\n";
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i) {
        const QMetaMethod method = metaObject.method(i);
        const bool isSignal = method.methodType() == QMetaMethod::Signal;
        const bool isPrivateSlot =
            method.methodType() == QMetaMethod::Slot && method.access() == QMetaMethod::Private;
        result += (isSignal            ? "signal "
                       : isPrivateSlot ? "private slot "
                                       : "other ")
            + method.methodSignature() + " [" + method.parameterNames().join(',') + "]\n";
    }
    if (metaObject.propertyCount() > metaObject.propertyOffset())
        result += "properties\n";
    if (metaObject.enumeratorCount() > metaObject.enumeratorOffset())
        result += "enumerators\n";
    if (metaObject.classInfoCount() > metaObject.classInfoOffset() || metaObject.constructorCount() > 0)
        result += "class infos or constructors\n";
    return result;
}

} // namespace

class MetaObjectsTest : public QObject
{
    Q_OBJECT

    Ssdp controller{1};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    MulticastSocket socket;

private Q_SLOTS:
    void castIsToTheClassAndItsBases_data()
    {
        const Table<QObject*, QList<QByteArray>> row("object", "classes");
        row("Ssdp", &controller, {"Velmora::SSDP::Ssdp", "QObject"});
        row("SsdpManager", &manager, {"Velmora::SSDP::SsdpManager", "QObject"});
        row("MulticastSocket", &socket, {"Velmora::SSDP::MulticastSocket", "QUdpSocket", "QObject"});
    }

    void castIsToTheClassAndItsBases()
    {
        QFETCH(QObject*, object);
        QFETCH(const QList<QByteArray>, classes);
        QCOMPARE(object->metaObject()->className(), classes.at(0).constData());
        QCOMPARE(object->metaObject()->superClass()->className(), classes.at(1).constData());
        const QByteArray names = "Velmora::SSDP,Velmora::SSDP::Ssdp,Velmora::SSDP::SsdpManager,"
                                 "Velmora::SSDP::MulticastSocket,Velmora::SSDP::SsdpDevice,Velmora::SSDP::ssdp,"
                                 "Velmora::SSDP::Ssdp ,Velmora::SSDP::SsdpManager2,Ssdp,SsdpManager,"
                                 "MulticastSocket,QUdpSocket,QTcpSocket,";
        for (const QByteArray& name : names.split(','))
            QVERIFY2((object->qt_metacast(name.constData()) == nullptr) == !classes.contains(name),
                     name.constData());
        for (const QByteArray& name : classes)
            QCOMPARE(object->qt_metacast(name.constData()), static_cast<void*>(object));
        QCOMPARE(object->qt_metacast(nullptr), nullptr);
    }

    void classesHaveOnlyTheseMethodsInThisOrder()
    {
        QCOMPARE(contentsOf(Ssdp::staticMetaObject), QByteArray(R"(
signal discovered(int,int,QHostAddress) [functionCode,univocalCode,deviceAddress]
signal timeoutExpired() []
private slot onTimerTick() []
private slot valueChanged(const SsdpDevice*,const SsdpService*,QString) [device,service,valueName]
)"));
        QCOMPARE(contentsOf(SsdpManager::staticMetaObject), QByteArray(R"(
signal valueChanged(const SsdpDevice*,const SsdpService*,QString) [device,service,valueName]
private slot onReplyFinished(QNetworkReply*) [networkReply]
private slot onNewConnection() []
private slot onMulticastMessageReceived() []
private slot onUnicastMessageReceived() []
private slot onRequestSocketConnected() []
private slot onRequestSocketReadyRead() []
private slot onResponseSocketReadyRead() []
private slot onResponseSocketDisconnected() []
)"));
        QCOMPARE(contentsOf(MulticastSocket::staticMetaObject), "\n"_ba);
    }

    void controllersSignalCarriesItsAddressByConstReference()
    {
        QVERIFY((std::is_same_v<decltype(&Ssdp::discovered), void (Ssdp::*)(int, int, const QHostAddress&)>));
    }

    void parentDefaultsToNone()
    {
        QCOMPARE(controller.parent(), nullptr);
        QCOMPARE(manager.parent(), nullptr);
        QCOMPARE(socket.parent(), nullptr);
    }

    void parentOwnsItsObjects()
    {
        QObject* const parent = new QObject;
        const QPointer<QObject> owned[] = {new Ssdp(1, parent),
                                           new SsdpManager(QHostAddress(QHostAddress::LocalHost), parent),
                                           new MulticastSocket(parent)};
        delete parent;
        for (const QPointer<QObject>& object : owned)
            QVERIFY(object.isNull());
    }
};

QTEST_GUILESS_MAIN(MetaObjectsTest)
#include "tst_metaobjects.moc"
