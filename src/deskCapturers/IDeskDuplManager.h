#pragma once

#include "IDeskCapture.h"
#include "orvanta_global.h"

#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>

/**
 * The registry of display outputs.
 *
 * Each output has an identifier such as "DISPLAY1-A0-O0". A capturer is handed
 * out by acquireCapturer() and given back by releaseCapturer(); the registry
 * counts the references per identifier.
 */
class LIBORVANTA_EXPORT IDeskDuplManager : public QObject
{
    Q_OBJECT

public:
    /// An empty registry.
    explicit IDeskDuplManager(QObject* parent = nullptr);
    ~IDeskDuplManager() override;

    /// All identifiers, in order.
    virtual QList<QString> allCapturer() = 0;
    /// The first identifier; a null string if there is none.
    virtual QString defaultCapturer() = 0;
    /// Counts one reference and gives the capturer; null for an unknown identifier.
    virtual QSharedPointer<IDeskCapture> acquireCapturer(QString id) = 0;
    /// Gives one reference back.
    virtual void releaseCapturer(QString id) = 0;
    /// The display text; a null string for an unknown identifier.
    virtual QString capturerDesc(QString id) = 0;
    /// "id", "deviceName", "width", "height", "x", "y" and "desc"; empty for an unknown identifier.
    virtual QJsonObject capturerMetadata(QString id) = 0;

signals:
    /// Output @p capIdx was enumerated; DeskDuplManager emits it during its construction.
    void capturerReady(QString capIdx);
    /// Reserved for an output that fails; DeskDuplManager never emits it.
    void capturerFailed(QString capIdx);
};
