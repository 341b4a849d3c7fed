// The value of a key object, against a reader of its own.

#include <tests/fuzz/Harness.h>

#include <ssdp/Ssdp.h>

#include <string>
#include <utility>
#include <vector>

using namespace Velmora;
using namespace Velmora::SSDP;

namespace {

std::vector<std::string> fields(const std::string& text, char separator)
{
    std::vector<std::string> result(1);
    for (const char character : text) {
        if (character == separator)
            result.emplace_back();
        else
            result.back() += character;
    }
    return result;
}

int number(const std::string& text)
{
    return QString::fromStdString(text).trimmed().toInt();
}

std::vector<std::pair<int, int>> expectedReports(const std::string& value)
{
    for (const std::string& entry : fields(value, ';')) {
        const std::vector<std::string> codes = fields(entry, ',');
        if (codes.size() == 2)
            return {{number(codes[0]), number(codes[1])}};
    }
    return {};
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    SsdpDevice device;
    SsdpService service;
    device.address = QHostAddress(QHostAddress::LocalHost);
    const QString value = QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<int>(size));
    service.stateVariables.insert(Ssdp::KO, value);

    Ssdp ssdp(0);
    std::vector<std::pair<int, int>> reports;
    QObject::connect(&ssdp, &Ssdp::discovered, &ssdp, [&reports](int functionCode, int univocalCode) {
        reports.emplace_back(functionCode, univocalCode);
    });
    QMetaObject::invokeMethod(&ssdp, "valueChanged", Qt::DirectConnection, Q_ARG(const SsdpDevice*, &device),
                              Q_ARG(const SsdpService*, &service), Q_ARG(QString, Ssdp::KO));
    Fuzz::require(reports == expectedReports(value.toStdString()), "the first entry of two codes is reported");
    return 0;
}
