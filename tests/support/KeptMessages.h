#ifndef VELMORA_TESTS_SUPPORT_KEPTMESSAGES_H
#define VELMORA_TESTS_SUPPORT_KEPTMESSAGES_H

#include <QtCore/QStringList>

#include <mutex>

namespace Velmora {
namespace Tests {

/// A message that Qt prints.
struct KeptMessage
{
    QtMsgType type;
    QByteArray category;
    QString text;
};

/// Keeps the messages that Qt prints in any thread while this object exists. Only one may exist at a time.
class KeptMessages
{
public:
    KeptMessages()
        : before(qInstallMessageHandler(keep))
    {
        kept.clear();
    }
    ~KeptMessages() { qInstallMessageHandler(before); }
    Q_DISABLE_COPY(KeptMessages)

    QList<KeptMessage> messages() const
    {
        const std::lock_guard<std::mutex> lock(mutex);
        return kept;
    }

    QStringList texts() const
    {
        QStringList result;
        for (const KeptMessage& message : messages())
            result << message.text;
        return result;
    }

private:
    static void keep(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        const std::lock_guard<std::mutex> lock(mutex);
        kept.append({type, context.category, text});
    }

    static inline std::mutex mutex;
    static inline QList<KeptMessage> kept;
    QtMessageHandler before;
};

} // namespace Tests
} // namespace Velmora

#endif
