#ifndef VELMORA_SSDP_KEYOBJECT_H
#define VELMORA_SSDP_KEYOBJECT_H

class QString;

namespace Velmora {
namespace SSDP {

/// The identity that a device publishes in its state variable "KO".
struct KeyObject
{
    int functionCode;
    int univocalCode;
};

/**
 * Reads the value of "KO": entries separated by ";", each of two decimal integers separated by ",".
 * Only the first entry with exactly two parts is used. A part that is not an int is read as 0.
 * @return false if there is no such entry; *keyObject is then unchanged
 */
bool readKeyObject(const QString& value, KeyObject* keyObject);

} // namespace SSDP
} // namespace Velmora

#endif
