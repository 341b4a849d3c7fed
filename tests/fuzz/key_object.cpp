// The value of a key object.

#include <tests/fuzz/Harness.h>

#include <ssdp/Ssdp.h>

#include <QtCore/QRegularExpression>

using namespace Velmora::Fuzz;
using namespace Velmora::SSDP;

static QList<int> expectedCodes(const QString& value)
{
    static const QRegularExpression entry("(?:^|;)([^,;]*),([^,;]*)(?=;|\\z)");
    const QRegularExpressionMatch match = entry.match(value);
    if (!match.hasMatch())
        return {};
    return {match.captured(1).trimmed().toInt(), match.captured(2).trimmed().toInt()};
}

void Velmora::Fuzz::test(QByteArray& input)
{
    SsdpDevice device;
    SsdpService service;
    device.address = QHostAddress(QHostAddress::LocalHost);
    const QString value = QString::fromUtf8(input);
    service.stateVariables.insert(Ssdp::KO, value);

    Ssdp ssdp(0);
    QList<int> reported;
    QObject::connect(&ssdp, &Ssdp::discovered, &ssdp, [&reported](int functionCode, int univocalCode) {
        reported << functionCode << univocalCode;
    });
    QMetaObject::invokeMethod(&ssdp, "valueChanged", Qt::DirectConnection, Q_ARG(const SsdpDevice*, &device),
                              Q_ARG(const SsdpService*, &service), Q_ARG(QString, Ssdp::KO));
    require(reported == expectedCodes(value), "the first entry of two codes is reported");
}
