#include <ssdp/Ssdp.h>

#include <log/Logger.h>
#include <ssdp/KeyObject.h>
#include <ssdp/SsdpManager.h>

#include <QtCore/QTimer>
#include <QtNetwork/QNetworkInterface>

#include <utility>

namespace Velmora {
namespace SSDP {

using Log::Logger;

namespace {

enum State { Idle = 0, Discovering = 3 };

} // namespace

const QString Ssdp::KO(QLatin1String("KO"));

Ssdp::Ssdp(int timeout, QObject* parent)
    : QObject(parent)
    , state(Idle)
    , timer(new QTimer(this))
    , timeout(timeout)
{
#if QT_VERSION >= QT_VERSION_CHECK(5, 0, 0)
    // Since Qt 5, the default timer may end 5 % early (Qt::CoarseTimer). The last devices would be lost.
    timer->setTimerType(Qt::PreciseTimer);
#endif
    connect(timer, SIGNAL(timeout()), this, SLOT(onTimerTick()));
}

Ssdp::~Ssdp() = default;

int Ssdp::discover()
{
    if (state != Idle)
        return state;

    timer->start(timeout);
    state = Discovering;
    if (managers.isEmpty())
        createManagers();
    for (SsdpManager* const manager : std::as_const(managers)) {
        manager->clearDevices();
        manager->initialize();
        manager->discover();
    }
    return state;
}

void Ssdp::stop()
{
    state = Idle;
    if (timer->isActive())
        timer->stop();
    stopManagers();
}

void Ssdp::onTimerTick()
{
    stop();
    Logger(Logger::Information) << "SSDP timeout expired not found";
    Q_EMIT timeoutExpired();
}

QList<QHostAddress> Ssdp::findBindableAddresses() const
{
    QList<QHostAddress> result;
    const QList<QNetworkInterface> interfaces = QNetworkInterface::allInterfaces();
    for (auto it = interfaces.constEnd(); it != interfaces.constBegin();) {
        --it;
        const QNetworkInterface::InterfaceFlags flags = it->flags();
        if (!(flags & QNetworkInterface::IsUp) || (flags & QNetworkInterface::IsLoopBack))
            continue;
        const QList<QNetworkAddressEntry> entries = it->addressEntries();
        for (const QNetworkAddressEntry& entry : entries) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
                result.append(entry.ip());
        }
    }
    if (result.isEmpty())
        result.append(QHostAddress(QHostAddress::LocalHost));
    return result;
}

void Ssdp::createManagers()
{
    const QList<QHostAddress> bindable = findBindableAddresses();
    for (const QHostAddress& address : bindable) {
        SsdpManager* const manager = new SsdpManager(address, this);
        connect(manager, SIGNAL(valueChanged(const SsdpDevice*, const SsdpService*, QString)), this,
                SLOT(valueChanged(const SsdpDevice*, const SsdpService*, QString)));
        managers.append(manager);
    }
}

void Ssdp::stopManagers()
{
    for (SsdpManager* const manager : std::as_const(managers))
        manager->stop();
}

void Ssdp::valueChanged(const SsdpDevice* device, const SsdpService* service, const QString& valueName)
{
    if (!service || !device || valueName != KO)
        return;
    parseKoValue(device, service);
}

void Ssdp::parseKoValue(const SsdpDevice* device, const SsdpService* service)
{
    if (!service || !device)
        return;

    KeyObject keyObject;
    const QHostAddress address = device->address;
    if (!address.isNull() && readKeyObject(service->stateVariables.value(KO), &keyObject))
        fireDiscovered(keyObject.functionCode, keyObject.univocalCode, address);
}

void Ssdp::fireDiscovered(int functionCode, int univocalCode, const QHostAddress& deviceAddress)
{
    const QString text(QLatin1String("Device with FC:%1 and UC:%2 found at %3"));
    Logger(Logger::Information) << text.arg(functionCode).arg(univocalCode).arg(deviceAddress.toString());
    Q_EMIT discovered(functionCode, univocalCode, deviceAddress);
}

} // namespace SSDP
} // namespace Velmora

#include "moc_Ssdp.cpp"
