#include <ssdp/MulticastSocket.h>
#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>
#include <tests/support/Table.h>

#include <QtCore/QMetaMethod>
#include <QtTest/QtTest>

#include <type_traits>

using namespace Velmora;
using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

QByteArray description(const QMetaMethod& method)
{
    QByteArray kind = "other";
    if (method.methodType() == QMetaMethod::Signal)
        kind = "signal";
    else if (method.methodType() == QMetaMethod::Slot)
        kind = method.access() == QMetaMethod::Private ? "private slot" : "slot";
    return kind + ' ' + method.methodSignature() + " [" + method.parameterNames().join(',') + ']';
}

/// The class's own methods in index order.
QList<QByteArray> methods(const QMetaObject& metaObject)
{
    QList<QByteArray> result;
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i)
        result << description(metaObject.method(i));
    return result;
}

bool hasNothingButMethods(const QMetaObject& metaObject)
{
    return metaObject.propertyCount() == metaObject.propertyOffset()
        && metaObject.enumeratorCount() == metaObject.enumeratorOffset()
        && metaObject.classInfoCount() == metaObject.classInfoOffset() && metaObject.constructorCount() == 0;
}

} // namespace

class MetaObjectsTest : public QObject
{
    Q_OBJECT

private:
    Ssdp controller{1};
    SsdpManager manager{QHostAddress(QHostAddress::LocalHost)};
    MulticastSocket socket;

private Q_SLOTS:
    void castIsToTheClassAndItsBases_data()
    {
        const Table<QObject*, QList<QByteArray>> row("object", "classes");
        const auto add = [](const char* name, QObject* object, const QList<QByteArray>& classes) {
            row(name, object, classes);
        };
        add("Ssdp", &controller, {"Velmora::SSDP::Ssdp", "QObject"});
        add("SsdpManager", &manager, {"Velmora::SSDP::SsdpManager", "QObject"});
        add("MulticastSocket", &socket, {"Velmora::SSDP::MulticastSocket", "QUdpSocket", "QObject"});
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

    void controllerHasTheseMethodsInThisOrder()
    {
        QCOMPARE(methods(Ssdp::staticMetaObject),
                 (QList<QByteArray>{
                     "signal discovered(int,int,QHostAddress) [functionCode,univocalCode,deviceAddress]",
                     "signal timeoutExpired() []",
                     "private slot onTimerTick() []",
                     "private slot valueChanged(const SsdpDevice*,const SsdpService*,QString)"
                     " [device,service,valueName]",
                 }));
        QVERIFY(hasNothingButMethods(Ssdp::staticMetaObject));
    }

    void managerHasTheseMethodsInThisOrder()
    {
        QCOMPARE(
            methods(SsdpManager::staticMetaObject),
            (QList<QByteArray>{
                "signal valueChanged(const SsdpDevice*,const SsdpService*,QString) [device,service,valueName]",
                "private slot onReplyFinished(QNetworkReply*) [networkReply]",
                "private slot onNewConnection() []",
                "private slot onMulticastMessageReceived() []",
                "private slot onUnicastMessageReceived() []",
                "private slot onRequestSocketConnected() []",
                "private slot onRequestSocketReadyRead() []",
                "private slot onResponseSocketReadyRead() []",
                "private slot onResponseSocketDisconnected() []",
            }));
        QVERIFY(hasNothingButMethods(SsdpManager::staticMetaObject));
    }

    void multicastSocketAddsNoMethods()
    {
        QCOMPARE(methods(MulticastSocket::staticMetaObject), QList<QByteArray>());
        QVERIFY(hasNothingButMethods(MulticastSocket::staticMetaObject));
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
