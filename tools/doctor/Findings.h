#ifndef VELMORA_DOCTOR_FINDINGS_H
#define VELMORA_DOCTOR_FINDINGS_H

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace Velmora {
namespace Doctor {

/// A mistake that was found. Its identifier never changes.
struct Finding
{
    QByteArray id;
    QString evidence; ///< What was seen, as readable() returns it. It may be empty.
};

/// What an identifier means.
struct FindingText
{
    const char* id;
    const char* meaning; ///< What is wrong.
    const char* change; ///< What to do.
    int section; ///< The section of docs/protocol.md. 0 if there is none.
};

/// Returns the texts of all findings, in the order of the stages.
const QList<FindingText>& findingTexts();

/// Returns the text of @p id. If there is no such finding, the program aborts.
const FindingText& findingText(const QByteArray& id);

/// Returns @p bytes as printable ASCII. Other bytes are shown as \xNN. The text is cut after @p length
/// characters.
QString readable(const QByteArray& bytes, int length = 120);
QString readable(const QString& text, int length = 120);

/// Returns @p milliseconds as text, such as "0.6 s".
QString seconds(int milliseconds);

} // namespace Doctor
} // namespace Velmora

#endif
