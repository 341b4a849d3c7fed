#include <ssdp/KeyObject.h>

#include <QtCore/QStringList>

namespace Velmora {
namespace SSDP {

bool readKeyObject(const QString& value, KeyObject* keyObject)
{
    const QStringList entries = value.split(QLatin1Char(';'));
    for (const QString& entry : entries) {
        const QStringList codes = entry.split(QLatin1Char(','));
        if (codes.size() != 2)
            continue;
        // QString::toInt() of Qt 6.4 skips fewer kinds of spaces than that of Qt 4.8 and 5.15.
        keyObject->functionCode = codes.at(0).trimmed().toInt();
        keyObject->univocalCode = codes.at(1).trimmed().toInt();
        return true;
    }
    return false;
}

} // namespace SSDP
} // namespace Velmora
