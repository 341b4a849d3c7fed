#include <bench/Measurement.h>

#include <ssdp/Ssdp.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QLoggingCategory>

#include <poll.h>

using Velmora::Bench::Measurement;
using Velmora::SSDP::Ssdp;

int main(int argc, char** argv)
{
    const Velmora::Bench::Options options(argc, argv);
    QCoreApplication application(argc, argv);
    // The other hosts write no log, either.
    QLoggingCategory::setFilterRules(QStringLiteral("velmora.ssdp.info=false"));

    Measurement measurement(options.devices);
    measurement.begin();
    Ssdp ssdp(options.timeout);
    QObject::connect(&ssdp, &Ssdp::timeoutExpired, &application, &QCoreApplication::quit);
    QObject::connect(&ssdp, &Ssdp::discovered, &application,
                     [&](int functionCode, int univocalCode, const QHostAddress& address) {
                         const QByteArray codes =
                             QByteArray::number(functionCode) + ',' + QByteArray::number(univocalCode);
                         if (measurement.add(codes.toStdString(), address.toString().toStdString()))
                             QCoreApplication::quit();
                     });
    ssdp.discover();
    QCoreApplication::exec();
    measurement.end();

    ssdp.stop();
    measurement.beginAgain();
    ssdp.discover();
    pollfd descriptor = {measurement.descriptor(), POLLIN, 0};
    while (!measurement.takeSearch() && poll(&descriptor, 1, options.timeout) > 0) { }
    measurement.print("ssdp", qVersion());
    return 0;
}
