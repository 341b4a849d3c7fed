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

/// The results of a run.
struct Results
{
    QList<Diagnosed> devices; ///< In the order of their addresses.
    HostSeen host;
    int omitted = 0; ///< The number of messages that were ignored because there are too many devices.
    int duration = 0; ///< In milliseconds.

    int count(Diagnosed::Result result) const;
    /// Returns whether a message of at least one device was received.
    bool hasAnswers() const;
};

/// The format of the text.
struct Style
{
    int width; ///< The maximum number of characters in a line.
    std::function<QString(const QString&, Tools::Terminal::Colour)> coloured;
};

/// Returns the results for a person: a line or a short block for each device, and a summary.
QString textOf(const Results& results, const Style& style);

/// Returns the results for a program.
QJsonObject jsonOf(const Diagnosed& device);
QJsonObject jsonOf(const HostSeen& host);

} // namespace Doctor
} // namespace Velmora

#endif
