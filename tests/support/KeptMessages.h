#ifndef VELMORA_TESTS_SUPPORT_KEPTMESSAGES_H
#define VELMORA_TESTS_SUPPORT_KEPTMESSAGES_H

#include <QtCore/QStringList>

#include <mutex>

namespace Velmora {
namespace Tests {

/// Keeps what Qt prints in any thread, for as long as it lives. One at a time.
class KeptMessages
{
public:
    KeptMessages()
        : before(qInstallMessageHandler(keep))
    {
        kept().clear();
    }
    ~KeptMessages() { qInstallMessageHandler(before); }
    Q_DISABLE_COPY(KeptMessages)

    QStringList texts() const
    {
        const std::lock_guard<std::mutex> lock(mutex());
        return kept();
    }

private:
    static std::mutex& mutex()
    {
        static std::mutex instance;
        return instance;
    }
    static QStringList& kept()
    {
        static QStringList instance;
        return instance;
    }
    static void keep(QtMsgType, const QMessageLogContext&, const QString& text)
    {
        const std::lock_guard<std::mutex> lock(mutex());
        kept() << text;
    }

    QtMessageHandler before;
};

} // namespace Tests
} // namespace Velmora

#endif
