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

/// One discovery, with a look at whether this host was able to make it.
class Search : public QObject
{
    Q_OBJECT

public:
    /**
     * @param timeout how long it lasts, in milliseconds
     * @param interface the name or the address of the interface to search from; empty for all
     */
    Search(int timeout, const QString& interface);

    void start();
    void stop();

    /// Where the search went out from.
    QList<LocalAddress> addresses() const { return from; }

    /// What was wrong with the other addresses, in plain words.
    QStringList failures() const { return problems; }

    /// Why it cannot have reached another host, though it went out: plain words, or empty when it can.
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
    SSDP::Ssdp ssdp; ///< Owns the control points, and decodes what they report.
    QTimer timer;
    QList<LocalAddress> from;
    QStringList problems;
};

} // namespace Tools
} // namespace Velmora

#endif
