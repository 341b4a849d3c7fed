#ifndef VELMORA_DOCTOR_FINDINGS_H
#define VELMORA_DOCTOR_FINDINGS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace Velmora {
namespace Doctor {

/// A thing that was found, named by its stable identifier.
struct Finding
{
    QByteArray id;
    QString evidence; ///< What was read, readable(); may be empty.
};

/// What an identifier means.
struct FindingText
{
    const char* id;
    const char* meaning; ///< What is wrong.
    const char* change; ///< One sentence on what to do.
    int section; ///< Of docs/protocol.md; 0 for none.
};

/// Every finding that there is, in the order of the stages.
const QList<FindingText>& findingTexts();

/// The text of @p id, which has to be one of them.
const FindingText& findingText(const QByteArray& id);

/// @p bytes in printable ASCII, everything else as \xNN; cut after @p length characters.
QString readable(const QByteArray& bytes, int length = 120);
QString readable(const QString& text, int length = 120);

/// @p milliseconds as in "0.6 s".
QString seconds(int milliseconds);

} // namespace Doctor
} // namespace Velmora

#endif
