#include <tools/doctor/Examination.h>

#include <tools/doctor/Diagnosis.h>

#include <ssdp/HttpFetcher.h>
#include <ssdp/Latin1Text.h>
#include <ssdp/Protocol.h>

#include <QtCore/QUrl>

namespace Velmora {
namespace Doctor {

namespace Protocol = SSDP::Protocol;

namespace {

// More services would mean too many requests for the device, and too long a report.
const int MAX_SERVICES = 3;

const int LONGEST_SECOND_THOUGHT = 500;

/// Returns @p subscription in the form of other control points: with CR LF and a decimal port.
QByteArray standardForm(const QByteArray& subscription, const QHostAddress& address, quint16 port)
{
    QList<QByteArray> lines = subscription.split('\n');
    for (QByteArray& line : lines) {
        if (line.startsWith("HOST: "))
            line = "HOST: " + address.toString().toLatin1() + ':' + QByteArray::number(port);
    }
    return lines.join("\r\n");
}

} // namespace

Examination::Examination(DeviceSeen& device, EventServer& server, int patience, Examiners& examiners,
                         QObject* parent)
    : QObject(parent)
    , device(device)
    , server(server)
    , examiners(examiners)
    , patience(patience)
    , port(0)
    , current(-1)
{
    eventPatience.setSingleShot(true);
    connect(&eventPatience, &QTimer::timeout, this, &Examination::endEvents);
    connect(&server, &EventServer::arrived, this, &Examination::onArrived);
}

void Examination::start()
{
    isUsableLocation(device.location, &address, &port);
    device.isExamined = true;
    fetch(device.location, [this](const DocumentSeen& document) {
        device.description = document;
        describeServices();
    });
}

void Examination::fetch(const QString& url, const std::function<void(const DocumentSeen&)>& then)
{
    if (examiners.fetched.contains(url)) {
        QTimer::singleShot(0, this, [then] { then(DocumentSeen()); });
        return;
    }
    examiners.fetched.insert(url);
    auto* const request = new Request(address, port, SSDP::HttpFetcher::requestMessage(QUrl(url)),
                                      Request::Document, patience, &examiners.memory, &examiners.trace, this);
    connect(request, &Request::finished, this, [request, url, then] {
        request->deleteLater();
        then(request->document(url));
    });
}

void Examination::describeServices()
{
    const Reading reading = readDescription(device.description);
    for (const SSDP::Documents::Service& described : reading.services.mid(0, MAX_SERVICES)) {
        ServiceSeen seen;
        seen.scpdUrl = described.scpdUrl;
        seen.eventUrl = described.eventSubUrl;
        seen.libraryStatus = device.libraryStatus;
        device.services.append(seen);
    }
    examineService(0);
}

void Examination::examineService(int number)
{
    current = number;
    if (current >= device.services.size()) {
        Q_EMIT finished();
        return;
    }
    fetch(Protocol::fullLocation(device.location, service().scpdUrl), [this](const DocumentSeen& document) {
        service().description = document;
        const Reading reading = readServiceDescription(document);
        if (reading.isRead && !reading.variables.isEmpty())
            subscribe();
        else
            examineService(current + 1);
    });
}

void Examination::subscribe()
{
    identifier = QUuid::createUuid();
    service().libraryStatus = device.libraryStatus;
    // The device gets only one more SUBSCRIBE. If it refused the library's, this one has the other form.
    const bool isRefused = device.found == -1 && device.libraryStatus != -1 && device.libraryStatus / 100 != 2;
    service().subscription.isStandard = isRefused;
    QByteArray message = Protocol::subscribeMessage(service().eventUrl, device.location,
                                                    {server.serverAddress(), server.serverPort(), identifier})
                             .toLatin1();
    if (isRefused)
        message = standardForm(message, address, port);

    server.expect(identifier);
    sinceSubscription.start();
    auto* const request = new Request(address, port, message, Request::HeadOnly, patience, &examiners.memory,
                                      &examiners.trace, this);
    connect(request, &Request::finished, this, [this, request] {
        SubscriptionSeen& seen = service().subscription;
        seen.ending = request->ending();
        seen.status = request->status();
        seen.reason = request->reason();
        const auto hasSid = [](const QByteArray& text) {
            return !Protocol::subscriptionIdentifier(SSDP::textUpToZero(text)).isNull();
        };
        seen.hasSid = hasSid(request->firstSegment());
        seen.hasLateSid = !seen.hasSid && hasSid(request->beginning());
        seen.duration = request->duration();
        request->deleteLater();
        const bool isExpected = seen.ending == Ending::Complete && seen.status / 100 == 2 && !seen.isStandard
            && service().events.isEmpty();
        if (isExpected)
            eventPatience.start(patience);
        else
            endEvents();
    });
}

void Examination::onArrived(const QUuid& path, const QHostAddress& sender, const EventSeen& event, int age)
{
    if (identifier.isNull() || sender != device.sender || (path != identifier && server.expects(path)))
        return;
    EventSeen seen = event;
    seen.isForSubscription = path == identifier;
    seen.after = static_cast<int>(sinceSubscription.elapsed()) - age;
    service().events.append(seen);
    if (service().subscription.ending == Ending::NotTried)
        return;
    // After an event with a wrong path, one with the right path may still come.
    if (seen.isForSubscription)
        endEvents();
    else
        eventPatience.start(qMin(patience, LONGEST_SECOND_THOUGHT));
}

void Examination::endEvents()
{
    eventPatience.stop();
    service().events += server.unfinished(identifier, device.sender);
    server.forget(identifier);
    identifier = QUuid();
    examineService(current + 1);
}

} // namespace Doctor
} // namespace Velmora

#include "moc_Examination.cpp"
