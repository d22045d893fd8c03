#include "DeskCaptureOption.h"

#include <QtCore/QDebug>

DeskCaptureOption::DeskCaptureOption(QObject* parent)
    : QObject(parent)
{
}

DeskCaptureOption::~DeskCaptureOption() = default;

void DeskCaptureOption::setTotalOfMode(int newTotalOfMode)
{
    if (newTotalOfMode == m_totalOfMode)
        return;
    // Deliberately no range check and no correction of curMode: lowering the
    // total leaves the current mode as it is until the next valid choice.
    m_totalOfMode = newTotalOfMode;
    emit totalOfModeChanged();
}

void DeskCaptureOption::setCurMode(int newCurMode)
{
    if (newCurMode == m_curMode)
        return;
    if (newCurMode < 0 || newCurMode >= m_totalOfMode) {
        qInfo() << "[DeskCaptureOption]: The newCurMode: " << newCurMode << " is out of range[0, " << m_totalOfMode - 1
                << "]";
        return;
    }
    m_curMode = newCurMode;
    qInfo() << "[DeskCaptureOption]: The current desk capture mode changed to" << modeName(newCurMode);
    emit curModeChanged();
}

void DeskCaptureOption::setModeNames(const QStringList& names)
{
    // QList's equality first compares the shared data, then length and entries.
    if (names == m_modeNames)
        return;
    m_modeNames = names;
    emit modeNamesChanged();
}

int DeskCaptureOption::totalOfMode() const
{
    return m_totalOfMode;
}

int DeskCaptureOption::curMode() const
{
    return m_curMode;
}

QStringList DeskCaptureOption::modeNames() const
{
    return m_modeNames;
}

QString DeskCaptureOption::modeName(int index) const
{
    if (index >= 0 && index < m_modeNames.size())
        return m_modeNames.at(index);
    return QStringLiteral("Mode %1").arg(index + 1);
}
