#ifndef VELMORA_SSDP_BOUNDEDXML_H
#define VELMORA_SSDP_BOUNDEDXML_H

class QDomDocument;
class QString;

namespace Velmora {
namespace SSDP {

/**
 * Rejects documents that would crash Qt's parser or exhaust memory. These are documents with more than
 * 128 levels of elements, more than 256 attributes on one element, or a DOCTYPE with an internal subset.
 *
 * Deep elements and the internal subset crash Qt 5.15. In Qt 6.4, they take seconds and gigabytes. There,
 * the time for attributes also grows with the square of their number.
 *
 * The function takes one pass and constant memory. For text that is not XML, the result is not defined.
 * @return whether @p text may be parsed
 */
bool isWithinXmlBounds(const QString& text);

/// Parses @p text without namespace processing. Returns false if @p text exceeds a bound or is malformed.
bool parseXml(QDomDocument& document, const QString& text);

} // namespace SSDP
} // namespace Velmora

#endif
