#include <tests/support/WireTest.h>

#include <tests/support/Literals.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace Velmora {
namespace Tests {

using Simulator::PrivateNetwork;

static PrivateNetwork* ownNetwork = nullptr;

WireTest::WireTest()
    : WireTest(*ownNetwork)
{
}

WireTest::WireTest(PrivateNetwork& network)
    : network(network)
{
}

QString WireTest::addLink(const char* hostAddress, const char* firstDeviceAddress, int deviceAddresses)
{
    network.addLink(hostAddress, firstDeviceAddress, deviceAddresses);
    return "host%1"_s.arg(links++);
}

bool WireTest::waitUntil(const std::function<bool()>& condition)
{
    // The kernel's receive queues cause no event when they change.
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

void WireTest::makeController(int timeout)
{
    ssdp = newController(timeout);
    reports.clear();
    timeouts = 0;
    CapturedLog::clear();
}

void WireTest::makeDevice(const char* address, quint16 port)
{
    // Two devices cannot listen on the same address and port. So the old one is deleted first.
    device.reset();
    device = std::make_unique<ScriptedDevice>(network, QLatin1String(address), port);
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

Connection* WireTest::requestFor(const QByteArray& start) const
{
    const bool came = waitUntil([&] { return device->requestsFor(start).size() == 1; });
    return came ? device->requestsFor(start).at(0).connection.data() : nullptr;
}

bool WireTest::send(Connection* connection, const QByteArray& bytes)
{
    connection->send(bytes);
    return waitUntil([&] { return connection->wasRead(); });
}

bool WireTest::nothingIsListed() const
{
    return manager().requestSockets().isEmpty() && manager().requestSocketServices().isEmpty()
        && manager().responseContentLengths().isEmpty() && manager().responseBuffers().isEmpty();
}

WireTest::Callback WireTest::callbackOf(const QByteArray& request)
{
    static const QRegularExpression field("CALLBACK: <http://(.*):(.*)(/.*)>");
    const auto match = field.match(QString::fromLatin1(request));
    return {QHostAddress(match.captured(1)), match.captured(2).toUShort(), match.captured(3).toLatin1()};
}

Connection* WireTest::sendHead(const Callback& to, const QByteArray& contentLength)
{
    Connection* const connection = connectTo(to);
    return send(connection, eventHead(to.path, contentLength)) ? connection : nullptr;
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
        && waitUntil([&] { return reports.contains(LAST_REPORT); });
}

QStringList WireTest::allReports()
{
    return sendLastEvent() ? reports : reports + QStringList{"the last event was not reported"};
}

void WireTest::initTestCase()
{
    const QString link = addLink("10.77.0.1/16", "10.77.1.1/16", 3);
    network.run(PrivateNetwork::HostSide, {"ip", "route", "add", "224.0.0.0/4", "dev", link.toStdString()});
}

void WireTest::init()
{
    makeDevice();
    makeController();
}

void WireTest::cleanup()
{
    ssdp.reset();
    device.reset();
}

std::unique_ptr<PrivateNetwork> makeNetworkOrExit()
{
    try {
        auto network = std::make_unique<PrivateNetwork>();
        ownNetwork = network.get();
        return network;
    } catch (const std::runtime_error& error) {
        std::fprintf(stderr, "No private network: %s\n", error.what());
        std::exit(qgetenv("VELMORA_REQUIRE_NETWORK") == "1" ? 1 : 77);
    }
}

} // namespace Tests
} // namespace Velmora

#include "moc_WireTest.cpp"
