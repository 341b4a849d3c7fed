#ifndef VELMORA_SSDP_BOUNDEDXML_H
#define VELMORA_SSDP_BOUNDEDXML_H

class QDomDocument;
class QString;

namespace Velmora {
namespace SSDP {

/**
 * Whether @p text keeps clear of what ends or swells the process inside Qt's parsers: elements nested
 * deeper than 128 levels, more than 256 attributes on one element, a DOCTYPE with an internal subset.
 * Takes one pass and constant memory. Text that is no XML may get either answer.
 */
bool isWithinXmlBounds(const QString& text);

/// Parses @p text without namespace processing, unless it is out of bounds. Returns whether it parsed.
bool parseXml(QDomDocument& document, const QString& text);

} // namespace SSDP
} // namespace Velmora

#endif
