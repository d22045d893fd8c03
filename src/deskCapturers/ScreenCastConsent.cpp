#include "ScreenCastConsent.h"

#include "ConfigurationManager.h"

#include <QtCore/QDebug>
#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>
#include <QtCore/QStringList>

#include <atomic>

using Orvanta::Ifaces::CaptureConsent;
using Orvanta::Ifaces::ItemGrant;
using Orvanta::Ifaces::ItemRequest;

std::string ScreenCastConsent::restoreToken(const std::string& output)
{
    return restoreToken(QString::fromStdString(output));
}

void ScreenCastConsent::keep(
    const std::string& output, const ItemRequest& request, const ItemGrant& grant, bool pickedOther)
{
    keep(QString::fromStdString(output), request, grant, pickedOther);
}

std::string ScreenCastConsent::restoreToken(const QString& output)
{
    const QJsonValue tokens = ConfigurationManager::instance()->globalValue(QLatin1String(RestoreTokensKey));
    return tokens.toObject().value(output).toString().toStdString();
}

void ScreenCastConsent::keep(
    const QString& output, const ItemRequest& request, const ItemGrant& grant, bool pickedOther)
{
    if (grant.restoreTokenRefused) {
        qInfo().noquote() << QStringLiteral(
            "[WinRTCapturer]: The portal refused the consent kept for %1; the user was asked again")
                                 .arg(output);
    }
    // A choice of another output is not this output's consent: the next start
    // asks again rather than capture the wrong monitor for good.
    const std::string kept = pickedOther ? std::string() : grant.restoreToken;
    if (kept != request.restoreToken && (!kept.empty() || !request.restoreToken.empty())) {
        ConfigurationManager* configuration = ConfigurationManager::instance();
        configuration->setGlobalValue(
            QStringList {QLatin1String(RestoreTokensKey), output}, QString::fromStdString(kept));
        configuration->saveGlobalValues();
    }
    static std::atomic<bool> toldPerSession {false};
    if (grant.consent == CaptureConsent::PerSession && !toldPerSession.exchange(true)) {
        qWarning() << "[WinRTCapturer]: The desktop portal keeps no consent beyond a session (it needs ScreenCast "
                      "version 4 with restore tokens): the user is asked at every start";
    }
}
