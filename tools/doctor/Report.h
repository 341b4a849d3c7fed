#ifndef VELMORA_DOCTOR_REPORT_H
#define VELMORA_DOCTOR_REPORT_H

#include <tools/Terminal.h>
#include <tools/doctor/Host.h>
#include <tools/doctor/Observation.h>

#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QString>

#include <functional>

namespace Velmora {
namespace Doctor {

/// A device and what is wrong with it.
struct Diagnosed
{
    enum Result { Found, NotFound, OfOtherMaker };

    DeviceSeen seen;
    Result result = NotFound;
    QList<Finding> findings;
};

/// What a run has found out.
struct Results
{
    QList<Diagnosed> devices; ///< In order of their addresses.
    HostSeen host;
    int omitted = 0; ///< Devices that were too many.
    int duration = 0; ///< In milliseconds.

    int count(Diagnosed::Result result) const;
    /// Whether any device was heard of.
    bool hasAnswers() const;
};

/// How the text is set.
struct Style
{
    int width; ///< How many characters a line may have.
    std::function<QString(const QString&, Tools::Terminal::Colour)> coloured;
};

/// For a person: a line or a short block for each device, and a summary.
QString textOf(const Results& results, const Style& style);

/// For a program.
QJsonObject jsonOf(const Diagnosed& device);
QJsonObject jsonOf(const HostSeen& host);

} // namespace Doctor
} // namespace Velmora

#endif
