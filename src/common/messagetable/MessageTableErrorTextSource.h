#pragma once

#include "ifaces/ErrorTextSource.h"

namespace Orvanta {
namespace MessageTable {

/**
 * Result-code texts from a built-in table.
 *
 * Platforms without system message tables for HRESULTs get the sentences of
 * the codes that the library produces itself or maps its failures onto.
 */
class ErrorTextSource final : public Ifaces::ErrorTextSource
{
public:
    std::wstring systemMessage(long code) const override;
};

} // namespace MessageTable
} // namespace Orvanta
