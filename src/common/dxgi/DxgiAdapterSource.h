#pragma once

#include "ifaces/GraphicsAdapterSource.h"

namespace Orvanta {
namespace Dxgi {

/// Graphics adapters through a DXGI 1.1 factory (EnumAdapters1, GetDesc1).
class DxgiAdapterSource final : public Ifaces::GraphicsAdapterSource
{
public:
    std::unique_ptr<Ifaces::GraphicsAdapterList> open() const override;
};

} // namespace Dxgi
} // namespace Orvanta
