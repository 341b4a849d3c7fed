#ifndef VELMORA_SSDP_SSDP_H
#define VELMORA_SSDP_SSDP_H

// Hosts connect by the text of a signature, and these name the records without their namespaces.
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
 * Finds the maker's devices on the local IPv4 network and reports who they are.
 *
 * @code
 * Ssdp ssdp(5000);
 * connect(&ssdp, SIGNAL(discovered(int,int,QHostAddress)), &host, SLOT(add(int,int,QHostAddress)));
 * connect(&ssdp, SIGNAL(timeoutExpired()), &host, SLOT(done()));
 * ssdp.discover();
 * @endcode
 *
 * A discovery searches once on every local IPv4 address, listens to announcements, and lasts for the
 * whole time-out or until stop(). Devices take up to three seconds to answer the search and then have
 * to be read and to send their first event: give them five seconds or more.
 *
 * Everything happens in the event loop of the thread that owns the object. No operation blocks,
 * throws or reports an error; what fails is written to the log (log/Logger.h).
 *
 * A host may call stop() and discover(), run an event loop of its own, or let the object go with
 * deleteLater() from its slots for the two signals. Outside them it may delete the object at any
 * time, also in the middle of a discovery.
 */
class Q_DECL_EXPORT Ssdp : public QObject
{
    Q_OBJECT

public:
    /// The name of the state variable that carries a device's codes.
    static const QString KO;

    /**
     * Makes an idle controller; nothing is bound or sent yet.
     * @param timeout how long a discovery lasts, in milliseconds, as QTimer::start() takes it: with 0
     *        it ends as soon as the event loop runs, with less it only ends with stop()
     * @param parent the owner, if any
     */
    explicit Ssdp(int timeout, QObject* parent = nullptr);

    /// Ends a running discovery, without timeoutExpired().
    ~Ssdp() override;

    /**
     * Starts a discovery: forgets the devices of the last one and searches for them anew. Does
     * nothing while one is running.
     *
     * The first call chooses the local addresses for good: every IPv4 address of the interfaces that
     * are up and not a loopback, or 127.0.0.1 when there is none.
     * @return 3, the state "a discovery is running"
     */
    int discover();

    /**
     * Ends a running discovery, without timeoutExpired(); harmless when there is none. A device that
     * was found before may still report.
     */
    void stop();

Q_SIGNALS:
    /**
     * A device has published its key object (the state variable "KO").
     *
     * Comes at every event that carries the variable: once per subscription as a rule, and a device
     * is subscribed to once per state variable of its service, so expect the same report several
     * times; again whenever the device sends a later event, also when no discovery is running, and
     * once per local address through which the device was found. A device is told by all three
     * values together.
     *
     * @param functionCode, univocalCode the device's codes; 0 where the device's text is no number
     *        in the range of int
     * @param deviceAddress where the device answered from
     */
    void discovered(int functionCode, int univocalCode, const QHostAddress& deviceAddress);

    /**
     * The time-out has run out, whether devices were found or not. Comes once per discovery unless
     * stop() was called; the discovery has ended, and a new one may be started from the slot.
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

    QList<SsdpManager*> managers; ///< One per local address, chosen at the first discovery. Children.
    int state; ///< 0: idle; 3: a discovery is running.
    QTimer* timer; ///< The time-out. Not single-shot: stop() stops it. A child.
    int timeout; ///< In milliseconds.
    /// Not used. It stays because it belongs to the layout that hosts were compiled against.
    QList<QHostAddress> addresses;
};

} // namespace SSDP
} // namespace Velmora

#endif
