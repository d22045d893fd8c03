#pragma once

#include "orvanta_global.h"

#include <QtCore/QDate>
#include <QtCore/QString>

/**
 * True if and only if @p first is a strictly greater dotted version than
 * @p second. Parts are compared as base-10 numbers; a missing, empty or
 * non-numeric part counts as 0, so "1.2" equals "1.2.0".
 */
LIBORVANTA_EXPORT bool compareVersion(QString first, QString second);

/**
 * Parses a date in the form of the compiler's date text, "Nov 20 2026",
 * into a QDate; the invalid date when it does not parse. The day must have
 * two digits: the compiler writes a day below 10 with a leading blank
 * ("Nov  4 2026"), which gives the invalid date, so replace that blank with
 * a "0" first.
 */
LIBORVANTA_EXPORT QDate convertDateMacro(const QString& date);

/**
 * The log text of a result code in the HRESULT convention: "No error" for a
 * code that is not negative, otherwise "0x<hex>: <system text>", or
 * "0x<hex>: Unknown expect" when the system has no text for it.
 */
LIBORVANTA_EXPORT QString win32ErrorMsg(long code);
