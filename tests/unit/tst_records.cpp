#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpManager.h>
#include <ssdp/SsdpService.h>
#include <tests/support/Literals.h>
#include <tests/support/ManagerAccess.h>
#include <tests/support/Table.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <type_traits>

using namespace Velmora::Tests;
using namespace Velmora::SSDP;

namespace {

/// Notes its deletion. This works only if the destructor of the record is virtual.
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

/// Returns whether each address is higher than the one before.
bool ascends(const QList<const void*>& addresses)
{
    return std::adjacent_find(addresses.cbegin(), addresses.cend(), std::greater_equal<>()) == addresses.cend();
}

} // namespace

/// Devices and their services, and the control point that owns them.
class RecordsTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<SsdpManager> manager;
    QList<int> deletions;

    SsdpDevice* addDevice(const QList<SsdpService*>& services)
    {
        return ManagerAccess(*manager).addRecord(services);
    }

    SsdpService* noted(int number) { return new NotedService(number, deletions); }

private Q_SLOTS:
    void init()
    {
        manager = std::make_unique<SsdpManager>(QHostAddress(QHostAddress::LocalHost));
        deletions.clear();
    }

    void newRecordsAreNull()
    {
        const SsdpDevice device;
        QVERIFY(device.id.isNull() && device.address.isNull() && device.location.isNull());
        QVERIFY(device.services.isEmpty());
        const SsdpService service;
        QVERIFY(service.subscriptionId.isNull() && service.id.isNull());
        QVERIFY(service.serviceType.isNull() && service.serviceId.isNull() && service.controlUrl.isNull());
        QVERIFY(service.eventSubUrl.isNull() && service.scpdUrl.isNull() && service.stateVariables.isEmpty());
    }

    void deviceDeletesItsServicesFirstToLast()
    {
        SsdpDevice other;
        other.services.append(noted(4));
        delete new SsdpDevice;
        SsdpDevice* const device = new SsdpDevice;
        device->services = {noted(1), noted(2), noted(3), nullptr};
        delete device->services.takeAt(1);
        QCOMPARE(deletions, QList<int>{2});
        delete device;
        QCOMPARE(deletions, (QList<int>{2, 1, 3}));
    }

    void interfaceHasOneVirtualDestructorAndNoCopies()
    {
        QVERIFY(!std::is_polymorphic_v<SsdpDevice>);
        QVERIFY(std::has_virtual_destructor_v<SsdpService>);
        QVERIFY(!std::is_copy_constructible_v<SsdpDevice>);
        QVERIFY(!std::is_copy_assignable_v<SsdpDevice>);
        QVERIFY(!std::is_copy_constructible_v<SsdpService>);
        QVERIFY(!std::is_copy_assignable_v<SsdpService>);
    }

    void fieldsAreInTheirOrder()
    {
        const SsdpDevice device;
        QVERIFY(ascends({&device.id, &device.address, &device.location, &device.services}));
        QCOMPARE(static_cast<const void*>(&device), static_cast<const void*>(&device.id));

        const SsdpService service;
        QVERIFY(ascends({&service, &service.subscriptionId, &service.id, &service.serviceType, &service.serviceId,
                         &service.controlUrl, &service.eventSubUrl, &service.scpdUrl, &service.stateVariables}));
    }

    void controlPointDeletesItsDevicesInListOrder()
    {
        addDevice({noted(1), noted(2)});
        addDevice({});
        addDevice({noted(3)});
        manager->clearDevices();
        QVERIFY(ManagerAccess(*manager).devices().isEmpty());
        manager->clearDevices();
        QCOMPARE(deletions, (QList<int>{1, 2, 3}));
        addDevice({noted(4), noted(5)});
        addDevice({});
        addDevice({noted(6)});
        manager.reset();
        QCOMPARE(deletions, (QList<int>{1, 2, 3, 4, 5, 6}));
    }

    void serviceIsFoundInItsDevice()
    {
        SsdpService* const services[] = {new SsdpService, new SsdpService, new SsdpService, new SsdpService};
        addDevice({});
        const SsdpDevice* const second = addDevice({services[0]});
        const SsdpDevice* const third = addDevice({services[1], services[2], services[3]});
        QCOMPARE(manager->getDeviceForService(services[0]), second);
        for (int i = 1; i <= 3; ++i)
            QCOMPARE(manager->getDeviceForService(services[i]), third);
    }

    void firstDeviceThatListsAServiceHasIt()
    {
        SsdpService* const shared = new SsdpService;
        const SsdpDevice* const first = addDevice({shared});
        SsdpDevice* const second = addDevice({shared});
        QCOMPARE(manager->getDeviceForService(shared), first);
        second->services.clear();
    }

    void recordsAreFoundHoweverTheyCameIntoTheList()
    {
        const QHostAddress address("10.77.1.1");
        SsdpService* const service = new SsdpService;
        service->id = QUuid::createUuid();
        addDevice({})->location = "none:/a";
        addDevice({service});
        ManagerAccess access(*manager);
        access.addSsdpDevice(address, "none:/a");
        QCOMPARE(access.devices().size(), 2);
        access.addSsdpDevice(address, "none:/b");
        access.addSsdpDevice(address, "none:/b");
        QCOMPARE(access.devices().size(), 3);
        QCOMPARE(access.getServiceFromHeader("NOTIFY /" + service->id.toString() + " HTTP/1.1"), service);
        QCOMPARE(access.getServiceFromHeader("NOTIFY /" + QUuid::createUuid().toString() + " HTTP/1.1"), nullptr);
    }

    void unknownServiceHasNoDevice()
    {
        SsdpService service;
        QCOMPARE(manager->getDeviceForService(&service), nullptr);
        QCOMPARE(manager->getDeviceForService(nullptr), nullptr);
        SsdpService* const listed = new SsdpService;
        listed->id = QUuid::createUuid();
        addDevice({});
        addDevice({listed});
        // Only the pointer is compared.
        service.id = listed->id;
        QCOMPARE(manager->getDeviceForService(&service), nullptr);
        QCOMPARE(manager->getDeviceForService(nullptr), nullptr);
    }
};

QTEST_GUILESS_MAIN(RecordsTest)
#include "tst_records.moc"
