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
        // Trimmed, since Qt 6 takes fewer characters for spaces in a number than the others.
        keyObject->functionCode = codes.at(0).trimmed().toInt();
        keyObject->univocalCode = codes.at(1).trimmed().toInt();
        return true;
    }
    return false;
}

} // namespace SSDP
} // namespace Velmora
