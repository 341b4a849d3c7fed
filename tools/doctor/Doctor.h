#ifndef VELMORA_DOCTOR_DOCTOR_H
#define VELMORA_DOCTOR_DOCTOR_H

#include <tools/doctor/Discovery.h>
#include <tools/doctor/Examination.h>
#include <tools/doctor/Host.h>

#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtNetwork/QUdpSocket>

#include <memory>
#include <vector>

namespace Velmora {
namespace Doctor {

/**
 * One run of the program. It runs a discovery of the library. It also sends one search to the group, and one to
 * each named address that was not heard.
 *
 * A device is examined when the library has reported it, or when the time-out of the host is over. So the
 * examination does not change the discovery.
 */
class Doctor : public QObject
{
    Q_OBJECT

public:
    struct Settings
    {
        int timeout = 5000; ///< The time-out of the host, in milliseconds.
        QList<QHostAddress> named; ///< Only devices with these addresses. If empty, all devices.
    };

    explicit Doctor(const Settings& settings, QObject* parent = nullptr);
    ~Doctor() override;

    void start();
    /// Ends the run. The results are those that are known by then.
    void stop();

    const std::vector<std::unique_ptr<DeviceSeen>>& devices() const { return seen; }
    const HostSeen& host() const { return hostSeen; }
    /// Returns how many messages were ignored because there are too many devices.
    int omitted() const { return leftOut; }
    int foundSoFar() const;
    /// Returns the rest of the time of the discovery, in milliseconds. 0 if it is over.
    int timeLeft() const;
    /// Returns how many devices are being examined or wait for their examination.
    int examinations() const { return static_cast<int>(running.size() + waiting.size()); }
    int elapsed() const { return static_cast<int>(clock.elapsed()); }
    Trace& trace() { return examiners.trace; }

Q_SIGNALS:
    void finished();

private:
    Q_DISABLE_COPY(Doctor)

    DeviceSeen* deviceOf(const QString& location, const QHostAddress& sender, const QHostAddress& local);
    bool isWanted(const QString& location, const QHostAddress& sender) const;
    void onReceived(const Datagram& datagram);
    void onFound(const QString& location, const QHostAddress& sender, int functionCode, int univocalCode);
    void onSubscribed(const QHostAddress& device, quint16 port, const QByteArray& reply);
    void openSearchSockets();
    void searchAsOthersDo();
    void searchNamed();
    QUdpSocket* openSearchSocket(const QHostAddress& address, bool isForOne);
    void onOwnAnswer(QUdpSocket* socket, const QHostAddress& local, bool isForOne);
    void onTimeout();
    void request(DeviceSeen& device);
    void startWaiting();
    void onDiscoveryFinished();
    void finishIfDone();

    Settings settings;
    int duration; ///< The duration of the discovery.
    Examiners examiners;
    Discovery discovery;
    HostSeen hostSeen;
    QElapsedTimer clock;
    QTimer standardTimer;
    QTimer namedTimer;
    QTimer timeoutTimer;
    int standardSent;
    int namedSent;
    std::vector<std::unique_ptr<DeviceSeen>> seen;
    QHash<QString, DeviceSeen*> byKey;
    QHash<quint32, EventServer*> servers; ///< By local address.
    QHash<quint32, QUdpSocket*> searchSockets; ///< By local address.
    QSet<quint32> unicastTargets;
    QList<DeviceSeen*> waiting;
    QList<Examination*> running;
    QSet<DeviceSeen*> requested;
    int leftOut;
    bool isTimeOver;
    bool isDiscoveryOver;
    bool isFinished;
};

} // namespace Doctor
} // namespace Velmora

#endif
