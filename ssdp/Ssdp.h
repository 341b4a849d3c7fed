#ifndef VELMORA_SSDP_SSDP_H
#define VELMORA_SSDP_SSDP_H

// Hosts connect by the text of a signature. In this text, the records have no namespace.
// clazy:excludeall=fully-qualified-moc-types

#include <ssdp/QtVersion.h>
#include <ssdp/SsdpDevice.h>
#include <ssdp/SsdpService.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

class QTimer;

namespace Velmora {
namespace SSDP {

class SsdpManager;

/**
 * Finds the maker's devices on the local IPv4 network and reports their codes and addresses.
 *
 * @code
 * Ssdp ssdp(5000);
 * connect(&ssdp, SIGNAL(discovered(int,int,QHostAddress)), &host, SLOT(add(int,int,QHostAddress)));
 * connect(&ssdp, SIGNAL(timeoutExpired()), &host, SLOT(done()));
 * ssdp.discover();
 * @endcode
 *
 * A discovery sends one search from every local IPv4 address and receives announcements. It ends at the
 * time-out or with stop(), even if devices were found earlier.
 *
 * All work happens in the event loop of the thread that owns the object. No function blocks or throws.
 * Failures are only written to the log (log/Logger.h).
 *
 * @note Use a time-out of five seconds or more. Devices take up to three seconds to answer the search.
 * Then the library reads their descriptions and waits for their first event.
 *
 * @note Slots of discovered() and timeoutExpired() may call stop() and discover(). They may also run a
 * nested event loop.
 *
 * @warning A slot of these two signals must not delete the object; it may call deleteLater(). All other
 * code may delete the object at any time, even during a discovery.
 *
 * @warning Use the object only in the thread that owns it.
 */
class Q_DECL_EXPORT Ssdp : public QObject
{
    Q_OBJECT

public:
    /// The name of the state variable that contains the codes of a device.
    static const QString KO;

    /**
     * Constructs an idle controller. No socket is opened and nothing is sent.
     * @param timeout how long a discovery lasts, in milliseconds. With 0, it ends as soon as the event
     *        loop runs. With a negative value, it ends only with stop()
     * @param parent the owner, or null
     */
    explicit Ssdp(int timeout, QObject* parent = nullptr);

    /// Closes every socket and deletes every record. Does not emit timeoutExpired().
    ~Ssdp() override;

    /**
     * Starts a discovery and forgets the devices of the previous one. If a discovery is already running,
     * does nothing.
     *
     * @note The first call chooses the local addresses for the lifetime of the object. It chooses every
     * IPv4 address of the interfaces that are up and are not loopback interfaces. If there is none, it
     * chooses 127.0.0.1. To use an interface that comes up later, create a new object.
     *
     * @return 3, the state "a discovery is running"
     */
    int discover();

    /**
     * Ends a running discovery. Does not emit timeoutExpired(). If no discovery is running, does nothing.
     *
     * @note discovered() may still be emitted after this call, for devices that have answered the search.
     */
    void stop();

Q_SIGNALS:
    /**
     * A device has sent its key object (the state variable "KO") in an event.
     *
     * Emitted for every event that contains this variable.
     *
     * @note Expect the same report several times. The library subscribes once for each state variable
     * of the service, and a device sends a first event for each subscription. If the device was found
     * from several local addresses, this happens for each of them.
     *
     * @note The signal is also emitted when no discovery is running, because a device may send events at
     * any time.
     *
     * @note Only the three values together identify a device.
     *
     * @param functionCode, univocalCode the codes of the device. If a code is not a number in the range of
     *        int, it is reported as 0
     * @param deviceAddress the sender of the device's first answer or announcement
     */
    void discovered(int functionCode, int univocalCode, const QHostAddress& deviceAddress);

    /**
     * The discovery has reached its time-out and has ended. Devices may or may not have been found.
     *
     * Emitted once per discovery, unless stop() or the destructor ended it. A slot may start the next
     * discovery.
     */
    void timeoutExpired();

private Q_SLOTS:
    void onTimerTick();
    void valueChanged(const SsdpDevice* device, const SsdpService* service, const QString& valueName);

private:
    Q_DISABLE_COPY(Ssdp)

    QList<QHostAddress> findBindableAddresses() const;
    void createManagers();
    void stopManagers();
    void parseKoValue(const SsdpDevice* device, const SsdpService* service);
    void fireDiscovered(int functionCode, int univocalCode, const QHostAddress& deviceAddress);

    QList<SsdpManager*> managers; ///< One per local address, created by the first discover(). Children.
    int state; ///< 0: idle; 3: a discovery is running.
    QTimer* timer; ///< The time-out. Not single-shot, so onTimerTick() stops it. A child.
    int timeout; ///< In milliseconds.
    /// Not used. It must stay, because hosts were compiled against a layout with this member.
    QList<QHostAddress> addresses;
};

} // namespace SSDP
} // namespace Velmora

#endif
