#include <ssdp/Ssdp.h>

#include <QtCore/QCoreApplication>
#include <cstdio>

using Velmora::SSDP::Ssdp;

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    Ssdp ssdp(5000);
    QObject::connect(&ssdp, &Ssdp::discovered, [](int function, int univocal, const QHostAddress& address) {
        std::printf("%d %d %s\n", function, univocal, qPrintable(address.toString()));
    });
    QObject::connect(&ssdp, &Ssdp::timeoutExpired, &application, &QCoreApplication::quit);
    ssdp.discover();
    return application.exec();
}
