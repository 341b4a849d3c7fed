#ifndef VELMORA_SSDP_BOUNDEDXML_H
#define VELMORA_SSDP_BOUNDEDXML_H

class QDomDocument;
class QString;

namespace Velmora {
namespace SSDP {

/**
 * Rejects documents that would crash Qt's parser or exhaust memory. These have elements nested deeper
 * than 128 levels, more than 256 attributes on one element, or a DOCTYPE with an internal subset.
 *
 * Deep elements and the DTD crash Qt 5.15. They take seconds and gigabytes in Qt 6.4, where the time for
 * attributes also grows with the square of their number.
 *
 * Takes one pass and constant memory. The answer for text that is not XML is not defined.
 * @return whether @p text may be parsed
 */
bool isWithinXmlBounds(const QString& text);

/// Parses @p text without namespace processing. Returns false if it is out of bounds or malformed.
bool parseXml(QDomDocument& document, const QString& text);

} // namespace SSDP
} // namespace Velmora

#endif
