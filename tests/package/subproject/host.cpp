#include <QtCore/QObject>
#include <QtCore/QString>

class Host : public QObject
{
public slots:
    static QString unused(int argument) { return "text"; }
};
