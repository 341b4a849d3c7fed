#ifndef VELMORA_TOOLS_SEARCH_H
#define VELMORA_TOOLS_SEARCH_H

#include <ssdp/Ssdp.h>
#include <tools/LocalAddresses.h>

#include <QtCore/QStringList>
#include <QtCore/QTimer>

namespace Velmora {
namespace SSDP {
class SsdpManager;
}
namespace Tools {

/// One discovery. It also checks whether this host could send the search.
class Search : public QObject
{
    Q_OBJECT

public:
    /**
     * @param timeout how long the discovery lasts, in milliseconds
     * @param interface the name or address of the interface to search from; if empty, all interfaces
     */
    Search(int timeout, const QString& interface);

    void start();
    void stop();

    /// Returns the addresses from which the search was sent. Valid after start().
    QList<LocalAddress> addresses() const { return from; }

    /// Returns the reasons why the search was not sent from some addresses. Valid after start().
    QStringList failures() const { return problems; }

    /// Returns the reason why the search that was sent cannot reach another host. Empty if it can.
    QString isolation() const;

Q_SIGNALS:
    void discovered(int functionCode, int univocalCode, const QHostAddress& deviceAddress);
    void finished();

private:
    QList<LocalAddress> chosenAddresses() const;
    void searchFrom(const QHostAddress& address);
    void examine();
    bool examine(const SSDP::SsdpManager* manager, QList<QHostAddress>& bound);
    QStringList membershipFailures(const QList<LocalAddress>& candidates) const;

    QString interface;
    SSDP::Ssdp ssdp; ///< Owns the control points and decodes their key objects.
    QTimer timer;
    QList<LocalAddress> from;
    QStringList problems;
};

} // namespace Tools
} // namespace Velmora

#endif
