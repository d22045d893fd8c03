#pragma once

#include <QtCore/qglobal.h>

// Symbols are hidden by default; the exported classes and free functions of
// the public API carry LIBORVANTA_EXPORT.
#if defined(LIBORVANTA_BUILDING_LIBRARY)
#define LIBORVANTA_EXPORT Q_DECL_EXPORT
#else
#define LIBORVANTA_EXPORT Q_DECL_IMPORT
#endif
