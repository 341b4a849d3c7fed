#include <tests/support/Literals.h>
#include <tests/support/WireTest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace Velmora {
namespace Tests {

using Simulator::PrivateNetwork;

WireTest::WireTest(PrivateNetwork& network)
    : network(network)
    , timeouts(0)
    , links(0)
{
}

QString WireTest::addLink(const char* hostAddress, const char* firstDeviceAddress, int deviceAddresses)
{
    network.addLink(hostAddress, firstDeviceAddress, deviceAddresses);
    return "host%1"_s.arg(links++);
}

bool WireTest::waitUntil(const std::function<bool()>& condition)
{
    // The tick is for what makes no event of its own: the kernel's receive queues.
    QTimer tick;
    tick.start(2);
    QElapsedTimer elapsed;
    elapsed.start();
    while (!condition()) {
        if (elapsed.elapsed() > 20000)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

std::unique_ptr<SSDP::Ssdp> WireTest::newController(int timeout)
{
    auto controller = std::make_unique<SSDP::Ssdp>(timeout);
    connect(controller.get(), &SSDP::Ssdp::discovered, this,
            [this](int functionCode, int univocalCode, const QHostAddress& address) {
                reports << "%1,%2 at %3"_s.arg(functionCode).arg(univocalCode).arg(address.toString());
            });
    connect(controller.get(), &SSDP::Ssdp::timeoutExpired, this, [this] { ++timeouts; });
    return controller;
}

bool WireTest::search()
{
    const auto before = device->searches.size();
    ssdp->discover();
    return waitUntil([&] { return device->searches.size() > before; });
}

bool WireTest::answerSearch(const QByteArray& location)
{
    const auto before = device->requestsFor("GET ").size();
    device->answer(searchReply(location));
    return waitUntil([&] { return device->requestsFor("GET ").size() > before; });
}

void WireTest::scriptDevice()
{
    device->script("GET /desc.xml ", reply(deviceDescription()));
    device->script("GET /scpd.xml ", reply(serviceDescription()));
    device->script("SUBSCRIBE ", subscriptionReply());
}

bool WireTest::beFound()
{
    const auto before = device->requestsFor("SUBSCRIBE ").size();
    return answerSearch() && waitUntil([&] {
               const auto subscriptions = device->requestsFor("SUBSCRIBE ");
               return subscriptions.size() > before && !subscriptions.last().connection->isOpen();
           });
}

bool WireTest::findDevice()
{
    scriptDevice();
    return search() && beFound();
}

ManagerAccess WireTest::manager() const
{
    return ManagerAccess(*ssdp->findChild<SSDP::SsdpManager*>());
}

bool WireTest::nothingIsListed() const
{
    return manager().requestSockets().isEmpty() && manager().requestSocketServices().isEmpty()
        && manager().responseContentLengths().isEmpty() && manager().responseBuffers().isEmpty();
}

QStringList WireTest::log()
{
    return CapturedLog::all();
}

WireTest::Callback WireTest::callbackOf(const QByteArray& request)
{
    const QByteArray start("CALLBACK: <http://");
    const int begin = static_cast<int>(request.indexOf(start) + start.size());
    const int colon = static_cast<int>(request.indexOf(':', begin));
    const int slash = static_cast<int>(request.indexOf('/', colon));
    const int end = static_cast<int>(request.indexOf('>', slash));
    return {QHostAddress(QString::fromLatin1(request.mid(begin, colon - begin))),
            request.mid(colon + 1, slash - colon - 1).toUShort(), request.mid(slash, end - slash)};
}

WireTest::Callback WireTest::callback() const
{
    return callbackOf(device->requestsFor("SUBSCRIBE ").last().bytes);
}

Connection* WireTest::sendHead(const Callback& to, const QByteArray& contentLength)
{
    Connection* const connection = device->connectTo(to.host, to.port);
    connection->send(eventHead(to.path, contentLength));
    return waitUntil([&] { return connection->wasRead(); }) ? connection : nullptr;
}

bool WireTest::sendEvent(const Callback& to, const QByteArray& body)
{
    Connection* const connection = sendHead(to, QByteArray::number(body.size()));
    if (!connection)
        return false;
    connection->send(body);
    return waitUntil([&] { return !connection->isOpen(); }) && connection->received.isEmpty();
}

bool WireTest::sendLastEvent()
{
    return sendEvent(callback(), eventBody("KO", "77,1"))
        && waitUntil([&] { return reports.contains("77,1 at 10.77.1.1"); });
}

void WireTest::initTestCase()
{
    const QString link = addLink("10.77.0.1/16", "10.77.1.1/16", 3);
    network.run(PrivateNetwork::HostSide, {"ip", "route", "add", "224.0.0.0/4", "dev", link.toStdString()});
}

void WireTest::init()
{
    device = std::make_unique<ScriptedDevice>(network, "10.77.1.1"_s, quint16(8080));
    ssdp = newController(60000);
    reports.clear();
    timeouts = 0;
    CapturedLog::clear();
}

void WireTest::cleanup()
{
    ssdp.reset();
    device.reset();
}

std::unique_ptr<PrivateNetwork> makeNetworkOrExit()
{
    try {
        return std::make_unique<PrivateNetwork>();
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "No private network: %s\n", error.what());
        std::exit(qgetenv("VELMORA_REQUIRE_NETWORK") == "1" ? 1 : 77);
    }
}

} // namespace Tests
} // namespace Velmora

#include "moc_WireTest.cpp"
