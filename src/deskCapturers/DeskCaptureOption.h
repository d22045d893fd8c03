#pragma once

#include "orvanta_global.h"

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QStringList>

/**
 * The desktop capture mode and its names.
 *
 * Modes are indexes into modeNames(): 0 "DXGI", 1 "WinRT", 2 "GDI" once the
 * registry has set them up. Only setCurMode() checks its range; it is meant to
 * be used from the registry's thread.
 */
class LIBORVANTA_EXPORT DeskCaptureOption : public QObject
{
    Q_OBJECT
    Q_PROPERTY(int totalOfMode READ totalOfMode WRITE setTotalOfMode NOTIFY totalOfModeChanged)
    Q_PROPERTY(int curMode READ curMode WRITE setCurMode NOTIFY curModeChanged)
    Q_PROPERTY(QStringList modeNames READ modeNames WRITE setModeNames NOTIFY modeNamesChanged)

public:
    explicit DeskCaptureOption(QObject* parent = nullptr);
    ~DeskCaptureOption() override;

signals:
    void totalOfModeChanged();
    void curModeChanged();
    void modeNamesChanged();

public slots:
    void setTotalOfMode(int newTotalOfMode);
    void setCurMode(int newCurMode);
    void setModeNames(const QStringList& names);

public:
    Q_INVOKABLE int totalOfMode() const;
    Q_INVOKABLE int curMode() const;
    Q_INVOKABLE QStringList modeNames() const;
    /// The name of a mode, or "Mode <index + 1>" for one without a name.
    Q_INVOKABLE QString modeName(int index) const;

private:
    int m_totalOfMode = 1;
    int m_curMode = 0;
    QStringList m_modeNames;
};
