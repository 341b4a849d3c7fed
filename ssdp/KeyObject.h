#ifndef VELMORA_SSDP_KEYOBJECT_H
#define VELMORA_SSDP_KEYOBJECT_H

class QString;

namespace Velmora {
namespace SSDP {

/// The two codes that a device sends in its state variable "KO".
struct KeyObject
{
    int functionCode;
    int univocalCode;
};

/**
 * Reads the value of "KO". Its entries are separated by ";". An entry is two decimal integers, separated
 * by ",". Only the first entry with exactly two parts is used. If a part is not an int, it is read as 0.
 * @return false if no entry has exactly two parts; *keyObject is then unchanged
 */
bool readKeyObject(const QString& value, KeyObject* keyObject);

} // namespace SSDP
} // namespace Velmora

#endif
