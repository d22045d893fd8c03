#pragma once

#include "ifaces/GraphicsCapture.h"

#include <QtCore/QString>

#include <string>

/**
 * The user's consent to screen casts, kept per output in the global
 * configuration value "screenCaptureRestoreTokens": an object with one
 * restore token per output, under the output's platform name. The token a
 * session hands out replaces the kept one at once. The log says:
 * - once per process, as a warning, when the portal keeps no consent beyond
 *   a session;
 * - at info level, when the portal refused a kept token.
 */
class ScreenCastConsent final : public Orvanta::Ifaces::ConsentStore
{
public:
    /// The global configuration value that keeps the restore tokens, one per output.
    static constexpr const char* RestoreTokensKey = "screenCaptureRestoreTokens";

    std::string restoreToken(const std::string& output) override;
    void keep(const std::string& output, const Orvanta::Ifaces::ItemRequest& request,
        const Orvanta::Ifaces::ItemGrant& grant, bool pickedOther) override;

    static std::string restoreToken(const QString& output);
    static void keep(const QString& output, const Orvanta::Ifaces::ItemRequest& request,
        const Orvanta::Ifaces::ItemGrant& grant, bool pickedOther);
};
