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
    /// The number of modes.
    Q_PROPERTY(int totalOfMode READ totalOfMode WRITE setTotalOfMode NOTIFY totalOfModeChanged)
    /// The current mode, an index into modeNames.
    Q_PROPERTY(int curMode READ curMode WRITE setCurMode NOTIFY curModeChanged)
    /// The names of the modes.
    Q_PROPERTY(QStringList modeNames READ modeNames WRITE setModeNames NOTIFY modeNamesChanged)

public:
    /// One mode, mode 0 current, no names.
    explicit DeskCaptureOption(QObject* parent = nullptr);
    ~DeskCaptureOption() override;

signals:
    /// The number of modes changed.
    void totalOfModeChanged();
    /// The current mode changed; capturers switch their back-end on it.
    void curModeChanged();
    /// The mode names changed.
    void modeNamesChanged();

public slots:
    /// Sets the number of modes; emits totalOfModeChanged() when it changes.
    void setTotalOfMode(int newTotalOfMode);
    /// Selects a mode; a value outside 0 .. totalOfMode() - 1, or the current one, is ignored.
    void setCurMode(int newCurMode);
    /// Sets the mode names; emits modeNamesChanged() when they change.
    void setModeNames(const QStringList& names);

public:
    /// The number of modes.
    Q_INVOKABLE int totalOfMode() const;
    /// The current mode.
    Q_INVOKABLE int curMode() const;
    /// The names of the modes, by index.
    Q_INVOKABLE QStringList modeNames() const;
    /// The name of a mode, or "Mode <index + 1>" for one without a name.
    Q_INVOKABLE QString modeName(int index) const;

private:
    int m_totalOfMode = 1;
    int m_curMode = 0;
    QStringList m_modeNames;
};
