#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>

#include <QtTest/QtTest>

#include <type_traits>

using namespace Velmora;
using namespace Velmora::SSDP;

namespace {

/// Notes its own deletion, which it only sees through a virtual destructor.
class NotedService : public SsdpService
{
public:
    NotedService(int number, QList<int>& deletions)
        : number(number)
        , deletions(deletions)
    {
    }
    ~NotedService() override { deletions.append(number); }

private:
    int number;
    QList<int>& deletions;
};

/// Whether each address is above the one before.
bool ascends(const QList<const void*>& addresses)
{
    for (qsizetype i = 1; i < addresses.size(); ++i) {
        if (addresses.at(i) <= addresses.at(i - 1))
            return false;
    }
    return true;
}

} // namespace

class RecordsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void freshDeviceHasTheNullIdentifier() { QCOMPARE(SsdpDevice().id, QUuid()); }

    void freshDeviceHasANullAddress() { QVERIFY(SsdpDevice().address.isNull()); }

    void freshDeviceHasANullLocation() { QVERIFY(SsdpDevice().location.isNull()); }

    void freshDeviceHasNoServices() { QVERIFY(SsdpDevice().services.isEmpty()); }

    void freshServiceHasNullIdentifiers()
    {
        const SsdpService service;
        QCOMPARE(service.subscriptionId, QUuid());
        QCOMPARE(service.id, QUuid());
    }

    void freshServiceHasNullTexts()
    {
        const SsdpService service;
        QVERIFY(service.serviceType.isNull());
        QVERIFY(service.serviceId.isNull());
        QVERIFY(service.controlUrl.isNull());
        QVERIFY(service.eventSubUrl.isNull());
        QVERIFY(service.scpdUrl.isNull());
    }

    void freshServiceHasNoStateVariables() { QVERIFY(SsdpService().stateVariables.isEmpty()); }

    void deletingADeviceDeletesItsServicesFirstToLastThroughTheirVirtualDestructor()
    {
        QList<int> deletions;
        SsdpDevice* const device = new SsdpDevice;
        for (int number = 1; number <= 3; ++number)
            device->services.append(new NotedService(number, deletions));
        delete device;
        QCOMPARE(deletions, (QList<int>{1, 2, 3}));
    }

    void deletingADeviceWithoutServicesDeletesNothingElse()
    {
        QList<int> deletions;
        SsdpDevice other;
        other.services.append(new NotedService(1, deletions));
        delete new SsdpDevice;
        QCOMPARE(deletions, QList<int>());
        QCOMPARE(other.services.size(), qsizetype(1));
    }

    void deviceMayListANullService()
    {
        SsdpDevice device;
        device.services.append(nullptr);
        QCOMPARE(device.services.size(), qsizetype(1));
    }

    void deletingAServiceLeavesTheOthersOfItsDevice()
    {
        QList<int> deletions;
        SsdpDevice device;
        device.services.append(new NotedService(1, deletions));
        device.services.append(new NotedService(2, deletions));
        delete device.services.takeFirst();
        QCOMPARE(deletions, (QList<int>{1}));
    }

    void deviceHasNoVirtualOperations() { QVERIFY(!std::is_polymorphic_v<SsdpDevice>); }

    void serviceHasAVirtualDestructor() { QVERIFY(std::has_virtual_destructor_v<SsdpService>); }

    void recordsAreNotCopied()
    {
        QVERIFY(!std::is_copy_constructible_v<SsdpDevice>);
        QVERIFY(!std::is_copy_assignable_v<SsdpDevice>);
        QVERIFY(!std::is_copy_constructible_v<SsdpService>);
        QVERIFY(!std::is_copy_assignable_v<SsdpService>);
    }

    void fieldsOfADeviceStandInTheirOrder()
    {
        const SsdpDevice device;
        QVERIFY(ascends({&device.id, &device.address, &device.location, &device.services}));
        QCOMPARE(static_cast<const void*>(&device), static_cast<const void*>(&device.id));
    }

    void fieldsOfAServiceStandInTheirOrder()
    {
        const SsdpService service;
        QVERIFY(ascends({&service, &service.subscriptionId, &service.id, &service.serviceType, &service.serviceId,
                         &service.controlUrl, &service.eventSubUrl, &service.scpdUrl, &service.stateVariables}));
    }
};

QTEST_APPLESS_MAIN(RecordsTest)
#include "tst_records.moc"
