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
 * The first entry of exactly two parts counts; a part that is no int counts as 0.
 * @return false, and *keyObject unchanged, if there is no such entry
 */
bool readKeyObject(const QString& value, KeyObject* keyObject);

} // namespace SSDP
} // namespace Velmora

#endif
