#include "Helpers.h"

#include "ResultCodeText.h"

#include <QtCore/QStringList>

#include <algorithm>

bool compareVersion(QString first, QString second)
{
    const QStringList firstParts = first.split(QLatin1Char('.'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    const QStringList secondParts = second.split(QLatin1Char('.'), Qt::KeepEmptyParts, Qt::CaseSensitive);
    const int partCount = std::max(firstParts.size(), secondParts.size());
    for (int index = 0; index < partCount; ++index) {
        const int a = index < firstParts.size() ? firstParts.at(index).toInt(nullptr, 10) : 0;
        const int b = index < secondParts.size() ? secondParts.at(index).toInt(nullptr, 10) : 0;
        if (a > b) {
            return true;
        }
        if (a < b) {
            return false;
        }
    }
    return false;
}

QDate convertDateMacro(const QString& date)
{
    static const char* const months[]
        = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    QString copy = date;
    for (int month = 0; month < 12; ++month) {
        if (copy.startsWith(QLatin1String(months[month]), Qt::CaseSensitive)) {
            copy.replace(0, 3, QStringLiteral("%1").arg(month + 1, 2, 10, QLatin1Char('0')));
            break;
        }
    }
    return QDate::fromString(copy, QStringLiteral("MM dd yyyy"));
}

QString win32ErrorMsg(long code)
{
    return QString::fromStdWString(Orvanta::resultCodeText(code, Orvanta::platformErrorTextSource()));
}
