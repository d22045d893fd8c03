#pragma once

#include "ifaces/ScreenSource.h"

namespace Orvanta {
namespace QtGui {

/// Screen sizes from the Qt GUI application's screen list; empty without one.
class GuiScreenSource final : public Ifaces::ScreenSource
{
public:
    std::vector<Ifaces::ScreenSize> screenSizes() const override;
};

} // namespace QtGui
} // namespace Orvanta
