#ifndef VELMORA_DOCTOR_REQUEST_H
#define VELMORA_DOCTOR_REQUEST_H

#include <tools/doctor/Connection.h>
#include <tools/doctor/Observation.h>

#include <ssdp/HttpReader.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>

namespace Velmora {
namespace Doctor {

/// Emits message() for every message, with its direction, its peer and its bytes.
class Trace : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

Q_SIGNALS:
    void message(bool sent, const QHostAddress& peer, quint16 port, const QByteArray& bytes);
};

/// One HTTP request on a new connection, and its result.
class Request : public QObject
{
    Q_OBJECT

public:
    enum Kind {
        Document, ///< Ends a short time after the body, to see whether more bytes follow.
        HeadOnly ///< Ends after the head of the reply.
    };

    /**
     * Sends @p message to @p address and @p port.
     * @param patience how long the request may take, in milliseconds
     * @param memory how many bytes all further bodies may have; the request subtracts the size of its body
     */
    Request(const QHostAddress& address, quint16 port, const QByteArray& message, Kind kind, int patience,
            qint64* memory, Trace* trace, QObject* parent);

    // The result. Valid after finished().
    Ending ending() const { return end; }
    int status() const { return reader.statusCode(); }
    QByteArray reason() const { return reader.reason(); }
    const QByteArray& firstSegment() const { return first; }
    /// Returns the beginning of the received bytes, from all segments together.
    const QByteArray& beginning() const { return begin; }
    int duration() const { return total; }
    DocumentSeen document(const QString& url);

Q_SIGNALS:
    void finished();

private:
    Q_DISABLE_COPY(Request)

    void onReceived(const QByteArray& bytes);
    void onEnded(int error);
    void finish(Ending how);

    Kind kind;
    QByteArray message;
    qint64* memory;
    Trace* trace;
    Connection* connection;
    QTimer patience;
    QTimer linger;
    QElapsedTimer clock;
    SSDP::HttpReader reader;
    QByteArray first;
    QByteArray begin;
    qint64 excess;
    int firstAfter;
    int lastAfter;
    int total;
    bool isConnected;
    bool isFinished;
    Ending end;
};

} // namespace Doctor
} // namespace Velmora

#endif
