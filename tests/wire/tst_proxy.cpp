#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <QtNetwork/QNetworkProxy>

using namespace Velmora::Tests;

/// The library and a proxy that the user or the host has set for the internet.
class ProxyTest : public WireTest
{
    Q_OBJECT

public:
    using WireTest::WireTest;

private Q_SLOTS:
    void proxyIsNotUsed_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("http_proxy in the environment") << int(QNetworkProxy::DefaultProxy);
        QTest::newRow("HTTP proxy of the application") << int(QNetworkProxy::HttpProxy);
        QTest::newRow("SOCKS proxy of the application") << int(QNetworkProxy::Socks5Proxy);
    }

    void proxyIsNotUsed()
    {
        QFETCH(const int, type);
        const ScriptedDevice proxy(network, "10.77.1.3"_s, 3128);
        if (type == QNetworkProxy::DefaultProxy) {
            qputenv("http_proxy", "http://10.77.1.3:3128");
            QNetworkProxyFactory::setUseSystemConfiguration(true);
            // It is what Qt would use.
            const QNetworkProxyQuery query(QUrl("http://10.77.1.1:8080/desc.xml"_s));
            QCOMPARE(QNetworkProxyFactory::proxyForQuery(query).at(0).hostName(), "10.77.1.3"_s);
        } else {
            const auto proxyType = static_cast<QNetworkProxy::ProxyType>(type);
            QNetworkProxy::setApplicationProxy(QNetworkProxy(proxyType, "10.77.1.3", 3128));
        }

        QVERIFY(findDevice());
        QVERIFY(sendLastEvent());
        QVERIFY(proxy.accepted.isEmpty());
        QCOMPARE(device->searches.at(0).port, quint16(49152));
        QCOMPARE(log().filter("1|"), QStringList());
    }
};

VELMORA_WIRE_TEST_MAIN(ProxyTest)

#include "tst_proxy.moc"
