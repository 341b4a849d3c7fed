#include <ssdp/MulticastSocket.h>
#include <ssdp/Ssdp.h>
#include <ssdp/SsdpManager.h>
#include <tests/support/Literals.h>

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
    void everyClassIsItsOwnName_data()
    {
        QTest::addColumn<QObject*>("object");
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QByteArray>("base");
        QTest::newRow("Ssdp") << static_cast<QObject*>(&controller) << "Velmora::SSDP::Ssdp"_ba
                              << "QObject"_ba;
        QTest::newRow("SsdpManager") << static_cast<QObject*>(&manager) << "Velmora::SSDP::SsdpManager"_ba
                                     << "QObject"_ba;
        QTest::newRow("MulticastSocket") << static_cast<QObject*>(&socket) << "Velmora::SSDP::MulticastSocket"_ba
                                         << "QUdpSocket"_ba;
    }

    void everyClassIsItsOwnName()
    {
        QFETCH(QObject*, object);
        QFETCH(const QByteArray, name);
        QFETCH(const QByteArray, base);
        QCOMPARE(QByteArray(object->metaObject()->className()), name);
        QCOMPARE(QByteArray(object->metaObject()->superClass()->className()), base);
        QCOMPARE(object->qt_metacast(name.constData()), static_cast<void*>(object));
    }

    void castToABaseIsTheObject_data()
    {
        QTest::addColumn<QObject*>("object");
        QTest::addColumn<QByteArray>("name");
        QTest::newRow("a controller") << static_cast<QObject*>(&controller) << "QObject"_ba;
        QTest::newRow("a manager") << static_cast<QObject*>(&manager) << "QObject"_ba;
        QTest::newRow("a socket as QUdpSocket") << static_cast<QObject*>(&socket) << "QUdpSocket"_ba;
        QTest::newRow("a socket as QObject") << static_cast<QObject*>(&socket) << "QObject"_ba;
    }

    void castToABaseIsTheObject()
    {
        QFETCH(QObject*, object);
        QFETCH(const QByteArray, name);
        QCOMPARE(object->qt_metacast(name.constData()), static_cast<void*>(object));
    }

    void castToAnotherNameIsNull_data()
    {
        QTest::addColumn<QObject*>("object");
        QTest::addColumn<QByteArray>("name");
        const QList<QPair<const char*, QObject*>> objects = {
            {"Ssdp", &controller}, {"SsdpManager", &manager}, {"MulticastSocket", &socket}};
        const QList<QByteArray> names = {"Velmora::SSDP",
                                         "Velmora::SSDP::SsdpDevice",
                                         "Velmora::SSDP::ssdp",
                                         "Velmora::SSDP::Ssdp ",
                                         "Velmora::SSDP::SsdpManager2",
                                         "Ssdp",
                                         "SsdpManager",
                                         "MulticastSocket",
                                         ""};
        for (const auto& object : objects) {
            for (const QByteArray& name : names)
                QTest::addRow("%s to '%s'", object.first, name.constData()) << object.second << name;
            QTest::addRow("%s to null", object.first) << object.second << QByteArray();
        }
        QTest::newRow("Ssdp to SsdpManager")
            << static_cast<QObject*>(&controller) << "Velmora::SSDP::SsdpManager"_ba;
        QTest::newRow("SsdpManager to Ssdp") << static_cast<QObject*>(&manager) << "Velmora::SSDP::Ssdp"_ba;
        QTest::newRow("MulticastSocket to QTcpSocket") << static_cast<QObject*>(&socket) << "QTcpSocket"_ba;
    }

    void castToAnotherNameIsNull()
    {
        QFETCH(QObject*, object);
        QFETCH(const QByteArray, name);
        QCOMPARE(object->qt_metacast(name.isNull() ? nullptr : name.constData()), nullptr);
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
